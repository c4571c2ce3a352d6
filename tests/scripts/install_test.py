#!/usr/bin/env python3
"""install_test.py BUILD: installs the build into a scratch folder, runs what was laid there, holds
manual pages and completions against the options that the programs themselves know, and builds a user's
program against the library.
"""
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, run  # noqa: E402

from bus_client import Daemon  # noqa: E402

USER = pathlib.Path(__file__).resolve().parent / "library_user"
UNLISTED_OPTIONS = ["-complain"]  # works, and is in no line of the usage text
# Program, what matches an option in its help, and how many it has. Two have forms or commands.
PROGRAMS = (("pmd", r"^  (-[a-z-]+)", 10), ("pelmobridge", r"^  (--[a-z-]+)", 22))


def text_of(*command, **more):
    """What it prints at an end that is a good one."""
    done = run(*command, text=True, timeout=300, **more)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout


def options_of(program, *form, pattern):
    return sorted(re.findall(pattern, text_of(USR / "bin" / program, *form, "--help"), re.MULTILINE))


def setUpModule():
    """Both installs: for packages, below a scratch folder, and under a prefix of its own."""
    global USR, PREFIX
    scratch = pathlib.Path(unittest.enterModuleContext(tempfile.TemporaryDirectory()))
    USR, PREFIX = scratch / "usr", scratch / "prefix"
    for prefix, env in (("/usr", {"DESTDIR": str(scratch)}), (PREFIX, {})):
        text_of("cmake", "--install", BUILD, "--prefix", prefix, env={**os.environ, **env})


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tool = USR / "bin" / "pelmoscope"
        usage = run(cls.tool, "-no-such-option", text=True).stderr
        cls.options = {"pelmoscope": sorted(re.findall(r"^ +(-[a-z-]+)", usage, re.MULTILINE) + UNLISTED_OPTIONS)}
        assert len(cls.options["pelmoscope"]) == 26, usage
        for program, pattern, count in PROGRAMS:
            if (USR / "bin" / program).exists():  # its libraries may be missing
                cls.options[program] = options_of(program, pattern=pattern)
                assert len(cls.options[program]) == count, cls.options[program]
        # Those of pelmobus, by command; the connection's belong to no command.
        cls.commands = options_of("pelmobus", pattern=r"^  ((?:circuit |bench )?[a-z]+) \[?SUBJECT")
        cls.bus_options = {command: options_of("pelmobus", *command.split(), pattern=r"^ +(--[a-z-]+)")
                           for command in ["", *cls.commands]}
        assert len(cls.commands) == 9, cls.commands
        cls.options["pelmobus"] = sorted(set(sum(cls.bus_options.values(), [])))
        # Those of pelmowatch, by form.
        cls.watch_options = {}
        if (USR / "bin" / "pelmowatch").exists():
            lines = {form: options_of("pelmowatch", form, pattern=r"^  (-[^\s,]+(?:, -[^\s,]+)*)")
                     for form in options_of("pelmowatch", pattern=r"^  ([a-z]+) ")}
            cls.watch_options = {form: sorted(", ".join(names).split(", ")) for form, names in lines.items()}
            assert len(cls.watch_options["json"]) == 24, cls.watch_options
            cls.options["pelmowatch"] = sorted(set(sum(cls.watch_options.values(), ["--version"])))

    def complete(self, program, *words):
        """What bash offers for the last word."""
        script = USR / "share/bash-completion/completions" / program
        line = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _$1; printf "%s\\n" "${COMPREPLY[@]}"'
        done = run("bash", "-c", line, script, program, *words, text=True)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def test_the_installed_tool_finds_its_modules_and_reads_a_capture(self):
        self.assertIn("Multicast Packet Statistics", text_of(self.tool, "-r", ROOT / "samples/bus.pcap", cwd="/"))
        link = USR / "link"  # from elsewhere it leads to the same modules
        link.symlink_to(self.tool)
        self.assertEqual(run(link, "-no-such-option").returncode, 2)

    def test_every_option_is_in_the_manual_page_and_is_completed_by_zsh(self):
        for program, options in self.options.items():
            page = (USR / "share/man/man1" / (program + ".1")).read_text().replace("\\-", "-")
            heads = re.findall(r"^\.(?:BI|B) (--?[a-z][a-z-]*)", page, re.MULTILINE)
            self.assertEqual(sorted(set(heads)), options)
            text = (USR / "share/zsh/site-functions" / ("_" + program)).read_text()
            self.assertEqual(sorted(set(re.findall(r"'\*?(--?[a-z-]+)=?\[", text))), options)

    def test_bash_completes_options_and_knows_which_take_a_value(self):
        for program in self.options.keys() - {"pelmobus", "pelmowatch"}:
            self.assertEqual(sorted(self.complete(program, "-")), self.options[program])
        self.assertEqual(self.complete("pelmoscope", "-w-max-s"), ["-w-max-size"])
        self.assertIn("lo", self.complete("pelmoscope", "-i", ""))
        self.assertEqual(self.complete("pelmoscope", "-u", "-"), [])

    def test_bash_completes_the_options_of_each_command(self):
        for command, options in self.bus_options.items():
            words = ["--local", "--daemon", "send", *command.split()]
            self.assertEqual(sorted(self.complete("pelmobus", *words, "-")), options, command)
        self.assertEqual(self.complete("pelmobus", "send", "A", "--rate", "-"), [])
        self.assertEqual(self.complete("pelmobus", "listen", ""), [])
        offered = self.complete("pelmobus", "--batch", "")
        for lead in ("bench", "circuit"):
            offered += ["%s %s" % (lead, word) for word in self.complete("pelmobus", lead, "")]
        self.assertEqual(sorted(offered), sorted(self.commands + ["bench", "circuit"]))

    def test_bash_completes_the_options_of_each_form(self):
        for form, options in self.watch_options.items():
            self.assertEqual(sorted(self.complete("pelmowatch", form, "--rows", "-")), options, form)
            self.assertEqual(self.complete("pelmowatch", form, "--port", "-"), [])
            self.assertIn("lo", self.complete("pelmowatch", form, "-i", ""))
        if self.watch_options:
            self.assertEqual(sorted(self.complete("pelmowatch", "")),
                             sorted([*self.watch_options, "--help", "--version"]))


