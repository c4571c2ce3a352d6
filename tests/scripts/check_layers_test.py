#!/usr/bin/env python3
"""scripts/check_layers on small trees: what must be found, and what must pass."""
import os
import subprocess
import sys
import tempfile
import unittest

CHECK = os.path.join(os.path.dirname(__file__), "..", "..", "scripts", "check_layers")

GOOD = {
    "lib/base/a.h": "",
    "lib/pelmo.h": '#include "base/s.h"\n#include "msg/m.h"\n',
    "lib/base/s.h": "",
    "lib/msg/m.h": '#include "../base/s.h"\n',
    "lib/base/b.h": '#include "lib/base/a.h"\n#include <vector>\n',
    "lib/transport/t.cc": '#include "lib/base/b.h"\n#include "lib/base/a.h"\n',
    "trace/main.cc": '#include "lib/transport/t.h"\n',
    "lib/transport/t.h": "",
    "tests/base/a_test.cc": '#include "trace/run/x.h"\n#include "tests/support/s.h"\n',
    "tests/support/s.h": "",
    "trace/run/x.h": "",
    "bus/b.cc": '#include "bus/b.h"\n#include "lib/msg/m.h"\n',
    "bus/b.h": '#include "lib/pelmo.h"\n#include "programs/p.h"\n',
    "programs/p.h": '#include "lib/base/a.h"\n',
}

FAULTS = {
    "up to the next floor": (
        {"lib/base/b.h": '\n# include "lib/containers/c.h"\n', "lib/containers/c.h": ""},
        "lib/base/b.h:2: includes lib/containers/c.h, a floor above its own"),
    "up to the tool": (
        {"lib/transport/t.h": '#include "trace/run/x.h"\n'},
        "lib/transport/t.h:1: includes trace/run/x.h, a floor above its own"),
    "from what programs share into one": (
        {"programs/p.h": '#include "bus/b.h"\n', "bus/b.h": ""},
        "programs/p.h:1: includes bus/b.h, a floor above its own"),
    "into another program": (
        {"pmd/router.h": '#include "trace/run/x.h"\n'},
        "pmd/router.h:1: includes trace/run/x.h, of another program"),
    "into the tests": (
        {"trace/run/x.h": '#include "tests/support/s.h"\n'},
        "trace/run/x.h:1: includes tests/support/s.h, which is on no floor"),
    "not from the root": (
        {"lib/base/b.h": '#include "a.h"\n'},
        "lib/base/b.h:1: includes lib/base/a.h, not written from the root"),
    "no file": (
        {"lib/base/b.h": '#include "lib/base/none.h"\n'},
        'lib/base/b.h:1: includes "lib/base/none.h", which is no file from the root'),
    "an installed header from the root": (
        {"lib/msg/m.h": '#include "lib/base/s.h"\n'},
        "lib/msg/m.h:1: is installed, and includes lib/base/s.h from the root"),
    "an installed header into the inside": (
        {"lib/msg/m.h": '#include "m_internal.h"\n', "lib/msg/m_internal.h": ""},
        "lib/msg/m.h:1: is installed, and includes lib/msg/m_internal.h"),
    "itself": (
        {"lib/base/a.h": '#include "lib/base/a.h"\n'},
        "lib/base/a.h:1: a circle: lib/base/a.h -> lib/base/a.h"),
    "a circle of three": (
        {"lib/base/a.h": '#include "lib/base/c.h"\n', "lib/base/c.h": '#include "lib/base/b.h"\n'},
        "lib/base/a.h:1: a circle: lib/base/a.h -> lib/base/c.h -> lib/base/b.h -> lib/base/a.h"),
    "a circle of modules": (
        {"lib/base/a.cc": '#include "lib/base/a.h"\n#include "lib/base/c.h"\n',
         "lib/base/c.h": '#include "lib/base/d_internal.h"\n',
         "lib/base/d_internal.h": "", "lib/base/d.cc": '#include "lib/base/a.h"\n'},
        "lib/base/a:1: a circle: lib/base/a -> lib/base/c -> lib/base/d -> lib/base/a"),
    "a room beside": (
        {"trace/packets/p.h": '#include "trace/capture/c.h"\n', "trace/capture/c.h": ""},
        "trace/packets/p.h:1: includes trace/capture/c.h, a room beside its own"),
    "up within a folder": (
        {"lib/transport/socket/s.h": '#include "lib/transport/t.h"\n'},
        "lib/transport/socket/s.h:1: includes lib/transport/t.h, a floor above its own"),
    "from a user into the inside": (
        {"bus/b.h": '#include "lib/base/a.h"\n'},
        "bus/b.h:1: is a user's, and includes lib/base/a.h, which isn't public"),
    "a floor of its own": (
        {"lib/cellar/a.h": ""},
        "lib/cellar/a.h:1: lies on a floor that nobody knows"),
}


def check(files):
    with tempfile.TemporaryDirectory() as root:
        for path, text in files.items():
            os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
            with open(os.path.join(root, path), "w", encoding="utf-8") as f:
                f.write(text)
        run = subprocess.run([sys.executable, CHECK, root], capture_output=True, text=True)
        return run.returncode, run.stdout


class CheckLayers(unittest.TestCase):
    def test_passes_a_good_tree(self):
        self.assertEqual(check(GOOD), (0, ""))

    def test_finds_each_fault(self):
        for name, (change, fault) in FAULTS.items():
            with self.subTest(name):
                self.assertEqual(check({**GOOD, **change}), (1, fault + "\n"))


if __name__ == "__main__":
    unittest.main()
