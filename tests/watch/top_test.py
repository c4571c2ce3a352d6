"""pelmowatch top in terminals: top_test.py PELMOWATCH [TEST ...].

Screens are those of tmux; what the program writes, and how it leaves a terminal, is seen from the other end
of a pseudo terminal.
"""

import fcntl
import os
import pathlib
import pty
import re
import select
import signal
import struct
import subprocess
import sys
import tempfile
import termios
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
sys.path[:0] = [str(HERE.parent / "e2e"), str(HERE.parents[1] / "scripts")]

import packets  # noqa: E402
import top_picture  # noqa: E402
from hostile import subject_field  # noqa: E402
from live_run import open_wire  # noqa: E402

ROOT = HERE.parents[1]
WATCH = str(pathlib.Path(sys.argv[1]).resolve())
BUS = str(ROOT / "samples/bus.pcap")
REPLAY = ("-r", BUS, "-u", "1", "--speed", "1000")
PATIENCE_SECONDS = 15
WIRE = None
# The sanitizers leave faults to the program's own handlers.
ENVIRONMENT = {**os.environ, "TZ": "UTC", "LC_ALL": "C.UTF-8", "TERM": "xterm-256color",
               "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") +
               ":handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0"}
ENVIRONMENT.pop("NO_COLOR", None)
INTO, OUT_OF, HIDDEN, VISIBLE = b"\x1b[?1049h", b"\x1b[?1049l", b"\x1b[?25l", b"\x1b[?25h"
SEQUENCE = re.compile(rb"\x1b(?:\[[?>]?[\d;]*[A-Za-z]|[()][A-Z0]|[=>78M])")


def wait_until(what, condition):
    deadline = time.monotonic() + PATIENCE_SECONDS
    while not condition():
        if time.monotonic() > deadline:
            raise AssertionError("no %s within %d seconds" % (what, PATIENCE_SECONDS))
        time.sleep(0.02)


class Pane:
    """A shell in a window of tmux."""

    def __init__(self, columns, lines):
        self.scratch = tempfile.TemporaryDirectory()
        self.server = ["tmux", "-S", self.scratch.name + "/tmux", "-f", "/dev/null"]
        subprocess.run([*self.server, "new-session", "-d", "-x", str(columns), "-y", str(lines),
                        "env PS1='$ ' bash --norc --noprofile -i"], env=ENVIRONMENT, check=True)

    def close(self):
        self.tmux("kill-server")
        self.scratch.cleanup()

    def tmux(self, *command):
        return subprocess.run([*self.server, *command], check=True, capture_output=True, text=True).stdout

    def press(self, *keys):
        self.tmux("send-keys", *keys)

    def run(self, command):
        self.press(command, "Enter")

    def top(self, *options):
        self.run("TERM=screen-256color %s top %s" % (WATCH, " ".join(options)))

    def screen(self):
        return [line.rstrip() for line in self.tmux("capture-pane", "-p").split("\n")[:-1]]

    def settings(self):
        return self.tmux("display-message", "-p", "#{alternate_on} #{cursor_flag} #{keypad_cursor_flag}").strip()

    def wait_for(self, *patterns):
        def is_there():
            text = "\n".join(self.screen())
            return all(re.search(pattern, text, re.MULTILINE) for pattern in patterns)
        try:
            wait_until("%s" % (patterns,), is_there)
        except AssertionError as error:
            raise AssertionError("%s in\n%s" % (error, "\n".join(self.screen()))) from None


class Session:
    """A run on a pseudo terminal of its own; everything that it writes is kept."""

    def __init__(self, *options, size=(80, 24), reads=True, **more):
        self.ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", size[1], size[0], 0, 0))
        self.theirs, self.before, self.seen, self.reads = theirs, termios.tcgetattr(theirs), b"", reads
        more.setdefault("stderr", theirs)
        self.popen = subprocess.Popen(
            [WATCH, "top", *map(str, options)], stdout=theirs, start_new_session=True,
            preexec_fn=lambda: fcntl.ioctl(1, termios.TIOCSCTTY, 0),
            **{"stdin": theirs, "env": ENVIRONMENT, **more})

    def close(self):
        if self.popen.poll() is None:
            self.popen.kill()
            self.popen.wait()
        os.close(self.ours)
        os.close(self.theirs)

    def read(self):
        while self.reads and select.select([self.ours], [], [], 0)[0]:
            self.seen += os.read(self.ours, 65536)

    def wait_for(self, text):
        def is_there():
            self.read()
            return text in self.seen
        try:
            wait_until("%r" % text, is_there)
        except AssertionError as error:
            raise AssertionError("%s in\n%r" % (error, self.seen[-3000:])) from None

    def press(self, keys):
        os.write(self.ours, keys.encode())

    def end(self):
        """Waits for the end: the exit status and how long it took."""
        began = time.monotonic()

        def has_ended():
            self.read()
            return self.popen.poll() is not None
        wait_until("end", has_ended)
        self.read()
        return self.popen.returncode, time.monotonic() - began


