# What every target of the project is built with.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 17)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

option(MEDIAD_TESTS "Build the tests (MEDIAD_SUITES says which)" ON)
option(MEDIAD_FUZZERS "Build the fuzzers, and none of the tests (preset fuzz)" OFF)
option(MEDIAD_BENCHMARKS "Build what ./bench measures with" OFF)
set(MEDIAD_SANITIZE "" CACHE STRING
    "Sanitizers, as -fsanitize= takes them: address,undefined or thread, or fuzzer-no-link,address,undefined")
option(MEDIAD_STATIC "Link everything into each program: for a board without shared libraries, and to know the size" OFF)
option(MEDIAD_COVERAGE "Count which lines of the daemon run (tests/coverage/report)" OFF)
set(MEDIAD_DEPENDENCIES "${CMAKE_SOURCE_DIR}/build/dependencies/${CMAKE_SYSTEM_PROCESSOR}" CACHE PATH
    "Where packaging/build-dependencies put the libraries that are built from source packages")
# Both find_package and pkg_check_modules look there first.
list(PREPEND CMAKE_PREFIX_PATH "${MEDIAD_DEPENDENCIES}")

find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)

# Everything links this: warnings are errors, and 32-bit targets get 64-bit files and times.
add_library(mediad_options INTERFACE)
target_compile_options(mediad_options INTERFACE -Wall -Wextra -Wconversion -Wshadow -Werror)
target_compile_definitions(mediad_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_include_directories(mediad_options INTERFACE "${CMAKE_SOURCE_DIR}")
target_link_libraries(mediad_options INTERFACE Threads::Threads)
if(MEDIAD_SANITIZE)
  # The trapping form needs no runtime library, for targets that have none.
  add_compile_options(-fsanitize=${MEDIAD_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${MEDIAD_SANITIZE})
  if(MEDIAD_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

if(MEDIAD_STATIC)
  add_compile_options(-ffunction-sections -fdata-sections)
  add_link_options(-static -Wl,--gc-sections)
  set(CMAKE_FIND_LIBRARY_SUFFIXES .a)
endif()

# Counts how often each line of the daemon's own folders runs, their headers in tests too: which copy of an inline function a
# program uses is the linker's choice.
if(MEDIAD_COVERAGE)
  add_compile_options(--coverage -fprofile-abs-path -fprofile-update=atomic
    "-fprofile-filter-files=^(${CMAKE_SOURCE_DIR}/|([.][.]/)+)(daemon|media_manager|firewire|slots|media|classes|platform)/")
  add_link_options(--coverage)
endif()

# Installed programs find the appliance's libraries beside them.
set(CMAKE_INSTALL_RPATH "$ORIGIN/../lib")

# The card's registers, the segments and the store are shared with other processes through 64-bit
# atomics at most; 32-bit targets take those from libatomic.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "ppc")
  link_libraries(atomic)
endif()

# mediad_library(NAME sources...): a static library of one floor, with the project's options.
function(mediad_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC mediad_options)
endfunction()

# mediad_appliance_library(NAME OUTPUT include-dir sources...): a stand-in for one of the appliance's closed
# libraries. Setting MEDIAD_<NAME>_LIBRARY to the real library's path replaces the stand-in.
function(mediad_appliance_library name output)
  string(TOUPPER "MEDIAD_${name}_LIBRARY" variable)
  set(${variable} "" CACHE FILEPATH "The appliance's own lib${output}.so; empty builds the stand-in")
  if(${variable})
    add_library(${name} SHARED IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES IMPORTED_LOCATION "${${variable}}")
    target_include_directories(${name} INTERFACE "${CMAKE_CURRENT_SOURCE_DIR}/include")
    target_link_libraries(${name} INTERFACE mediad_options)
    return()
  endif()
  # Fuzzers have it inside as well: clang's sanitizers are in programs only, and a fuzzer reaches what no library shows.
  if(MEDIAD_STATIC OR MEDIAD_FUZZERS)
    mediad_library(${name} ${ARGN})
    target_include_directories(${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}/include")
    return()
  endif()
  add_library(${name} SHARED ${ARGN})
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${output} SOVERSION 1)
  target_include_directories(${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}/include")
  target_link_libraries(${name} PUBLIC mediad_options)
  target_link_options(${name} PRIVATE -Wl,--no-undefined)
  install(TARGETS ${name} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_SKIP)
endfunction()
