// The part of SlotListener that reads the board specification file.

#include "slots/board_specification.h"

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <lauxlib.h>
#include <lua.h>
#include <lualib.h>
#include <utility>

#include "classes/diagnostics/diagnostics.h"
#include "printable.h"
#include "slots/slot_led_param.h"
#include "slots/slot_led_register.h"
#include "slots/slot_listener.h"

namespace {

// Lua's own conversion rounds, and means nothing for numbers that do not fit: this one truncates and wraps.
std::uint32_t toUnsigned(lua_Number number) {
    if (!std::isfinite(number)) return 0;
    constexpr lua_Number kModulus = 4294967296.0;
    lua_Number rest = std::fmod(std::trunc(number), kModulus);
    if (rest < 0) rest += kModulus;
    return static_cast<std::uint32_t>(rest);
}

// The text of a string or number anywhere on the stack. The conversion works on a copy: done in place, it would turn a
// number key into a string, and lua_next would lose its way.
std::string textAt(lua_State* lua, int index) {
    lua_pushvalue(lua, index);
    std::size_t length = 0;
    const char* const characters = lua_tolstring(lua, -1, &length);
    std::string text(characters, length);
    lua_pop(lua, 1);
    return text;
}

// Calls `each` for every entry of the table on the top of the stack, in Lua's order, with the key below the value on
// the top. `each` leaves the stack as it found it, or returns false to give up (and then need not).
template <typename Each>
bool walkTable(lua_State* lua, Each each) {
    lua_pushnil(lua);
    while (lua_next(lua, -2) != 0) {
        if (!each()) return false;
        lua_pop(lua, 1);
    }
    return true;
}

// What an error left on the top of the stack, in one line; anything may be thrown in Lua. Allocates nothing in Lua, so
// that it may stand outside a protected call.
std::string errorText(lua_State* lua) {
    switch (lua_type(lua, -1)) {
    case LUA_TSTRING: return lua_tostring(lua, -1);
    case LUA_TNUMBER: {
        char text[LUAI_MAXNUMBER2STR];
        lua_number2str(text, lua_tonumber(lua, -1));
        return text;
    }
    default: return std::string("(error object is a ") + luaL_typename(lua, -1) + " value)";
    }
}

// One line on standard error; the result is the parser's.
int fail(const std::string& message) {
    report(printable(message));
    return -1;
}

int failToLoad(const std::string& error) { return fail(" unable to load specification file. " + error); }

} // namespace

int getNumberFromConfigTable(lua_State* lua, std::string key, unsigned int& out) {
    out = 0;
    lua_getfield(lua, -1, key.c_str());
    const bool isNumber = lua_isnumber(lua, -1) != 0;
    if (isNumber) out = toUnsigned(lua_tonumber(lua, -1));
    lua_pop(lua, 1);
    return isNumber ? 0 : -1;
}

int getStringFromConfigTable(lua_State* lua, std::string key, std::string& out) {
    out.clear();
    lua_getfield(lua, -1, key.c_str());
    const bool isText = lua_isstring(lua, -1) != 0;
    if (isText) out = textAt(lua, -1);
    lua_pop(lua, 1);
    return isText ? 0 : -1;
}

// One reading of one file. Reading a table can raise a Lua error as much as running the chunk can (its metatable is the
// file's own), so everything happens under one protected call.
class SlotListener::SpecificationReader {
public:
    SpecificationReader(SlotListener& listener, const std::string& expectedBoardId, const std::string& text,
                        FileUtils* system)
        : _listener(listener), _expectedBoardId(expectedBoardId), _text(text), _system(system) {}