class Screens(unittest.TestCase):
    def pane(self, columns, lines):
        pane = Pane(columns, lines)
        self.addCleanup(pane.close)
        return pane

    def test_shows_the_tables_at_three_sizes(self):
        cases = {
            (40, 10): (r"^ 22:13:31  Bus 39  Faults 2 +end of file$", r"^  Port  Group +↓Data  Bytes$",
                       r"^  7502  239\.255\.0\.2 +9 +1105$", r"^ Enter hosts  / filter  \? help  q quit$"),
            (80, 24): (r"^ bus\.pcap  2023-11-14 22:13:31  1 s +end of file$",
                       r"^ Bus 39  Faults 2  Frames 44$",
                       r"^ Multicast 6  Retransmission 3  Point-to-point 3  Subjects 38$",
                       r"^ +Totals +27 +3188 +5 +3 +344 +3 +1 +-$",
                       r"^  7501  239\.255\.0\.2 +3 +368 +1 +1 +161 +2 +0 +-$"),
            (200, 60): (r"^        Totals {19}27 {7}3188 {10}5 {10}3 {8}344 {10}3 {10}1 {10}-$",),
        }
        for (columns, lines), patterns in cases.items():
            with self.subTest(columns=columns):
                pane = self.pane(columns, lines)
                pane.top(*REPLAY)
                pane.wait_for("end of file")
                pane.press("r")
                pane.wait_for(*patterns)
                self.assertRegex(pane.screen()[lines - 2], r"^ Data/s [▁▂▃▄▅▆▇█]+  ")
                self.assertEqual(len(pane.screen()), lines)

    def test_follows_keys_and_sizes_and_leaves_the_terminal_as_it_was(self):
        pane = self.pane(80, 24)
        pane.wait_for(r"^\$")
        before = pane.settings()
        pane.run("clear; stty -g >%s/before" % pane.scratch.name)
        pane.top(*REPLAY)
        pane.wait_for("end of file")
        self.assertEqual(pane.settings().split()[:2], ["1", "0"])
        pane.press("4", "/", "sutsg.rtl", "Enter")
        pane.wait_for(r"^ Filter sutsg\.rtl  Esc clears +22 of 38", r"SUTSG\.RTL\.DPF\.BH29$")
        pane.press("Escape")
        pane.wait_for(r"\? help")
        pane.press("1", "j", "Enter", "Right", "Right")
        pane.wait_for(r"^▾ 7502  239\.255\.0\.1 ", r"^   10\.0\.0\.3:20002 ", "↓Null")
        pane.press("?")
        pane.wait_for("turn the order round")
        pane.press("q")
        pane.wait_for(r"^\$ ")
        pane.top("-r", BUS, "-u", "1")  # at its own pace: time to pause it
        pane.press(" ")
        pane.wait_for(r"%  PAUSED$", r"^ bus\.pcap  2023-11-14 22:13:21")
        for columns, lines, wanted in ((39, 24, "needs 40 x 10"), (120, 12, "PAUSED"), (40, 10, "PAUSED")):
            pane.tmux("resize-window", "-x", str(columns), "-y", str(lines))
            pane.wait_for(wanted)
        pane.press("+", "+", "+", "+", "+", "+", "+", " ")
        pane.wait_for("end of file")

        # Stopped by the shell, and back.
        pane.press("C-z")
        pane.wait_for(r"Stopped")
        self.assertEqual(pane.settings(), before)
        pane.run("clear; stty -g | cmp - %s/before && echo the same" % pane.scratch.name)
        pane.wait_for(r"^the same$")
        pane.run("fg")
        pane.wait_for("end of file")
        self.assertEqual(pane.settings().split()[:2], ["1", "0"])
        pane.press("q")
        pane.wait_for(r"^\$ ")
        pane.run("clear; echo status $?; stty -g | cmp - %s/before && echo the same" % pane.scratch.name)
        pane.wait_for(r"^the same$")
        self.assertEqual(pane.settings(), before)


    def test_the_readmes_picture_is_true(self):
        drawn = (ROOT / "docs/pictures/top.svg").read_text(encoding="utf-8")
        self.assertEqual(top_picture.text_of(drawn),
                         top_picture.text_of(top_picture.picture(top_picture.capture(WATCH))))