def declared_calls(text):
    """The functions that the text of a header declares."""
    return set(re.findall(r"(?:pelmoStatus|uint32_t|void|char\*)\s+((?:_?pelmo|vc[A-Z])\w+)\s*\(", text))


def find(name):
    """The file of that name below the prefix."""
    found, = PREFIX.rglob(name)
    return found


def build_by_cmake(source, build, *options):
    text_of("cmake", "-G", "Ninja", "-S", source, "-B", build, "-DCMAKE_PREFIX_PATH=%s" % PREFIX, *options)
    text_of("cmake", "--build", build)


class Library(unittest.TestCase):
    """It stays in use from the prefix."""

    def use(self, program):
        self.assertEqual(text_of(program, env={"LD_LIBRARY_PATH": str(find("libpelmo.so").parent)}), "{load=7}\n")

    def test_a_program_builds_and_runs_by_pkg_config(self):
        paths = {**os.environ, "PKG_CONFIG_PATH": str(find("pelmo.pc").parent)}
        flags = text_of("pkg-config", "--cflags", "--libs", "pelmo", env=paths).split()
        program = PREFIX / "by_pkg_config"
        # The headers ask for no more than this standard, and for no pardon.
        text_of("g++", "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Werror", USER / "main.cc",
                "-o", program, *flags)
        self.use(program)

    def test_a_program_builds_and_runs_by_find_package(self):
        version = text_of("pkg-config", "--modversion", find("pelmo.pc")).strip()
        build_by_cmake(USER, PREFIX / "by_cmake", "-DWANTED=" + version)
        self.use(PREFIX / "by_cmake/user")

    def test_the_library_shows_all_public_calls_and_nothing_else(self):
        """By their C names, of one version; those that the list of a release has are there for good. None is
        made by a macro, so that a reader or an editor finds it by its name."""
        text = text_of("nm", "-D", "--defined-only", find("libpelmo.so"))
        shown = [line.split(" ", 2)[2] for line in text.splitlines()]
        self.assertEqual({name for name in shown if not name.endswith("@@PELMO_0")}, {"PELMO_0"})
        names = {name.split("@@")[0] for name in shown} - {"PELMO_0"}
        self.assertEqual(names, declared_calls(text_of("gcc", "-E", "-P", find("pelmo.h"))))
        written = [declared_calls(re.sub(r"//.*|#define.*(\\\n.*)*", "", header.read_text()))
                   for header in (PREFIX / "include").rglob("*.h")]
        self.assertEqual(names, set().union(*written))
        self.assertEqual("".join(name + "\n" for name in sorted(names)), (ROOT / "lib/pelmo/exports.txt").read_text())
        self.assertIn("[libpelmo.so.0]", text_of("readelf", "-d", find("libpelmo.so")))


