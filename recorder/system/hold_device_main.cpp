// hold-device PROGRAM ARGUMENT…: becomes PROGRAM, which finds every block device among its arguments held exclusively
// (held_tool.h). Status 8 and one line on standard error when a device is refused. The status and the output are PROGRAM's
// otherwise.

#include <cstdio>

#include "recorder/system/held_tool.h"

int main(int count, char* arguments[]) {
    if (count < 2) {
        std::fprintf(stderr, "usage: hold-device PROGRAM ARGUMENT...\n");
        return 2;
    }
    return becomeHolding("hold-device", arguments + 1);
}
