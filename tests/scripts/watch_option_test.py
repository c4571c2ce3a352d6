#!/usr/bin/env python3
"""watch_option_test.py: what is configured without pelmowatch, and where parts of it are missing."""
import os
import re
import subprocess
import tempfile
import unittest

ROOT = os.path.normpath(os.path.join(os.path.dirname(__file__), "..", ".."))


class Configured:
    """A tree that was configured, and not built."""

    def __init__(self, folder, *options):
        command = ["cmake", "-G", "Ninja", "-S", ROOT, "-B", folder, "-DPELMO_BENCH=OFF", *options]
        done = subprocess.run(command, capture_output=True, text=True, timeout=120)
        assert done.returncode == 0, done.stderr
        self.words = done.stdout
        with open(os.path.join(folder, "build.ninja"), encoding="utf-8") as f:
            self.programs = set(re.findall(r"^build bin/(\w+)\b", f.read(), re.MULTILINE))
        with open(os.path.join(folder, "CPackConfig.cmake"), encoding="utf-8") as f:
            self.packages = set(re.search(r'CPACK_COMPONENTS_ALL "([^"]*)"', f.read())[1].split(";"))
        tests = subprocess.run(["ctest", "-N", "--test-dir", folder], capture_output=True, text=True, timeout=60)
        self.suites = set(re.findall(r"^ *Test +#\d+: (\w+)", tests.stdout, re.MULTILINE))


class WatchOption(unittest.TestCase):
    def configure(self, *options):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        return Configured(folder.name, *options)

    def test_without_pelmowatch_the_rest_stays(self):
        whole = self.configure()
        self.assertIn("pelmowatch", whole.programs)
        self.assertEqual(whole.packages, {"tool", "watch"})
        cases = {
            "not wanted": (["-DPELMO_WATCH=OFF"], ""),
            "a library missing": (["-DMICROHTTPD_LIBRARY="], "MICROHTTPD_LIBRARY not found"),
            "packages of the pages missing": (["-DPELMO_WEB_MODULES="], "the packages of watch/web not found"),
        }
        for name, (options, words) in cases.items():
            with self.subTest(name):
                part = self.configure(*options)
                self.assertEqual(whole.programs - part.programs, {"pelmowatch", "watch_tests"})
                self.assertEqual(whole.suites - part.suites, {"watch", "watch_tests_NOT_BUILT", "web"})
                self.assertEqual(part.packages, {"tool"})
                self.assertIn(words, part.words)
                self.assertEqual("pelmowatch isn't built" in part.words, bool(words))


if __name__ == "__main__":
    unittest.main()