class Ends(unittest.TestCase):
    def start(self, *options, **more):
        session = Session(*options, **more)
        self.addCleanup(session.close)
        return session

    def is_as_it_was(self, session):
        self.assertEqual(termios.tcgetattr(session.theirs), session.before)
        self.assertGreater(session.seen.rfind(OUT_OF), session.seen.rfind(INTO))
        self.assertGreater(session.seen.rfind(VISIBLE), session.seen.rfind(HIDDEN))

    def test_every_end_leaves_the_terminal_as_it_was(self):
        faults = (signal.SIGABRT, signal.SIGSEGV, signal.SIGBUS, signal.SIGFPE, signal.SIGILL, signal.SIGQUIT,
                  signal.SIGUSR1, signal.SIGALRM)
        ends = {number: 0 for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)}
        ends.update({number: -number for number in faults})
        for number, wanted in ends.items():
            with self.subTest(number=number):
                session = self.start(*REPLAY)
                session.wait_for(b"Totals")
                session.popen.send_signal(number)
                status, seconds = session.end()
                self.assertEqual(status, wanted)
                self.assertLess(seconds, 1)
                self.is_as_it_was(session)
        for keys in ("q", "\x03"):
            # The standard input is the capture, which stays open; keys come from the terminal all the same.
            reader, writer = os.pipe()
            self.addCleanup(os.close, writer)
            os.write(writer, pathlib.Path(BUS).read_bytes()[:60000])
            session = self.start("-r", "-", *REPLAY[2:], stdin=reader)
            os.close(reader)
            session.wait_for(b"Totals")
            session.press(keys)
            self.assertEqual(session.end()[0], 0)
            self.is_as_it_was(session)

    def test_a_source_that_fails_is_told_on_the_screen_and_behind_it(self):
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "torn.pcap")
            path.write_bytes(pathlib.Path(BUS).read_bytes()[:-7])
            session = self.start("-r", path, "-u", "1", "--speed", "1000")
            session.wait_for(b"unable to read all")
            session.press("q")
            session.end()
            self.is_as_it_was(session)
            self.assertIn(b"unable to read all", session.seen[session.seen.rfind(OUT_OF):])

            # A log that finds no room, and one that is somewhere else.
            for log in ("/dev/full", folder + "/log"):
                with open(log, "wb") as stream:
                    session = self.start("-r", path, "-u", "1", "--speed", "1000", stderr=stream)
                session.wait_for(b"end of")
                session.press("q")
                self.assertEqual(session.end()[0], 0)
                self.is_as_it_was(session)
                self.assertNotIn(b"unable to read all", session.seen)
            self.assertIn(b"unable to read all", pathlib.Path(log).read_bytes())

            session = self.start("-r", folder + "/none", "-u", "1")
            self.assertEqual(session.end()[0], 1)
            self.assertNotIn(INTO, session.seen)

    def test_a_terminal_that_takes_nothing_holds_up_no_end(self):
        session = self.start(*REPLAY[:4], size=(200, 60), reads=False)
        os.set_blocking(session.ours, False)
        wait_until("screen", lambda: termios.tcgetattr(session.theirs) != session.before)
        for _ in range(200):
            os.write(session.ours, b"\x0c")  # draws all of it anew
            time.sleep(0.002)
        session.popen.terminate()
        status, seconds = session.end()
        self.assertEqual(status, 0)
        self.assertLess(seconds, 1.5)
        self.assertEqual(termios.tcgetattr(session.theirs), session.before)

    def test_a_terminal_that_goes_away_ends_the_run(self):
        session = self.start(*REPLAY)
        session.wait_for(b"Totals")
        os.close(session.theirs)
        os.close(session.ours)
        session.reads = False
        self.assertEqual(session.end()[0], 0)
        session.ours, session.theirs = os.pipe()  # for the close

    def test_refuses_what_is_no_terminal(self):
        for terminal in ("dumb", "unknown", "nosuchterminal", "", None, "x\x1b[2Jy"):
            with self.subTest(terminal=terminal):
                environment = {**ENVIRONMENT, "TERM": terminal or ""}
                if terminal is None:
                    del environment["TERM"]
                session = self.start(*REPLAY, env=environment)
                self.assertEqual(session.end()[0], 2)
                self.assertEqual(session.seen.count(b"\n"), 1)
                self.assertNotIn(b"\x1b", session.seen)
                self.assertIn(b"TERM", session.seen)
        for streams in ({"stdin": subprocess.DEVNULL}, {"stdout": subprocess.PIPE}):
            with self.subTest(streams=streams):
                ours, theirs = pty.openpty()
                done = subprocess.run([WATCH, "top", *REPLAY], stderr=subprocess.PIPE, env=ENVIRONMENT,
                                      check=False, **{"stdin": theirs, "stdout": theirs, **streams})
                os.close(theirs)
                os.close(ours)
                self.assertEqual((done.returncode, done.stderr.count(b"\n")), (2, 1))
                self.assertIn(b"needs a terminal", done.stderr)
        for wrong in ("0", "-1", "x", "inf", "nan", "1000001"):
            session = self.start("-r", BUS, "--speed", wrong)
            self.assertEqual(session.end()[0], 2)


