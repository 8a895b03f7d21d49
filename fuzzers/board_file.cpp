// Board files. Their makers are trusted, and a chunk may do what it likes; what must hold is that no table, however
// strange, makes the reader stumble. So the chunk gets a Lua without a way to the outside, and is ended when it takes
// too long: neither would tell anything about the reader.

#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>

#include <climits>
#include <cstdlib>
#include <memory>

#include "fuzzers/fuzzer.h"
#include "slots/slot_listener.h"
#include "tests/fakes/fakes.h"

namespace {

constexpr int kMostInstructions = 20'000;
constexpr std::size_t kMostMemory = 32 << 20;

std::size_t memory = 0;

void* allocate(void*, void* block, std::size_t before, std::size_t after) {
    if (block == nullptr) before = 0;
    if (after > before && memory + (after - before) > kMostMemory) return nullptr;
    void* const moved = after == 0 ? (std::free(block), nullptr) : std::realloc(block, after);
    if (after == 0 || moved != nullptr) memory = memory - before + after;
    return moved;
}

// From the first time on at every instruction, or a chunk that catches its errors would go on for ever.
void stop(lua_State* lua, lua_Debug*) {
    lua_sethook(lua, stop, LUA_MASKCOUNT, 1);
    luaL_error(lua, "too long");
}

} // namespace

// Takes the library's place at link time.
void luaL_openlibs(lua_State* lua) {
    memory = 0;
    lua_setallocf(lua, allocate, nullptr);
    luaL_requiref(lua, "_G", luaopen_base, 1);
    luaL_requiref(lua, LUA_TABLIBNAME, luaopen_table, 1);
    luaL_requiref(lua, LUA_STRLIBNAME, luaopen_string, 1);
    luaL_requiref(lua, LUA_MATHLIBNAME, luaopen_math, 1);
    lua_settop(lua, 0);
    // Files, output and precompiled chunks.
    for (const char* name : {"dofile", "loadfile", "load", "loadstring", "print"}) {
        lua_pushnil(lua);
        lua_setglobal(lua, name);
    }
    // What takes as long as it likes in a single instruction.
    lua_getglobal(lua, "string");
    for (const char* name : {"find", "match", "gmatch", "gsub", "dump"}) {
        lua_pushnil(lua);
        lua_setfield(lua, -2, name);
    }
    lua_settop(lua, 0);
    lua_sethook(lua, stop, LUA_MASKCOUNT, kMostInstructions);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static fuzzers::StandardError errors;
    const std::string text(reinterpret_cast<const char*>(data), size);
    fakes::World world;
    SlotListener listener(&world.config, &world.card, world.os);
    const int result = listener.parseSpecification("0x0000ec01", text, &world.shell);
    fuzzers::require(result == 0 || result == -1, "the result");
    fuzzers::require(errors.take().empty() == (result == 0) || text.empty(), "a failure is said, and nothing else is");

    for (const std::string& capability : listener.getCapabilities())
        fuzzers::require(SlotListener::isKnownCapability(capability), "every capability is a known one");
    for (const eStorageSlot_t id : listener.supportedSlots()) {
        Slot& slot = listener.getSlot(id);
        fuzzers::require(slot.getSlotID() == id, "a slot is found by its identifier");
        slot.announce("sdb");
        slot.isReady();
        for (SlotLED* const led : slot.getLEDs()) {
            led->lightOn();
            led->lightOff();
        }
    }
    for (const auto& [slot, next] : listener.getNextSlotMap())
        fuzzers::require(slot >= eStorageSlotUnknown && next >= eStorageSlotUnknown, "slots follow slots");
    listener.getUsefulString("driver_scan");
    return 0;
}