    // 0, or -1 after the failure was reported.
    int read() {
        const std::unique_ptr<lua_State, decltype(&lua_close)> lua(luaL_newstate(), &lua_close);
        if (lua == nullptr) return failToLoad("not enough memory");
        lua_pushcfunction(lua.get(), &SpecificationReader::readProtected);
        lua_pushlightuserdata(lua.get(), this);
        if (lua_pcall(lua.get(), 1, 0, 0) != LUA_OK) return failToLoad(errorText(lua.get()));
        return _result;
    }

private:
    static int readProtected(lua_State* lua) {
        SpecificationReader* const self = static_cast<SpecificationReader*>(lua_touserdata(lua, 1));
        lua_settop(lua, 0);
        self->_result = self->readAll(lua);
        return 0;
    }

    int readAll(lua_State* lua) {
        luaL_openlibs(lua);
        // The text stands for the chunk's name as well, so that error messages quote it. Text only: a precompiled chunk
        // could do anything to the process.
        if (luaL_loadbufferx(lua, _text.c_str(), std::strlen(_text.c_str()), _text.c_str(), "t") != LUA_OK ||
            lua_pcall(lua, 0, 0, 0) != LUA_OK)
            return failToLoad(errorText(lua));

        if (const int result = readBoardId(lua); result != 0) return result;
        if (const int result = readMediaCapabilities(lua); result != 0) return result;

        lua_getglobal(lua, "specification");
        if (!lua_istable(lua, -1)) return fail(" specification file does not contain a valid specification.");
        lua_getfield(lua, -1, "slots");
        if (lua_istable(lua, -1)) {
            const bool good =
                walkTable(lua, [this, lua] { return !lua_istable(lua, -1) || readSlot(lua) == 0; });
            if (!good) return -1;
        }
        lua_pop(lua, 1);
        lua_getfield(lua, -1, "nextSlot");
        if (lua_istable(lua, -1)) readNextSlot(lua);
        lua_pop(lua, 2);

        lua_getglobal(lua, "usefulStrings");
        if (lua_istable(lua, -1)) readUsefulStrings(lua);
        lua_pop(lua, 1);
        return _text.empty() ? -1 : 0;
    }

    int readBoardId(lua_State* lua) {
        lua_getglobal(lua, "board_id");
        if (lua_isnumber(lua, -1) == 0) return fail(" specification file does not contain a board id.");
        char boardId[sizeof "0x00000000"];
        std::snprintf(boardId, sizeof boardId, "0x%08x", static_cast<unsigned int>(toUnsigned(lua_tonumber(lua, -1))));
        lua_pop(lua, 1);
        if (boardId == _expectedBoardId) return 0;
        return fail(std::string(" board id in spec file, ") + boardId + ", does not match expected board id, " +
                    _expectedBoardId);
    }

    int readMediaCapabilities(lua_State* lua) {
        lua_getglobal(lua, "mediaCapabilities");
        if (!lua_istable(lua, -1)) // the misspelt word is what support looks for
            return fail(" specification file does not contain a valid media capabilties table.");
        const bool good = walkTable(lua, [this, lua] {
            if (lua_isstring(lua, -1) == 0) return true;
            const std::string capability = textAt(lua, -1);
            if (!isKnownCapability(capability)) return fail(" unknown media capability: " + capability) == 0;
            _listener._mediaCapabilities.insert(capability);
            return true;
        });
        if (!good) return -1;
        lua_pop(lua, 1);
        return 0;
    }

