#!/usr/bin/env python3
"""watch_option_test.py: what is configured without pelmowatch or the package for Python, and where parts of them
are missing."""
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

ROOT = os.path.normpath(os.path.join(os.path.dirname(__file__), "..", ".."))


def found(pattern, text):
    return set(re.findall(pattern, text, re.MULTILINE))


class WatchOption(unittest.TestCase):
    def configure(self, *options):
        """Programs, packages and suites of a tree that is configured and not built, and what cmake said."""
        folder = self.enterContext(tempfile.TemporaryDirectory())
        command = ["cmake", "-G", "Ninja", "-S", ROOT, "-B", folder, "-DPELMO_BENCH=OFF", *options]
        said = subprocess.run(command, stdout=subprocess.PIPE, text=True, timeout=120, check=True).stdout
        tests = subprocess.run(["ctest", "-N", "--test-dir", folder], capture_output=True, text=True, timeout=60)
        programs = found(r"^build bin/(\w+)\b", pathlib.Path(folder, "build.ninja").read_text())
        packing = pathlib.Path(folder, "CPackConfig.cmake").read_text()
        packages = set(re.search(r'CPACK_COMPONENTS_ALL "([^"]*)"', packing)[1].split(";"))
        return programs, packages, found(r"^ *Test +#\d+: (\w+)", tests.stdout), said

    def test_without_a_part_the_rest_stays(self):
        without = ({"pelmowatch", "watch_tests"}, {"watch", "python"}, {"watch", "watch_tests_NOT_BUILT", "web", "python"})
        whole = self.configure()
        for options, words in ((("-DPELMO_WATCH=OFF", "-DPELMO_PYTHON=OFF"), ()),
                               (("-DMICROHTTPD_LIBRARY=", "-DCMAKE_DISABLE_FIND_PACKAGE_pybind11=ON"),
                                ("MICROHTTPD_LIBRARY not found", "pybind11-dev")),
                               (("-DPELMO_WEB_MODULES=", "-DPELMO_PYTHON=OFF"), ("the packages of watch/web not found",))):
            with self.subTest(options):
                *parts, said = self.configure(*options)
                for all_parts, left, missing in zip(whole, parts, without):
                    self.assertEqual(all_parts - left, missing)
                for word in words:
                    self.assertIn(word, said)
                self.assertEqual("isn't built" in said, bool(words))


if __name__ == "__main__":
    unittest.main()
