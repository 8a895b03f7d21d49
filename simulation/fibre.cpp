#include "simulation/fibre.h"

#include <sys/mman.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>
#include <vector>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#include <sanitizer/common_interface_defs.h>
#elif defined(__SANITIZE_THREAD__)
#include <sanitizer/tsan_interface.h>
#endif

namespace simulation {

namespace {

// The clip reader's library and the sanitizers like deep stacks; only what is used of it takes memory.
constexpr std::size_t kStackSize = 1024 * 1024;

// Stacks of fibres that have ended, for the next ones: a history has thousands.
std::vector<char*>& spareStacks() {
    static auto& stacks = *new std::vector<char*>;
    return stacks;
}

char* takeStack() {
    if (!spareStacks().empty()) {
        char* const stack = spareStacks().back();
        spareStacks().pop_back();
        return stack;
    }
    void* const stack = ::mmap(nullptr, kStackSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (stack == MAP_FAILED) {
        std::perror("simulate: no stack for a fibre");
        std::abort();
    }
    return static_cast<char*>(stack);
}

} // namespace

Fibre::Fibre(std::function<void()> body) : _body(std::move(body)), _stack(takeStack()) {
    ::getcontext(&_own);
    _own.uc_stack.ss_sp = _stack;
    _own.uc_stack.ss_size = kStackSize;
    _own.uc_link = nullptr;
    // makecontext hands over ints only.
    const auto self = static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(this));
    ::makecontext(&_own, reinterpret_cast<void (*)()>(&Fibre::enter), 2, static_cast<unsigned int>(self >> 32),
                  static_cast<unsigned int>(self));
#if defined(__SANITIZE_THREAD__)
    _ownThread = __tsan_create_fiber(0);
#endif
}

Fibre::~Fibre() {
#if defined(__SANITIZE_THREAD__)
    __tsan_destroy_fiber(_ownThread);
#elif defined(__SANITIZE_ADDRESS__)
    // The frames that were never returned from have left their marks.
    __asan_unpoison_memory_region(_stack, kStackSize);
#endif
    spareStacks().push_back(_stack);
}

void Fibre::enter(unsigned int high, unsigned int low) {
    const std::uint64_t self = (static_cast<std::uint64_t>(high) << 32) | low;
    reinterpret_cast<Fibre*>(static_cast<std::uintptr_t>(self))->run();
}

void Fibre::run() {
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_finish_switch_fiber(nullptr, &_worldBottom, &_worldSize);
#endif
    _body();
    _done = true;
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_start_switch_fiber(nullptr, _worldBottom, _worldSize);
#elif defined(__SANITIZE_THREAD__)
    __tsan_switch_to_fiber(_worldThread, 0);
#endif
    ::setcontext(&_world);
}

void Fibre::resume() {
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_start_switch_fiber(&_worldFake, _stack, kStackSize);
#elif defined(__SANITIZE_THREAD__)
    _worldThread = __tsan_get_current_fiber();
    __tsan_switch_to_fiber(_ownThread, 0);
#endif
    ::swapcontext(&_world, &_own);
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_finish_switch_fiber(_worldFake, nullptr, nullptr);
#endif
}

void Fibre::pause() {
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_start_switch_fiber(&_ownFake, _worldBottom, _worldSize);
#elif defined(__SANITIZE_THREAD__)
    __tsan_switch_to_fiber(_worldThread, 0);
#endif
    ::swapcontext(&_own, &_world);
#if defined(__SANITIZE_ADDRESS__)
    __sanitizer_finish_switch_fiber(_ownFake, nullptr, nullptr);
#endif
}

} // namespace simulation
