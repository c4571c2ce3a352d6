"""pelmowatch top in terminals: what it writes, and how it leaves one, is seen from the other end of a pseudo
terminal. That of the README's picture is tmux, which shows the screen.
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
import termios
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import HOSTILE_SUBJECTS, ROOT, ProgramCase, binary, main, messages, run, wait_until  # noqa: E402

import top_picture  # noqa: E402
from live_run import Process, open_wire  # noqa: E402

WATCH = binary("pelmowatch")
BUS = ROOT / "samples/bus.pcap"
REPLAY = ("-r", BUS, "-u", "1", "--speed", "1000")
WIRE = None
# The sanitizers leave faults to the program's own handlers.
ENVIRONMENT = {**os.environ, "TZ": "UTC", "LC_ALL": "C.UTF-8", "TERM": "xterm-256color",
               "ASAN_OPTIONS": os.environ.get("ASAN_OPTIONS", "") +
               ":handle_segv=0:handle_abort=0:handle_sigbus=0:handle_sigfpe=0:handle_sigill=0"}
ENVIRONMENT.pop("NO_COLOR", None)
INTO, OUT_OF, HIDDEN, VISIBLE = b"\x1b[?1049h", b"\x1b[?1049l", b"\x1b[?25l", b"\x1b[?25h"
SEQUENCE = re.compile(rb"\x1b(?:\[[?>]?[\d;]*[A-Za-z]|[()][A-Z0]|[=>78M])")


class Session(Process):
    """A run on a pseudo terminal of its own; everything that it writes is kept."""

    def __init__(self, *options, program=(WATCH, "top"), size=(80, 24), reads=True, **more):
        self.ours, theirs = pty.openpty()
        self.theirs, self.before, self.seen, self.reads = theirs, termios.tcgetattr(theirs), b"", reads
        self.resize(*size)
        super().__init__(*program, *options, **{"stdin": theirs, "stdout": theirs, "stderr": theirs,
                                                "env": ENVIRONMENT, "start_new_session": True, **more})

    def resize(self, columns, lines):
        fcntl.ioctl(self.theirs, termios.TIOCSWINSZ, struct.pack("HHHH", lines, columns, 0, 0))

    @staticmethod
    def before_start():
        Process.before_start()
        fcntl.ioctl(1, termios.TIOCSCTTY, 0)

    def close(self):
        super().close()
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
            wait_until(is_there, repr(text))
        except AssertionError as error:
            raise AssertionError("%s in\n%r" % (error, self.seen[-3000:])) from None

    def after(self, keys, text):
        """Presses keys; what is written then has the text."""
        self.seen = b""
        self.press(keys)
        self.wait_for(text)

    def press(self, keys):
        os.write(self.ours, keys.encode())

    def status(self, seconds=15):
        """The exit status; what is written until then is read."""
        def has_ended():
            self.read()
            return not self.running()
        wait_until(has_ended, "end", seconds)
        self.read()
        return self.popen.returncode


class Screens(ProgramCase):
    def test_follows_sizes_and_stops_and_goes_on_by_the_shell(self):
        shell = self.started(Session(program=("bash", "--norc", "--noprofile", "-i"), cwd=self.folder))
        shell.after("stty -g >before; %s top -r %s -u 1\n" % (WATCH, BUS), b"2023-11-14 22:13:21")
        shell.after(" ", b"PAUSED")  # at its own pace: there is time to
        for size, wanted in (((39, 24), b"needs 40 x 10"), ((120, 12), b"PAUSED")):
            shell.seen = b""
            shell.resize(*size)
            shell.wait_for(wanted)
        shell.after("+++++++ ", b"end of file")
        for keys, stopped, command, wanted in (("\x1a", b"Stopped", "fg", b"end of file"),
                                               ("q", OUT_OF, "echo the 'same'", b"the same")):
            shell.after(keys, stopped)
            self.assertGreater(shell.seen.find(OUT_OF), -1)
            self.assertGreater(shell.seen.rfind(VISIBLE), shell.seen.rfind(HIDDEN))
            shell.after("stty -g | cmp - before && %s\n" % command, wanted)

    def test_the_readmes_picture_is_true(self):
        drawn = (ROOT / "docs/pictures/top.svg").read_text(encoding="utf-8")
        self.assertEqual(top_picture.text_of(drawn),
                         top_picture.text_of(top_picture.picture(top_picture.capture(WATCH))))


class Ends(ProgramCase):
    def session(self, *options, **more):
        return self.started(Session(*options, **more))

    def is_as_it_was(self, session):
        self.assertEqual(termios.tcgetattr(session.theirs), session.before)
        self.assertGreater(session.seen.rfind(OUT_OF), session.seen.rfind(INTO))
        self.assertGreater(session.seen.rfind(VISIBLE), session.seen.rfind(HIDDEN))

    def test_every_end_leaves_the_terminal_as_it_was(self):
        for name in "INT TERM HUP ABRT SEGV BUS FPE ILL QUIT USR1 ALRM".split():
            with self.subTest(name):
                session, number = self.session(*REPLAY), signal.Signals["SIG" + name]
                session.wait_for(b"Totals")
                self.ends_at_signal(session, 0 if name in ("INT", "TERM", "HUP") else -number, number)
                self.is_as_it_was(session)
        for keys, captured, shown in (("q", 60000, b"Totals"), ("\x03", 60000, b"Totals"), ("q", 0, b"waiting for")):
            # The standard input is the capture, which stays open; keys come from the terminal all the same.
            session = self.session("-r", "-", *REPLAY[2:], stdin=self.fed(BUS.read_bytes()[:captured]))
            session.wait_for(shown)
            session.press(keys)
            self.assertEqual(session.status(), 0)
            self.is_as_it_was(session)

    def test_a_source_that_fails_is_on_the_screen_and_in_the_log(self):
        path = self.folder / "torn.pcap"
        path.write_bytes(BUS.read_bytes()[:-7])
        torn = ("-r", path, "-u", "1", "--speed", "1000")
        session = self.session(*torn)
        session.wait_for(b"unable to read all")
        session.press("q")
        session.status()
        self.is_as_it_was(session)
        self.assertIn(b"unable to read all", session.seen[session.seen.rfind(OUT_OF):])

        # A log that finds no room, and one that is somewhere else.
        for log in ("/dev/full", self.folder / "log"):
            with open(log, "wb") as stream:
                session = self.session(*torn, stderr=stream)
            session.wait_for(b"end of")
            session.press("q")
            self.assertEqual(session.status(), 0)
            self.assertNotIn(b"unable to read all", session.seen)
        self.assertIn(b"unable to read all", log.read_bytes())

        session = self.session("-r", self.folder / "none", "-u", "1")
        self.assertEqual(session.status(), 1)
        self.assertNotIn(INTO, session.seen)

    def test_a_terminal_that_takes_nothing_or_goes_holds_up_no_end(self):
        session = self.session(*REPLAY[:4], size=(200, 60), reads=False)
        os.set_blocking(session.ours, False)
        wait_until(lambda: termios.tcgetattr(session.theirs) != session.before, "a screen")
        for _ in range(200):
            os.write(session.ours, b"\x0c")  # draws all of it again
            time.sleep(0.002)
        self.ends_at_signal(session, seconds=1.5)
        self.assertEqual(termios.tcgetattr(session.theirs), session.before)

        session = self.session(*REPLAY)
        session.wait_for(b"Totals")
        os.close(session.theirs)
        os.close(session.ours)
        session.reads = False
        self.assertEqual(session.status(), 0)
        session.ours, session.theirs = os.pipe()  # for the close

    def test_refuses_what_is_no_terminal(self):
        for terminal in ("dumb", "nosuchterminal", "", "x\x1b[2Jy"):
            with self.subTest(terminal=terminal):
                session = self.session(*REPLAY, env={**ENVIRONMENT, "TERM": terminal})
                self.assertEqual(session.status(), 2)
                self.assertEqual(session.seen.count(b"\n"), 1)
                self.assertNotIn(b"\x1b", session.seen)
                self.assertIn(b"TERM", session.seen)
        ours, theirs = pty.openpty()
        for streams in ({"stdin": subprocess.DEVNULL}, {"stdout": subprocess.PIPE}):
            done = run(WATCH, "top", *REPLAY, env=ENVIRONMENT, **{"stdin": theirs, "stdout": theirs, **streams})
            self.assertEqual((done.returncode, done.stderr.count(b"\n")), (2, 1))
            self.assertIn(b"needs a terminal", done.stderr)
        os.close(theirs)
        os.close(ours)
        for wrong in ("0", "inf", "1000001"):
            self.assertEqual(self.session("-r", BUS, "--speed", wrong).status(), 2)


class Output(ProgramCase):
    def shown(self, *options, keys="", wait=b"end of file", then=b"", **environment):
        """All that a run writes until it has shown `wait`, taken the keys, and shown `then`."""
        session = self.started(Session(*options, env={**ENVIRONMENT, **environment}))
        session.wait_for(wait)
        session.press(keys)
        session.wait_for(then)
        session.press("q")
        self.assertEqual(session.status(), 0)
        return session.seen

    def test_nothing_of_a_subject_acts_on_the_terminal(self):
        subjects = [(b"\x1b]0;owned\x07", b"\x1b[5n"), (b"\x9b6n\x9d",), (b"\xc2\x9b31m",), (b"\r\n\t\x08\x7f\x0e",),
                    (b"\x1b" * 248,), (("漢字" * 40).encode(),), (("e" + "\u0301" * 100).encode(),), *HOSTILE_SUBJECTS]
        path = self.capture_of("evil\x1b[5n.pcap", *messages(subjects))
        wanted = b"\\x1b]0;owned\\x07.\\x1b[5n"
        for variables in ({}, {"LC_ALL": "C"}, {"TERM": "vt100"}, {"TERM": "linux"}, {"TERM": "screen"}):
            with self.subTest(variables=variables):
                seen = self.shown("-r", path, "-u", "1", keys="4jjjj\r", then=wanted, **variables)
                left = SEQUENCE.sub(b"", seen).decode("utf-8")
                self.assertFalse(set(left) & {chr(c) for c in range(256) if c < 0x20 or 0x7f <= c < 0xa0}
                                 - set("\r\n\b\t\x0f\x0e\a"))
                self.assertNotRegex(seen, rb"\x1b\[[56]n|\x9b6n|owned\x07|\xe2\x80\xae")
                self.assertIn(b"evil\\x1b[5n.pcap"[:19], seen)
                if variables.get("LC_ALL") == "C":
                    left.encode("ascii")

    def test_colour_is_for_trouble_and_not_where_it_is_unwanted(self):
        self.assertIn(b"\x1b[31m", self.shown(*REPLAY))
        for variables in ({"NO_COLOR": "1"}, {"TERM": "vt100"}):
            self.assertNotRegex(self.shown(*REPLAY, **variables), rb"\x1b\[[\d;]*3\dm")

    def test_a_live_screen_freezes_and_ends(self):
        if WIRE is None:
            self.skipTest("no live capture is permitted here")
        self.shown("-i", WIRE.interface, "-u", "1", wait=b"Drops", keys=" ", then=b"FROZEN")


if __name__ == "__main__":
    try:
        WIRE = open_wire()
    except SystemExit:
        pass  # it said why
    main()
