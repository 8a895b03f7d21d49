#!/usr/bin/env python3
"""Checks that includes run down the floors only.

check_includes.py TREE: status 0 when every include of the floors' and the recorder's sources is allowed, 1 and a line for
each that is not.
"""

import pathlib
import re
import sys

# Higher number, higher floor. A folder includes its own files and those of lower floors.
FLOORS = {"platform": 0, "classes": 1, "media": 2, "slots": 3, "firewire": 4, "media_manager": 5, "daemon": 6, "tools": 6}
# A tool is a client of the store, the segments and the register file, as any other process would be.
NEVER_FROM_TOOLS = {"slots", "firewire", "media_manager", "daemon"}
BESIDE = {"recorder", "simulation", "boards", "packaging", "tests", "fuzzers", "benchmarks", "docs"}
SOURCES = {".h", ".hpp", ".cpp", ".cc", ".c"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def contract_of(tree):
    """The names of the appliance libraries' public headers."""
    return {str(header.relative_to(folder)) for folder in tree.glob("platform/*/include") for header in folder.rglob("*.h")}


def library_of(path):
    return path.parts[1] if path.parts[0] == "platform" and len(path.parts) > 2 else None


def complaint(tree, contract, source, kind, name):
    """What is wrong with an include, or None. source is relative to the tree."""
    floor = source.parts[0]
    if ".." in pathlib.PurePath(name).parts:
        return "leaves its folder with '..'"
    target = pathlib.PurePath(name)
    if len(target.parts) == 1:
        beside = tree / source.parent / name
        if name in contract or kind == "<":
            return None
        if beside.exists():
            return None
        private = sorted(str(p.relative_to(tree)) for p in tree.glob(f"platform/*/{name}"))
        if private:
            return None if library_of(source) == pathlib.PurePath(private[0]).parts[1] else f"is private to {private[0]}"
        return "is no contract header and does not lie beside the source"
    first = target.parts[0]
    if first in BESIDE and (tree / name).exists():
        return None if floor == first else f"reaches into {first}/, which no floor sees"
    if first not in FLOORS:
        if kind == "<" or (tree / source.parent / name).exists():
            return None
        return "is in no folder of the project; other libraries' headers go into angle brackets"
    if not (tree / name).exists():
        return "does not exist"
    if first == "platform" and "include" not in target.parts and library_of(source) != library_of(target):
        return "is private to a stand-in"
    if floor == "tools" and first in NEVER_FROM_TOOLS:
        return f"a tool knows nothing of {first}/"
    if floor == "daemon" and first == "tools":
        return "the daemon knows nothing of tools/"
    if floor in FLOORS and FLOORS[first] > FLOORS[floor]:
        return f"runs up, from {floor}/ to {first}/"
    return None


def main():
    tree = pathlib.Path(sys.argv[1]).resolve()
    contract = contract_of(tree)
    read = wrong = 0
    for folder in sorted(FLOORS) + ["recorder"]:
        for path in sorted((tree / folder).rglob("*")):
            if path.suffix not in SOURCES:
                continue
            source = path.relative_to(tree)
            read += 1
            for number, line in enumerate(path.read_text(encoding="utf-8").splitlines(), 1):
                match = INCLUDE.match(line)
                problem = match and complaint(tree, contract, source, match[1], match[2])
                if problem:
                    print(f'{source}:{number}: "{match[2]}" {problem}')
                    wrong += 1
    print(f"{read} sources read, {wrong} includes wrong")
    return 1 if wrong or not read else 0


if __name__ == "__main__":
    sys.exit(main())