class Output(unittest.TestCase):
    def shown(self, *options, keys="", wait=b"end of file", **environment):
        session = Session(*options, env={**ENVIRONMENT, **environment})
        self.addCleanup(session.close)
        session.wait_for(wait)
        session.press(keys)
        time.sleep(0.2)
        session.press("q")
        self.assertEqual(session.end()[0], 0)
        return session.seen

    def test_nothing_of_a_subject_acts_on_the_terminal(self):
        subjects = [(b"\x1b]0;owned\x07", b"\x1b[5n"), (b"\x9b6n\x9d",), (b"\xc2\x9b31m",), (b"\r\n\t\x08\x7f\x0e",),
                    (b"\xff\xfe", b"\x00x"), (b"\x1b" * 248,), (b"x" * 252,), ("漢字" * 40).encode(),
                    ("\u202eevil\u2066",), ("e" + "\u0301" * 100,)]
        subjects = [tuple(e.encode() if isinstance(e, str) else e for e in ((s,) if isinstance(s, bytes) else s))
                    for s in subjects]
        text = "\n".join("data seq=%d {%s}" % (number, subject_field([e[:250] for e in elements]).hex())
                         for number, elements in enumerate(subjects, 1))
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder, "evil\x1b[5n.pcap")
            path.write_bytes(packets.capture(text))
            for variables in ({}, {"LC_ALL": "C"}, {"TERM": "vt100"}, {"TERM": "linux"}, {"TERM": "screen"}):
                with self.subTest(variables=variables):
                    seen = self.shown("-r", path, "-u", "1", keys="4jjjj\r//x\x1b", **variables)
                    left = SEQUENCE.sub(b"", seen).decode("utf-8")
                    self.assertFalse(set(left) & {chr(c) for c in range(256) if c < 0x20 or 0x7f <= c < 0xa0}
                                     - set("\r\n\b\t\x0f\x0e\a"))
                    self.assertNotRegex(seen, rb"\x1b\[[56]n|\x9b6n|owned\x07|\xe2\x80\xae")
                    self.assertIn(b"\\x1b]0;owned\\x07.\\x1b[5n", seen)
                    self.assertIn(b"evil\\x1b[5n.pcap"[:19], seen)
                    if variables.get("LC_ALL") == "C":
                        left.encode("ascii")

    def test_colour_is_for_trouble_and_not_where_it_is_unwanted(self):
        self.assertIn(b"\x1b[31m", self.shown(*REPLAY).replace(b"\x1b[1m\x1b[31m", b"\x1b[31m"))
        for variables in ({"NO_COLOR": "1"}, {"TERM": "vt100"}):
            self.assertNotRegex(self.shown(*REPLAY, **variables), rb"\x1b\[[\d;]*3\dm")

    def test_a_live_screen_freezes_and_ends(self):
        if WIRE is None:
            self.skipTest("no live capture is permitted here")
        seen = self.shown("-i", WIRE.interface, "-u", "1", wait=b"Drops", keys=" ")
        self.assertIn(b"FROZEN", seen)


if __name__ == "__main__":
    try:
        WIRE = open_wire()
    except SystemExit:
        pass  # it has told why
    del sys.argv[1]
    unittest.main()
