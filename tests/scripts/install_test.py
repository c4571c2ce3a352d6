#!/usr/bin/env python3
"""install_test.py BUILD: installs the build into a scratch folder, runs what was laid there, holds
manual pages and completions against the options that the programs themselves know, and builds a user's
program against the library.
"""
import glob
import os
import re
import signal
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "e2e"))
from bus_client import Daemon  # noqa: E402

ROOT = os.path.normpath(os.path.join(os.path.dirname(__file__), "..", ".."))
USER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "library_user")
UNLISTED_OPTIONS = ["-complain"]  # works, and is in no line of the usage text


def run(*command, **kwargs):
    return subprocess.run(command, capture_output=True, text=True, timeout=300, **kwargs)


def options_of(program, *form, pattern=r"^ +(--?[a-z-]+)"):
    text = run(os.path.join(USR, "bin", program), *form, "--help").stdout
    return sorted(re.findall(pattern, text, re.MULTILINE))


def setUpModule():
    """Both installs: for packages, below a scratch folder, and under a prefix of its own."""
    global USR, PREFIX
    scratch = unittest.enterModuleContext(tempfile.TemporaryDirectory())
    USR, PREFIX = os.path.join(scratch, "usr"), os.path.join(scratch, "prefix")
    for prefix, env in (("/usr", {"DESTDIR": scratch}), (PREFIX, {})):
        result = run("cmake", "--install", BUILD, "--prefix", prefix, env={**os.environ, **env})
        assert result.returncode == 0, result.stderr


class Install(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tool = os.path.join(USR, "bin", "pelmoscope")
        usage = run(cls.tool, "-no-such-option").stderr
        cls.options = sorted(re.findall(r"^ +(-[a-z-]+)", usage, re.MULTILINE) + UNLISTED_OPTIONS)
        assert len(cls.options) == 26, usage
        # Those of pelmobus, by command; the connection's belong to no command.
        cls.commands = options_of("pelmobus", pattern=r"^  ((?:circuit |bench )?[a-z]+) \[?SUBJECT")
        cls.bus_options = {command: options_of("pelmobus", *command.split(), pattern=r"^ +(--[a-z-]+)")
                           for command in ["", *cls.commands]}
        assert len(cls.commands) == 9, cls.commands
        cls.daemon_options = options_of("pmd", pattern=r"^  (-[a-z-]+)")
        assert len(cls.daemon_options) == 10, cls.daemon_options
        # Those of pelmobridge. Where libnats is missing there are none.
        cls.bridge_options = []
        if os.path.exists(os.path.join(USR, "bin", "pelmobridge")):
            cls.bridge_options = options_of("pelmobridge", pattern=r"^  (--[a-z-]+)")
            assert len(cls.bridge_options) == 22, cls.bridge_options
        # Those of pelmowatch, by form. Where its libraries are missing there is none.
        cls.watch_options = {}
        if os.path.exists(os.path.join(USR, "bin", "pelmowatch")):
            lines = {form: options_of("pelmowatch", form, pattern=r"^  (-[^\s,]+(?:, -[^\s,]+)*)")
                     for form in options_of("pelmowatch", pattern=r"^  ([a-z]+) ")}
            cls.watch_options = {form: sorted(", ".join(names).split(", ")) for form, names in lines.items()}
            assert len(cls.watch_options["json"]) == 24, cls.watch_options

    def programs(self):
        """Each program with all of its options."""
        yield "pelmoscope", self.options
        yield "pelmobus", sorted(set(sum(self.bus_options.values(), [])))
        yield "pmd", self.daemon_options
        if self.bridge_options:
            yield "pelmobridge", self.bridge_options
        if self.watch_options:
            yield "pelmowatch", sorted(set(sum(self.watch_options.values(), ["--version"])))

    def read(self, *path):
        with open(os.path.join(USR, "share", *path), encoding="utf-8") as f:
            return f.read()

    def complete(self, program, *words):
        """What bash offers for the last word."""
        script = os.path.join(USR, "share", "bash-completion", "completions", program)
        line = 'source "$0"; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _$1;' \
               ' printf "%s\\n" "${COMPREPLY[@]}"'
        result = run("bash", "-c", line, script, program, *words)
        self.assertEqual(result.stderr, "")
        return result.stdout.split()

    def test_the_installed_tool_finds_its_modules_and_reads_a_capture(self):
        result = run(self.tool, "-r", os.path.join(ROOT, "samples", "bus.pcap"), cwd="/")
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("Multicast Packet Statistics", result.stdout)
        link = os.path.join(USR, "link")  # from elsewhere it leads to the same modules
        os.symlink(self.tool, link)
        self.assertEqual(run(link, "-no-such-option").returncode, 2)

    def test_every_option_is_in_the_manual_page_and_is_completed_by_zsh(self):
        for program, options in self.programs():
            page = self.read("man", "man1", program + ".1").replace("\\-", "-")
            heads = re.findall(r"^\.(?:BI|B) (--?[a-z][a-z-]*)", page, re.MULTILINE)
            self.assertEqual(sorted(set(heads)), options)
            text = self.read("zsh", "site-functions", "_" + program)
            self.assertEqual(sorted(set(re.findall(r"'\*?(--?[a-z-]+)=?\[", text))), options)

    def test_bash_completes_options_and_knows_which_take_a_value(self):
        self.assertEqual(sorted(self.complete("pelmoscope", "-")), self.options)
        self.assertEqual(sorted(self.complete("pmd", "-")), self.daemon_options)
        if self.bridge_options:
            self.assertEqual(sorted(self.complete("pelmobridge", "-")), self.bridge_options)
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
        offered += ["bench " + word for word in self.complete("pelmobus", "bench", "")]
        offered += ["circuit " + word for word in self.complete("pelmobus", "circuit", "")]
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


class Library(unittest.TestCase):
    """It stays in use from the prefix."""

    @staticmethod
    def find(name):
        found = glob.glob(os.path.join(PREFIX, "**", name), recursive=True)
        assert len(found) == 1, (name, found)
        return found[0]

    def use(self, program):
        result = run(program, env={"LD_LIBRARY_PATH": os.path.dirname(self.find("libpelmo.so"))})
        self.assertEqual((result.returncode, result.stdout), (0, "{load=7}\n"), result.stderr)

    def test_a_program_builds_and_runs_by_pkg_config(self):
        paths = {**os.environ, "PKG_CONFIG_PATH": os.path.dirname(self.find("pelmo.pc"))}
        flags = run("pkg-config", "--cflags", "--libs", "pelmo", env=paths).stdout.split()
        program = os.path.join(PREFIX, "by_pkg_config")
        # The headers ask for no more than this standard, and for no pardon.
        result = run("g++", "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Wconversion", "-Werror",
                     os.path.join(USER, "main.cc"), "-o", program, *flags)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.use(program)

    def test_a_program_builds_and_runs_by_find_package(self):
        build = os.path.join(PREFIX, "by_cmake")
        version = run("pkg-config", "--modversion", self.find("pelmo.pc")).stdout.strip()
        for command in (["cmake", "-G", "Ninja", "-S", USER, "-B", build,
                         "-DCMAKE_PREFIX_PATH=" + PREFIX, "-DWANTED=" + version],
                        ["cmake", "--build", build]):
            result = run(*command)
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)
        self.use(os.path.join(build, "user"))

    def test_the_library_shows_all_public_calls_and_nothing_else(self):
        """By their C names, of one version; those that the list of a release has are there for good."""
        text = run("nm", "-D", "--defined-only", self.find("libpelmo.so")).stdout
        shown = [line.split(" ", 2)[2] for line in text.splitlines()]
        self.assertEqual({name for name in shown if not name.endswith("@@PELMO_0")}, {"PELMO_0"})
        names = {name.split("@@")[0] for name in shown} - {"PELMO_0"}
        self.assertEqual(names, declared_calls(run("gcc", "-E", "-P", self.find("pelmo.h")).stdout))
        with open(os.path.join(ROOT, "lib", "pelmo", "exports.txt"), encoding="utf-8") as f:
            self.assertEqual("".join(name + "\n" for name in sorted(names)), f.read())
        soname = run("readelf", "-d", self.find("libpelmo.so")).stdout
        self.assertIn("[libpelmo.so.0]", soname)

    def test_each_call_is_written_out_in_a_header(self):
        """None is made by a macro, so that a reader or an editor finds it by its name."""
        headers = glob.glob(os.path.join(PREFIX, "include", "**", "*.h"), recursive=True)
        written = set()
        for header in headers:
            with open(header, encoding="utf-8") as f:
                written |= declared_calls(re.sub(r"//.*|#define.*(\\\n.*)*", "", f.read()))
        self.assertEqual(written, declared_calls(run("gcc", "-E", "-P", self.find("pelmo.h")).stdout))


