#include "tools/board_reader.h"

#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "serial_number_ossik.h"

namespace mediactl {

namespace {

constexpr char kFolder[] = "/usr/local/share/specs/";
constexpr char kSuffix[] = ".specification";
constexpr char kFirewire[] = "firewire_data"; // among the media capabilities

// Enough for any description of a board, and over in about a second.
constexpr int kMaxInstructions = 50'000'000;

// Looking at a board must neither write to mediactl's output nor do twice what the daemon's own run of the chunk did.
constexpr char kHarmless[] = R"(
    local nothing = function() end
    local open = io.open
    local sink = setmetatable({}, { __index = function() return function(self) return self end end })
    local toSink = function() return sink end
    print, io.write, io.output, io.stdout, io.stderr = nothing, toSink, toSink, sink, sink
    io.open = function(name) return open(name) end
    io.popen, io.tmpfile = nothing, nothing
    os.execute, os.exit, os.remove, os.rename, os.tmpname = nothing, nothing, nothing, nothing, nothing
    debug = nil
)";

struct LuaCloser {
    void operator()(lua_State* state) const { lua_close(state); }
};

void stopChunk(lua_State* state, lua_Debug*) {
    // From here on at every instruction, or a chunk that catches errors in a loop would go on.
    lua_sethook(state, stopChunk, LUA_MASKCOUNT, 1);
    luaL_error(state, "it does not end");
}

// Source text only: precompiled code is not checked by anybody before it runs.
void run(lua_State* state, const char* text, const char* name) {
    if (luaL_loadbufferx(state, text, std::strlen(text), name, "t") != LUA_OK) lua_error(state);
    lua_call(state, 0, 0);
}

// As the daemon takes numbers: truncated towards zero, modulo 2^32.
std::uint32_t toUnsigned(lua_Number number) {
    if (!std::isfinite(number)) return 0;
    const lua_Number rest = std::fmod(std::trunc(number), 4294967296.0);
    return static_cast<std::uint32_t>(rest < 0 ? rest + 4294967296.0 : rest);
}

// The field `key` of the table on top of the stack; 0, or empty, where it is missing or of another type.
std::uint32_t numberField(lua_State* state, const char* key) {
    lua_getfield(state, -1, key);
    const std::uint32_t number = lua_isnumber(state, -1) ? toUnsigned(lua_tonumber(state, -1)) : 0;
    lua_pop(state, 1);
    return number;
}

std::string textField(lua_State* state, const char* key) {
    lua_getfield(state, -1, key);
    std::string text;
    std::size_t size = 0;
    // The value is a copy on the stack: a number that becomes text here does not change the table.
    if (lua_isstring(state, -1)) {
        const char* const characters = lua_tolstring(state, -1, &size);
        text.assign(characters, size);
    }
    lua_pop(state, 1);
    return text;
}

// Calls visit() for every table in the list that is the field `key` of the table on top, with that table on top.
template <typename Visit>
void visitTables(lua_State* state, const char* key, Visit visit) {
    lua_getfield(state, -1, key);
    if (lua_istable(state, -1)) {
        for (lua_pushnil(state); lua_next(state, -2) != 0; lua_pop(state, 1))
            if (lua_istable(state, -1)) visit();
    }
    lua_pop(state, 1);
}

BoardSlot readSlot(lua_State* state) {
    BoardSlot slot;
    slot.name = textField(state, "name");
    lua_getfield(state, -1, "present");
    if (lua_istable(state, -1))
        slot.sensor = BoardSensor{numberField(state, "reg"), numberField(state, "mask"), numberField(state, "shift")};
    lua_pop(state, 1);
    visitTables(state, "status", [&] {
        const std::string type = textField(state, "type");
        if (type == "register") slot.leds.push_back({true, numberField(state, "reg"), numberField(state, "bit"), 0});
        if (type == "parameter") slot.leds.push_back({false, 0, 0, numberField(state, "param")});
    });
    return slot;
}

using Slots = std::map<std::string, BoardSlot>;

struct Work {
    const char* text; // the chunk; what follows a NUL byte is not part of it
    Slots slots;
    bool firewire = false;
};

// Runs as a protected call: a field that is looked up may raise, too, by way of a metatable.
int runChunk(lua_State* state) {
    Work& work = *static_cast<Work*>(lua_touserdata(state, 1));
    luaL_checkstack(state, LUA_MINSTACK, nullptr);
    luaL_openlibs(state);
    run(state, kHarmless, "=harmless");
    run(state, work.text, "=line");
    lua_getglobal(state, "specification");
    if (!lua_istable(state, -1)) return luaL_error(state, "it holds no table \"specification\"");
    visitTables(state, "slots", [&] {
        BoardSlot slot = readSlot(state);
        work.slots[slot.name] = std::move(slot);
    });
    lua_getglobal(state, "mediaCapabilities");
    if (lua_istable(state, -1)) {
        for (lua_pushnil(state); lua_next(state, -2) != 0; lua_pop(state, 1))
            work.firewire = work.firewire || (lua_isstring(state, -1) && !std::strcmp(lua_tostring(state, -1), kFirewire));
    }
    return 0;
}

// The result is empty when all went well, else why not.
std::string readSlots(const std::string& text, Slots& slots, bool& firewire) {
    const std::unique_ptr<lua_State, LuaCloser> state(luaL_newstate());
    if (!state) return "out of memory";
    lua_sethook(state.get(), stopChunk, LUA_MASKCOUNT, kMaxInstructions);
    Work work{text.c_str(), {}, false};
    lua_pushcfunction(state.get(), runChunk);
    lua_pushlightuserdata(state.get(), &work);
    if (lua_pcall(state.get(), 1, 0, 0) == LUA_OK) {
        slots = std::move(work.slots);
        firewire = work.firewire;
        return {};
    }
    const char* const message = lua_tostring(state.get(), -1);
    return message ? message : "the chunk fails";
}

} // namespace

Board readBoard() {
    Board board;
    const std::string id = SerialNumber_Ossik::GetBoardID();
    if (id.empty()) {
        board.problem = "this machine does not say which board it is; no slots are listed";
        return board;
    }
    const std::string path = kFolder + id + kSuffix;
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    if (!file || !(text << file.rdbuf())) {
        board.problem = path + " cannot be read; no slots are listed";
        return board;
    }
    Slots slots;
    const std::string reason = readSlots(text.str(), slots, board.mayHaveFirewire);
    if (!reason.empty()) board.problem = path + ": " + reason + "; no slots are listed";
    for (auto& [name, slot] : slots) board.slots.push_back(std::move(slot));
    return board;
}

} // namespace mediactl
