// fsck.hfsplus ARGUMENT…: the distribution's tool of that name, at the place where mediad runs it. It would repair a volume
// that is mounted, which destroys it: a device is held exclusively meanwhile (held_tool.h).
//
// The quick check, -q, reads a few blocks, yet the tool sets up its full cache for it, which takes longer than the check:
// that one gets a small cache. A program and no script, because a medium is checked three times before it is in use.

#include <cstring>
#include <vector>

#include "recorder/system/held_tool.h"

int main(int count, char* arguments[]) {
    char tool[] = "/sbin/fsck.hfsplus";
    char cache[] = "-c";
    char small[] = "1m";
    std::vector<char*> line{tool};
    if (count > 1 && std::strcmp(arguments[1], "-q") == 0) line.insert(line.end(), {cache, small});
    if (count > 1) line.insert(line.end(), arguments + 1, arguments + count);
    line.push_back(nullptr);
    return becomeHolding("fsck.hfsplus", line.data());
}
