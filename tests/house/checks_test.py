#!/usr/bin/env python3
"""The checks of the tree must find what they look for: each is shown a small tree with one fault.

checks_test.py TREE
"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

TREE = pathlib.Path(sys.argv.pop(1)).resolve()
SOUND = {
    "platform/pellix/include/file_utils.h": "",
    "platform/pellix/file_utils.cpp": '#include "file_utils.h"\n#include "pipe.h"\n',
    "platform/pellix/pipe.h": "",
    "classes/die/die.h": "",
    "slots/slot.h": '#include <string>\n#include "classes/die/die.h"\n#include "file_utils.h"\n',
    "media_manager/media_manager.h": '#include "slots/slot.h"\n',
    "daemon/main.cpp": '#include "media_manager/media_manager.h"\n',
    "tools/mediactl.cpp": '#include "file_utils.h"\n#include <CLI/CLI.hpp>\n',
    "tests/fakes/fake.h": "",
}


def run(changes, *command):
    with tempfile.TemporaryDirectory() as folder:
        tree = pathlib.Path(folder)
        for name, text in {**SOUND, **changes}.items():
            path = tree / name
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_text(text)
        result = subprocess.run([*command, folder], capture_output=True, text=True)
        return result.returncode, result.stdout


class Includes(unittest.TestCase):
    def check(self, expected, **changes):
        status, output = run({name.replace("__", "/") + ".cpp": f"#include {include}\n" for name, include in changes.items()},
                             "python3", TREE / "tests/house/check_includes.py")
        self.assertEqual(status, 1 if expected else 0, output)
        self.assertIn(expected, output)

    def test_a_sound_tree_passes(self):
        self.check("")

    def test_an_include_that_runs_up(self):
        self.check("runs up, from slots/ to media_manager/", slots__a='"media_manager/media_manager.h"')

    def test_angle_brackets_hide_nothing(self):
        self.check("runs up, from classes/ to slots/", classes__a="<slots/slot.h>")

    def test_a_tool_that_looks_into_the_daemon(self):
        self.check("a tool knows nothing of slots/", tools__a='"slots/slot.h"')

    def test_a_stand_ins_private_header_by_path(self):
        self.check("is private to a stand-in", slots__a='"platform/pellix/pipe.h"')

    def test_a_stand_ins_private_header_by_bare_name(self):
        self.check("is private to platform/pellix/pipe.h", slots__a='"pipe.h"')

    def test_a_stand_in_that_uses_another_ones_private_header(self):
        self.check("is private to platform/pellix/pipe.h", platform__ossik__a='"pipe.h"')

    def test_a_path_with_dots(self):
        self.check("leaves its folder", slots__a='"../slots/slot.h"')

    def test_a_test_header_in_the_product(self):
        self.check("which no floor sees", slots__a='"tests/fakes/fake.h"')

    def test_a_header_that_does_not_exist(self):
        self.check("does not exist", daemon__a='"slots/gone.h"')


class Wording(unittest.TestCase):
    def check(self, expected, changes):
        status, output = run(changes, TREE / "packaging/check-wording")
        self.assertEqual(status, 1 if expected else 0, output)
        self.assertIn(expected, output)

    def test_a_sound_tree_passes(self):
        self.check("", {"README.md": "Board specification file; part 3 of 7; https" + "://example.org\n", "a.txt": "build/" "work/x"})

    def test_a_chapter_of_a_document(self):
        self.check("mentions a document", {"slots/a.cpp": "// see Par" + "t 3.4\n"})

    def test_the_document_itself(self):
        self.check("mentions a document", {"slots/a.cpp": "// as " + "specified\n"})

    def test_a_folder_of_one_machine(self):
        self.check("mentions a place of one machine", {"tools/a": "cd /wor" + "k/main\n"})

    def test_an_address_in_a_script(self):
        self.check("an address in a script", {"tools/a": "#!/bin/sh\nwget https" + "://example.org\n"})


if __name__ == "__main__":
    unittest.main()