    // The slot's table is on the top of the stack; here and below it stays there when the result is 0.
    int readSlot(lua_State* lua) {
        Slot slot;
        std::string text;
        getStringFromConfigTable(lua, "name", text);
        const std::string name = text;
        slot.setName(name);
        slot.setSlotID(slotIDOf(name));
        getStringFromConfigTable(lua, "address", text);
        slot.setAddress(text);
        getStringFromConfigTable(lua, "scanPath", text);
        slot.setScanPath(text);

        lua_getfield(lua, -1, "capabilities");
        if (lua_istable(lua, -1)) {
            const bool good = walkTable(lua, [lua, &slot] {
                if (lua_isstring(lua, -1) == 0) return true;
                const std::string capability = textAt(lua, -1);
                if (!Slot::isKnownCapability(capability)) return fail(" unknown slot capability: " + capability) == 0;
                slot.addCapability(capability);
                return true;
            });
            if (!good) return -1;
        }
        lua_pop(lua, 1);

        lua_getfield(lua, -1, "status");
        if (lua_istable(lua, -1)) {
            const bool good =
                walkTable(lua, [this, lua, &slot] { return !lua_istable(lua, -1) || readLED(lua, slot) == 0; });
            if (!good) return -1;
        }
        lua_pop(lua, 1);

        lua_getfield(lua, -1, "present");
        if (lua_istable(lua, -1)) {
            unsigned int reg = 0;
            unsigned int mask = 0;
            unsigned int shift = 0;
            getNumberFromConfigTable(lua, "reg", reg);
            getNumberFromConfigTable(lua, "mask", mask);
            getNumberFromConfigTable(lua, "shift", shift);
            slot.setSensor(SlotSensor(reg, mask, shift, _listener._card));
        }
        lua_pop(lua, 1);

        if (_listener._mediaCapabilities.contains("cf_hack")) {
            slot.setSystem(_system);
            getStringFromConfigTable(lua, "cf_hack_present", text);
            slot.setCFHackPresentString(text);
            getStringFromConfigTable(lua, "cf_hack_not_present", text);
            slot.setCFHackNotPresentString(text);
        }

        // A second slot of the same name takes the place of the first altogether.
        _listener._slots.insert_or_assign(name, slot);
        return 0;
    }

    int readLED(lua_State* lua, Slot& slot) {
        std::string type;
        getStringFromConfigTable(lua, "type", type);
        std::unique_ptr<SlotLED> led;
        if (type == "register") {
            unsigned int reg = 0;
            unsigned int bit = 0;
            getNumberFromConfigTable(lua, "reg", reg);
            getNumberFromConfigTable(lua, "bit", bit);
            led = std::make_unique<SlotLEDRegister>(reg, bit, _listener._card, _listener._os);
        } else if (type == "parameter") {
            unsigned int param = 0;
            getNumberFromConfigTable(lua, "param", param);
            led = std::make_unique<SlotLEDParam>(param, _listener._config);
        } else {
            return fail(" unknownrecognized status LED type: " + type); // the garbled word is in the field's manuals
        }
        slot.addLED(led.get());
        _listener._leds.push_back(std::move(led));
        return 0;
    }

    void readNextSlot(lua_State* lua) {
        walkTable(lua, [this, lua] {
            if (lua_isstring(lua, -2) == 0 || lua_isstring(lua, -1) == 0) return true;
            const std::string key = textAt(lua, -2);
            const eStorageSlot_t slot = key == "default" ? eStorageSlotUnknown : slotIDOf(key);
            _listener._nextSlot[slot] = slotIDOf(textAt(lua, -1));
            return true;
        });
    }

    void readUsefulStrings(lua_State* lua) {
        walkTable(lua, [this, lua] {
            if (lua_isstring(lua, -2) == 0 || lua_isstring(lua, -1) == 0) return true;
            _listener._usefulStrings[textAt(lua, -2)] = textAt(lua, -1);
            return true;
        });
    }

    // Any other name is the unknown slot's.
    eStorageSlot_t slotIDOf(const std::string& name) { return _slotIDs[name]; }

    SlotListener& _listener;
    const std::string& _expectedBoardId;
    const std::string& _text;
    FileUtils* const _system;
    std::map<std::string, eStorageSlot_t> _slotIDs = {
        {"D1", eStorageSlotD1}, {"D2", eStorageSlotD2}, {"S1", eStorageSlotS1}, {"S2", eStorageSlotS2}};
    int _result = -1;
};

int SlotListener::parseSpecification(std::string expectedBoardId, std::string specificationText, FileUtils* system) {
    return SpecificationReader(*this, expectedBoardId, specificationText, system).read();
}