class Examples(ProgramCase):
    """As they are installed, against the installed library and over a daemon, with no warning."""

    @classmethod
    def setUpClass(cls):
        flags = "-Wall -Wextra -Wpedantic -Wshadow -Werror"
        build_by_cmake(PREFIX / "share/doc/libpelmo-dev/examples", PREFIX / "examples", "-DCMAKE_CXX_FLAGS=" + flags,
                       "-DCMAKE_C_FLAGS=" + flags)
        cls.env = {"LD_LIBRARY_PATH": str(find("libpelmo.so").parent)}
        cls.pmd = Daemon(USR / "bin/pmd")
        cls.addClassCleanup(cls.pmd.close)
        cls.where = "127.0.0.1:%d" % cls.pmd.port

    def start(self, name, ready=None, **more):
        process = super().start(PREFIX / "examples" / name, self.where, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, env=self.env, **more).popen
        if ready:
            self.assertEqual(process.stdout.readline(), ready + "\n")
        return process

    def end(self, process):
        """What it prints to its end, which is a good one."""
        out, err = process.communicate(timeout=60)
        self.assertEqual((process.returncode, err), (0, ""))
        return out

    def test_a_subscriber_gets_what_is_published_until_a_signal(self):
        subscriber = self.start("subscriber", ready="listening")
        self.assertEqual(self.end(self.start("publisher")), "")
        lines = [subscriber.stdout.readline() for _ in range(3)]
        self.assertRegex(lines[2], r'^\{price=2052.5 unit="oz" time=.*\}$')
        subscriber.send_signal(signal.SIGTERM)
        self.assertEqual(self.end(subscriber), "")

    def test_requests_are_answered_in_every_way(self):
        server = self.start("request_server", ready="serving")
        self.assertRegex(self.end(self.start("async_request")), r'^\{time=.* zone="UTC"\}\n$')
        self.assertRegex(self.end(self.start("in_c")), r'^heard: from C\n\{time=.* zone="UTC"\}\n$')
        text_of(USR / "bin/pelmobus", "--daemon", self.where, "send", "TIME.END", env=self.env)
        self.assertEqual(self.end(server), "")
        late = self.start("async_request")
        self.assertRegex(late.communicate(timeout=60)[0], r"^(waiting\n)+no answer: Operation timed out\n$")

    def test_the_others_do_what_they_say(self):
        loop = self.start("event_loop", stdin=subprocess.PIPE)
        loop.stdin.write("hello\n")
        loop.stdin.flush()
        self.assertEqual(loop.stdout.readline(), "heard: hello\n")
        self.assertEqual(self.end(loop), "")
        done, times = map(int, re.fullmatch(r"(\d+) of 10000 done, full (\d+) times\n",
                                            self.end(self.start("dispatchers"))).groups())
        self.assertTrue(done == 10000 or (done < 10000 and times > 0), (done, times))
        self.assertEqual(self.end(self.start("circuit")), "1\n2\n3\n")


if __name__ == "__main__":
    BUILD = sys.argv.pop(1)
    unittest.main()