class Examples(unittest.TestCase):
    """As they are installed, against the installed library and over a daemon, with no warning."""

    @classmethod
    def setUpClass(cls):
        cls.bin = os.path.join(PREFIX, "examples")
        library = os.path.dirname(Library.find("libpelmo.so"))
        flags = "-Wall -Wextra -Wpedantic -Wshadow -Werror"
        for command in (["cmake", "-G", "Ninja", "-S", os.path.join(PREFIX, "share", "doc", "libpelmo-dev", "examples"),
                         "-B", cls.bin, "-DCMAKE_PREFIX_PATH=" + PREFIX, "-DCMAKE_CXX_FLAGS=" + flags,
                         "-DCMAKE_C_FLAGS=" + flags],
                        ["cmake", "--build", cls.bin]):
            result = run(*command)
            assert result.returncode == 0, result.stdout + result.stderr
        cls.env = {"LD_LIBRARY_PATH": library}
        cls.daemon = Daemon(os.path.join(USR, "bin", "pmd"))
        cls.addClassCleanup(cls.daemon.close)

    def start(self, name, *words, ready=None, **kwargs):
        process = subprocess.Popen([os.path.join(self.bin, name), "127.0.0.1:%d" % self.daemon.port, *words],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, env=self.env, **kwargs)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        if ready:
            self.assertEqual(process.stdout.readline(), ready + "\n")
        return process

    def end(self, process, input=None):
        """What it prints to its end, which is a good one."""
        out, err = process.communicate(input, timeout=60)
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
        stop = run(os.path.join(USR, "bin", "pelmobus"), "--daemon", "127.0.0.1:%d" % self.daemon.port,
                   "send", "TIME.END", env=self.env)
        self.assertEqual(stop.returncode, 0, stop.stderr)
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
