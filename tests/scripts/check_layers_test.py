#!/usr/bin/env python3
"""scripts/check_layers on small trees: what must be found, and what must pass."""
import os
import runpy
import tempfile
import unittest

SCRIPT = os.path.join(os.path.dirname(__file__), "..", "..", "scripts", "check_layers")
FAULTS_OF = runpy.run_path(SCRIPT)["faults_of"]

# A tree: a line for each file, with what it includes.
GOOD = """
lib/base/a.h
lib/pelmo.h base/s.h msg/m.h
lib/base/s.h
lib/msg/m.h ../base/s.h
lib/base/b.h lib/base/a.h <vector>
lib/transport/t.cc lib/base/b.h lib/base/a.h
trace/main.cc lib/transport/t.h
lib/transport/t.h
tests/base/a_test.cc trace/run/x.h tests/support/s.h
tests/support/s.h
trace/run/x.h
bus/b.cc bus/b.h lib/msg/m.h
bus/b.h lib/pelmo.h programs/p.h
programs/p.h lib/base/a.h
"""

# What is changed in it, and what is found then.
FAULTS = [
    ("lib/base/b.h lib/containers/c.h; lib/containers/c.h",
     "lib/base/b.h:1: includes lib/containers/c.h, a floor above its own"),
    ("lib/transport/t.h trace/run/x.h", "lib/transport/t.h:1: includes trace/run/x.h, a floor above its own"),
    ("programs/p.h bus/b.h; bus/b.h", "programs/p.h:1: includes bus/b.h, a floor above its own"),
    ("pmd/router.h trace/run/x.h", "pmd/router.h:1: includes trace/run/x.h, of another program"),
    ("trace/run/x.h tests/support/s.h", "trace/run/x.h:1: includes tests/support/s.h, which is on no floor"),
    ("lib/base/b.h a.h", "lib/base/b.h:1: includes lib/base/a.h, not written from the root"),
    ("lib/base/b.h lib/base/none.h", 'lib/base/b.h:1: includes "lib/base/none.h", which is no file from the root'),
    ("lib/msg/m.h lib/base/s.h", "lib/msg/m.h:1: is installed, and includes lib/base/s.h from the root"),
    ("lib/msg/m.h m_internal.h; lib/msg/m_internal.h",
     "lib/msg/m.h:1: is installed, and includes lib/msg/m_internal.h"),
    ("lib/base/a.h lib/base/a.h", "lib/base/a.h:1: a circle: lib/base/a.h -> lib/base/a.h"),
    ("lib/base/a.h lib/base/c.h; lib/base/c.h lib/base/b.h",
     "lib/base/a.h:1: a circle: lib/base/a.h -> lib/base/c.h -> lib/base/b.h -> lib/base/a.h"),
    ("lib/base/a.cc lib/base/a.h lib/base/c.h; lib/base/c.h lib/base/d_internal.h; lib/base/d_internal.h; "
     "lib/base/d.cc lib/base/a.h",
     "lib/base/a:1: a circle: lib/base/a -> lib/base/c -> lib/base/d -> lib/base/a"),
    ("trace/packets/p.h trace/capture/c.h; trace/capture/c.h",
     "trace/packets/p.h:1: includes trace/capture/c.h, a room beside its own"),
    ("lib/transport/socket/s.h lib/transport/t.h",
     "lib/transport/socket/s.h:1: includes lib/transport/t.h, a floor above its own"),
    ("bus/b.h lib/base/a.h", "bus/b.h:1: is a user's, and includes lib/base/a.h, which isn't public"),
    ("python/native/p.h lib/base/a.h", "python/native/p.h:1: is a user's, and includes lib/base/a.h, which isn't public"),
    ("lib/cellar/a.h", "lib/cellar/a.h:1: is on no known floor"),
]


def check(text):
    with tempfile.TemporaryDirectory() as root:
        for line in text.replace(";", "\n").split("\n"):
            path, *included = line.split() or ["none"]
            os.makedirs(os.path.dirname(os.path.join(root, path)), exist_ok=True)
            with open(os.path.join(root, path), "w", encoding="utf-8") as f:
                f.writelines("#include %s\n" % (name if name[0] == "<" else '"%s"' % name) for name in included)
        return FAULTS_OF(root)


class CheckLayers(unittest.TestCase):
    def test_passes_a_good_tree(self):
        self.assertEqual(check(GOOD), [])

    def test_finds_each_fault(self):
        for change, fault in FAULTS:
            with self.subTest(change):
                self.assertEqual(check(GOOD + change), [fault])


if __name__ == "__main__":
    unittest.main()
