"""pelmowatch top in terminals.

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

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, binary, main, messages, run, wait_until  # noqa: E402

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


def await_screen(is_there, what, screen):
    try:
        wait_until(is_there, repr(what))
    except AssertionError as error:
        raise AssertionError("%s in\n%s" % (error, screen())) from None


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

    def type(self, command):
        self.press(command, "Enter")

    def top(self, *options):
        self.type("TERM=screen-256color %s top %s" % (WATCH, " ".join(map(str, options))))

    def screen(self):
        return [line.rstrip() for line in self.tmux("capture-pane", "-p").split("\n")[:-1]]

    def settings(self):
        return self.tmux("display-message", "-p", "#{alternate_on} #{cursor_flag} #{keypad_cursor_flag}").strip()

    def wait_for(self, *patterns):
        def is_there():
            text = "\n".join(self.screen())
            return all(re.search(pattern, text, re.MULTILINE) for pattern in patterns)
        await_screen(is_there, patterns, lambda: "\n".join(self.screen()))


class Session(Process):
    """A run on a pseudo terminal of its own; everything that it writes is kept."""

    def __init__(self, *options, size=(80, 24), reads=True, **more):
        self.ours, theirs = pty.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", size[1], size[0], 0, 0))
        self.theirs, self.before, self.seen, self.reads = theirs, termios.tcgetattr(theirs), b"", reads
        super().__init__(WATCH, "top", *options, **{"stdin": theirs, "stdout": theirs, "stderr": theirs,
                                                    "env": ENVIRONMENT, "start_new_session": True, **more})

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
        await_screen(is_there, text, lambda: repr(self.seen[-3000:]))

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
    def pane(self, columns, lines):
        pane = Pane(columns, lines)
        self.addCleanup(pane.close)
        return pane

    def test_follows_keys_and_sizes_and_leaves_the_terminal_as_it_was(self):
        pane = self.pane(80, 24)
        pane.wait_for(r"^\$")
        before = pane.settings()
        pane.type("clear; stty -g >%s/before" % pane.scratch.name)
        pane.top(*REPLAY)
        pane.wait_for("end of file")
        self.assertEqual(pane.settings().split()[:2], ["1", "0"])
        for keys, patterns in (
                (("4", "/", "sutsg.rtl", "Enter"), (r"^ Filter sutsg\.rtl  Esc clears +22 of 38", r"SUTSG\.RTL\.DPF\.BH29$")),
                (("Escape",), (r"\? help",)),
                (("1", "j", "Enter", "Right", "Right"), (r"^▾ 7502  239\.255\.0\.1 ", r"^   10\.0\.0\.3:20002 ", "↓Null")),
                (("?",), ("turn the order round",)),
                (("q",), (r"^\$ ",))):
            pane.press(*keys)
            pane.wait_for(*patterns)
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
        for command in ("fg", "q"):
            pane.type("clear; stty -g | cmp - %s/before && echo the same" % pane.scratch.name)
            pane.wait_for(r"^the same$")
            if command == "fg":
                pane.type("fg")
                pane.wait_for("end of file")
                self.assertEqual(pane.settings().split()[:2], ["1", "0"])
                pane.press("q")
                pane.wait_for(r"^\$ ")
        self.assertEqual(pane.settings(), before)

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
            self.is_as_it_was(session)
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
        for terminal in ("dumb", "nosuchterminal", "", None, "x\x1b[2Jy"):
            with self.subTest(terminal=terminal):
                environment = {**ENVIRONMENT, "TERM": terminal or ""}
                if terminal is None:
                    del environment["TERM"]
                session = self.session(*REPLAY, env=environment)
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
        for wrong in ("0", "x", "inf", "1000001"):
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
                    (b"\xff\xfe", b"\x00x"), (b"\x1b" * 248,), (b"x" * 250,), (("漢字" * 40).encode(),),
                    ("\u202eevil\u2066".encode(),), (("e" + "\u0301" * 100).encode(),)]
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
