#!/usr/bin/env python3
"""install_test.py BUILD: installs the build into a scratch folder, runs what was laid there, and
holds manual page and completion against the options that the tool itself knows.
"""
import os
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.normpath(os.path.join(os.path.dirname(__file__), "..", ".."))
UNLISTED_OPTIONS = ["-complain"]  # works, and stands in no line of the usage text


def run(*command, **kwargs):
    return subprocess.run(command, capture_output=True, text=True, timeout=60, **kwargs)


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        result = run("cmake", "--install", BUILD, "--prefix", "/usr",
                     env={**os.environ, "DESTDIR": cls.scratch.name})
        assert result.returncode == 0, result.stderr
        cls.usr = os.path.join(cls.scratch.name, "usr")
        cls.tool = os.path.join(cls.usr, "bin", "pelmoscope")
        usage = run(cls.tool, "-no-such-option").stderr
        cls.options = re.findall(r"^ +(-[a-z-]+)", usage, re.MULTILINE) + UNLISTED_OPTIONS
        assert len(cls.options) == 26, usage

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def read(self, *path):
        with open(os.path.join(self.usr, *path), encoding="utf-8") as f:
            return f.read()

    def test_the_installed_tool_finds_its_modules_and_reads_a_capture(self):
        result = run(self.tool, "-r", os.path.join(ROOT, "samples", "bus.pcap"), cwd="/")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("Multicast Packet Statistics", result.stdout)

    def test_a_link_from_elsewhere_leads_to_the_same_modules(self):
        link = os.path.join(self.scratch.name, "link")
        os.symlink(self.tool, link)
        self.assertEqual(run(link, "-no-such-option").returncode, 2)

    def test_every_option_stands_in_the_manual_page(self):
        page = self.read("share", "man", "man1", "pelmoscope.1").replace("\\-", "-")
        heads = re.findall(r"^\.(?:BI|B) (-[a-z-]+)", page, re.MULTILINE)
        self.assertEqual(sorted(set(heads)), sorted(self.options))

    def test_every_option_is_completed_by_zsh(self):
        text = self.read("share", "zsh", "site-functions", "_pelmoscope")
        self.assertEqual(sorted(re.findall(r"'\*?(-[a-z-]+)\[", text)), sorted(self.options))

    def test_bash_completes_options_and_knows_which_take_a_value(self):
        script = os.path.join(self.usr, "share", "bash-completion", "completions", "pelmoscope")

        def complete(*words):
            line = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _pelmoscope;' \
                   ' printf "%s\\n" "${COMPREPLY[@]}"'
            return run("bash", "-c", line, script, "pelmoscope", *words).stdout.split()

        self.assertEqual(sorted(complete("-")), sorted(self.options))
        self.assertEqual(complete("-w-max-s"), ["-w-max-size"])
        self.assertIn("lo", complete("-i", ""))
        self.assertEqual(complete("-u", "-"), [])


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
