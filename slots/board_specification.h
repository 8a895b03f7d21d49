#ifndef MEDIAD_SLOTS_BOARD_SPECIFICATION_H
#define MEDIAD_SLOTS_BOARD_SPECIFICATION_H

// Reading values out of a board specification file's tables. The file itself is described in slot_listener.h.

#include <string>

struct lua_State;

// Both expect a table on the top of the stack and leave the stack as they found it. A table whose metatable raises an
// error raises it here as well, so call them inside a protected call where the table is a stranger's.

// The number under `key`, truncated towards zero and taken modulo 2^32; not-a-number and the infinities give 0. Texts
// that Lua takes for numbers count. 0 on success; -1 with `out` 0 when there is no number.
int getNumberFromConfigTable(lua_State* lua, std::string key, unsigned int& out);

// The text under `key`; a number gives its text. 0 on success; -1 with an empty `out` when there is neither.
int getStringFromConfigTable(lua_State* lua, std::string key, std::string& out);

#endif
