#ifndef MEDIAD_RECORDER_SYSTEM_HELD_TOOL_H
#define MEDIAD_RECORDER_SYSTEM_HELD_TOOL_H

// Becomes `arguments[0]`, a path or a name looked for in PATH, with `arguments` up to a null pointer, and with every block
// device among them held exclusively: one that is mounted, that has a mounted partition or that somebody else holds is
// refused, and none can be mounted before the tool ends. Arguments that are no block devices (options, images, names of
// nothing) are left to the tool.
//
// Returns only when that failed, after one line on standard error that begins with `self`: with status 8, that of a check
// that could not be made.
int becomeHolding(const char* self, char* const* arguments);

#endif
