"""The program by what it prints and how it ends, over the transport within the process and over a daemon."""

import fcntl
import json
import os
import pathlib
import re
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ProgramCase, binary, catches, main, run, schema, wait_until  # noqa: E402

from lives_relay import Relay  # noqa: E402

PROGRAM = binary("pelmobus")
PIPE = subprocess.PIPE


class BusCase(ProgramCase):
    connection = ["--local"]

    def bus(self, *words, **more):
        return run(PROGRAM, *self.connection, *words, **more)

    def launch(self, *words, **more):
        """A run that ends with the test."""
        return super().start(PROGRAM, *self.connection, *words,
                             **{"stdout": PIPE, "stderr": PIPE, **more}).popen

    def start(self, *words, **more):
        """The same; one that listens is ready once this returns: all that is sent from then on reaches it."""
        process = self.launch(*words, **more)
        if words[0] in ("listen", "answer") or words[:2] in (("bench", "listen"), ("circuit", "accept")):
            self.assertRegex(process.stderr.readline(), b"^listening on ")
        return process

    def ends(self, result, status, stderr=None, stdout=None):
        self.assertEqual(result.returncode, status, result.stderr)
        if stderr is not None:
            self.assertEqual(result.stderr.decode(), stderr)
        if stdout is not None:
            self.assertRegex(result.stdout.decode(), stdout)

    def ended(self, process, status=0):
        """What it printed, and what it said after its first line."""
        out, err = process.communicate(timeout=60)
        self.assertEqual(process.returncode, status, err)
        return out.decode(), err


def unread(pipe):
    """The number of its bytes."""
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, bytes(4)))[0]


class Within(BusCase):
    """Each by itself."""

    def test_statuses_and_words(self):
        for words, status, stderr in [
                (["send", "A", "--count", "0"], 0, "sent 0\n"),
                (["send", "A", "--count", "200", "--sequence", "--size", "300"], 0, "sent 200\n"),
                (["send", "_PM.A"], 1, "pelmobus: send _PM.A: Invalid subject (20)\nsent 0\n"),
                (["send", "A", "--reply", ""], 1, "pelmobus: reply : Invalid subject (20)\nsent 0\n"),
                (["send", "A", "s:subject=a..b"], 2, "pelmobus: s:subject=a..b: Invalid subject (20)\n"),
                (["listen", "A..B"], 1, "pelmobus: listen A..B: Invalid subject (20)\n"),
                (["listen", "A", "B.>", "--seconds", "0"], 0, "listening on A\nlistening on B.>\n"),
                (["listen", "A", "--seconds=0.01", "--count=1"], 3, "listening on A\n"),
                (["listen", "A", "--count=0", "--quiet"], 0, "listening on A\nreceived 0\n"),
                (["request", "A", "--seconds=0.01"], 3,
                 "pelmobus: request A: Operation timed out (50)\n"),
                (["circuit", "accept", "A", "--count=0"], 0, "listening on A\n"),
                (["circuit", "accept", "A", "--seconds=0.01"], 3,
                 "listening on A\npelmobus: circuit accept A: Operation timed out (50)\n"),
                (["circuit", "connect", "A", "--seconds=0.01"], 3,
                 "pelmobus: circuit connect A: Operation timed out (50)\n"),
                (["circuit", "connect", "a..b"], 1,
                 "pelmobus: circuit connect a..b: Invalid subject (20)\n")]:
            with self.subTest(words):
                self.ends(self.bus(*words), status, stderr, "^$")
        self.ends(run(PROGRAM, "--version"), 0, "", r"^pelmobus [0-9.]+ \(bus version [0-9.]+\)\n$")
        # An address without a listener, and from which no daemon is started.
        self.ends(run(PROGRAM, "--daemon", "127.0.0.1:1", "send", "A"), 1,
                  "pelmobus: connect 127.0.0.1:1: Not connected to daemon (21)\n")

    def test_lines_of_the_input(self):
        for last in (b"", b"\n"):  # which comes in pieces, as the pipe holds less
            self.ends(self.bus("send", "A", "--lines", input=b"one\n\n" + b"x" * 300000 + last), 0, "sent 3\n")
        self.ends(self.bus("send", "A", "--lines", "--count=2", input=b"1\n2\n3\n"), 0, "sent 2\n")
        line = b'{"fields":[{"name":"x","type":"u64","value":18446744073709551615}]}\n'
        self.ends(self.bus("send", "A", "--json", input=line * 3 + b"\n"), 0, "sent 3\n")
        self.ends(self.bus("send", "A", "--json", input=line + b'{"fields":[7]}\n' + line), 1,
                  "pelmobus: line 2: column 12: not an object\nsent 1\n")

    def test_lines_with_subjects_go_where_the_command_line_says(self):
        fields = '"fields":[]}\n'
        own, answered = '{"subject":"A.B",' + fields, '{"subject":"A.B","reply":"R",' + fields
        refused = "pelmobus: line 2: names a subject of its own, which needs --original, --prefix or --to\n"
        found = '{"time":"x","port":1,"group":"","sender":"","scid":null,"sequence":7,"repeated":true,"subject":"A.B",'
        lost = "".join(found + rest + "}\n" for rest in (
            '"incomplete":"part_missing","bytes":7,"message_bytes":9', '"point_to_point_bytes":7', '"fault":"x"'))
        for words, lines, status, err in [
                (["X"], "{" + fields + own, 1, refused + "sent 1\n"),
                (["--original"], own + '{"subject":"a\\u001b..b",' + fields, 1,
                 "pelmobus: line 2: send a\\x1b..b: Invalid subject (20)\nsent 1\n"),
                (["--original"], "{" + fields, 1,
                 "pelmobus: line 1: names no subject, and no SUBJECT is given\nsent 0\n"),
                (["--prefix", "TEST..", "X"], "{" + fields + own, 1,
                 "pelmobus: line 2: send TEST..A.B: Invalid subject (20)\nsent 1\n"),
                (["--to", "B"], own + answered, 0, "pelmobus: send B: reply subjects left out: 1\nsent 2\n"),
                (["--original"], own + lost + found + fields, 1,
                 "pelmobus: send: lines without a whole message skipped: 3\nsent 2\n"),
                (["X", "--pace"], '{"time":"2024-01-02T03:04:05.5Z",' + fields + "{" + fields, 1,
                 "pelmobus: line 2: has no time\nsent 1\n"),
                (["X", "--pace"], '{"time":"yesterday",' + fields, 1,
                 "pelmobus: line 1: time: not a date-time such as 2024-01-02 03:04:05Z\nsent 0\n"),
                (["X", "--pace"], '{"time":"9000-01-01T00:00:00Z",' + fields, 1,
                 "pelmobus: line 1: time: out of range\nsent 0\n")]:
            with self.subTest(words=words, lines=lines):
                self.ends(self.bus("send", "--json", *words, input=lines.encode()), status, err)

    def test_ends_in_order_at_a_signal_whatever_it_waits_for(self):
        unsent = rb"^pelmobus: send A: (%s) not sent: Operation interrupted \(51\)\nsent [01]\n$"
        lines = b"".join(b'{"time":"2024-01-02T%02d:00:00Z","fields":[]}\n' % hour for hour in (3, 4))
        for words, status, end in [
                ("listen A", 0, b"^$"), ("answer A", 0, b"^$"), ("circuit accept A", 0, b"^$"),
                ("circuit connect A", 0, b"^$"), ("bench listen --seconds 60", 0, b"^$"), ("request A", 0, b"^$"),
                ("send A --lines", 0, b"^sent 0\n$"),
                ("send A --count=2 --rate=0.001", 1, unsent % b"[12] messages"),
                ("send A --json --pace", 1, unsent % b"lines of the input")]:
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(words, number=number):
                    stdin = self.fed(lines if "--pace" in words else b"")
                    process = self.start(*words.split(), stdin=stdin)
                    wait_until(lambda: unread(stdin) == 0, "an empty pipe")  # noqa: B023
                    # What prints nothing when it is ready has its handlers soon.
                    wait_until(lambda: catches(process.pid, number), "a handler")
                    process.send_signal(number)
                    self.assertRegex(self.ended(process, status)[1], end)

    def test_output_that_can_not_be_written(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            for words in (["--help"], ["--local", "bench", "send", "--count", "10"]):
                for output in (full, self.without_reader()):
                    result = run(PROGRAM, *words, stdout=output)
                    self.assertEqual(result.returncode, 1)
                    self.assertIn(b"IO operation failed (74)", result.stderr)
        self.assertEqual(run("sh", "-c", '"$0" --version >&-', PROGRAM).returncode, 1)

    def test_benchmarks_count_what_they_send(self):
        rate = r"%s: 5000 messages, %d bytes in [0-9.]+ s: \d+ messages/s, \d+ bytes/s\n"
        sent = rate % ("sent", 5000 * 115)
        received = rate % ("received", 5000 * 115)
        amount = ["--count", "5000", "--size", "100"]
        self.ends(self.bus("bench", "send", *amount), 0, "", "^%s%s$" % (sent, received))
        self.ends(self.bus("bench", "listen", *amount), 0, None, "^%s$" % received)
        self.ends(self.bus("bench", "request", "X", "--count", "500"), 0, "",
                  r"^answered: 500 requests in [0-9.]+ s: \d+ requests/s\n"
                  r"latency: min [0-9.]+ us, median [0-9.]+ us, 99% [0-9.]+ us, 99.9% [0-9.]+ us, "
                  r"max [0-9.]+ us\n$")
        self.ends(self.bus("bench", "send", "--seconds=0.05", "--count=1000000", "--rate=100"), 3, "")


class OverADaemon(BusCase):
    def setUp(self):
        self.pmd = self.daemon()
        self.connection = ["--daemon", "127.0.0.1:%d" % self.pmd.port]

    def test_says_what_the_daemon_refuses_to_keep(self):
        patterns = [".".join("*" if bits >> i & 1 else "a" for i in range(16)) for bits in range(200)]
        listener = self.launch("listen", *patterns, "Z")
        lines = [line.decode() for line in iter(listener.stderr.readline, b"listening on Z\n")]
        refused = {line.split()[2].rstrip(":") for line in lines if line.endswith(": refused by the daemon\n")}
        listened = {line.split()[2] for line in lines if line.startswith("listening on ")}
        self.assertTrue(len(refused) > 100 and len(listened) > 10)
        self.assertEqual((refused | listened, refused & listened), (set(patterns), set()))

    def test_answers_take_the_road_that_both_ends_have(self):
        for asks, answers, own, fields, road in [
                ("7500:", "7500:", (), "x=7", r"road: direct, 50 of 50 answers on UDP port \d+; \d+ packets out, "
                                              r"\d+ again; \d+ in\n$"),
                ("7500:", "7500", ("a:i8=1",), "a=1",
                 r"road: direct, 0 of 50 answers on UDP port \d+; 0 packets out, 0 again; 0 in\n$"),
                ("7500", "7500:", (), "x=7", r"road: daemon\n$")]:
            with self.subTest(asks=asks, answers=answers):
                answerer = self.start("--service", answers, "answer", "Q", *own, "--sequence", "--count", "53")
                self.assertEqual(answerer.stderr.readline(), b"listening on Q\n")
                asked = self.bus("--service", asks, "bench", "request", "Q", "--count", "50")
                self.assertRegex(asked.stdout.decode(), road)
                three = self.bus("--service", asks, "request", "Q", "x:i32=7", "--count", "3")
                self.assertRegex(three.stdout.decode(), r"^(_INBOX\.\S+ \{%s seq=5[123]\}\n){3}$" % fields)
                self.assertEqual(self.ended(answerer)[0].count("Q reply=_INBOX."), 53)
        taken = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        taken.bind(("127.0.0.1", 0))
        result = self.bus("--service", "7500:%d" % taken.getsockname()[1], "send", "A")
        taken.close()
        self.assertEqual(result.returncode, 1)
        self.assertIn(b"Requested port already in-use (100)", result.stderr)

    def test_a_message_is_a_line_whatever_is_in_it(self):
        as_json = '{"time":T,"subject":"A.B","fields":[{"name":"t","type":"string","value":"two\\nlines\\u001b"}]}\n'
        for option, words, line in (("--count=1", ["--reply", "R"], 'A.B reply=R {t="two\\nlines\\x1b"}\n'),
                                    ("--json", [], as_json)):
            listener = self.start("listen", "A.B", "C.>", "--count=1", option)
            self.assertEqual(listener.stderr.readline(), b"listening on C.>\n")
            self.bus("send", "A", "t=nobody's")
            self.bus("send", "A.B", "t=two\nlines\x1b", *words)
            self.assertEqual(re.sub(r'"[-0-9]{10}T[0-9:]{8}\.[0-9]{9}Z"', "T", self.ended(listener)[0]), line)

    def test_what_is_listened_to_can_be_sent_again(self):
        record = self.start("listen", "A.>", "--json", "--count", "300")
        self.bus("send", "A.B", "--count", "200", "--sequence", "--size=3", "a:f64=NaN", "b:i64=-9007199254740993",
                 b"c=\xff\n\xe2\x80\xa8", "d:datetime=-001-12-31 23:59:59.000001Z", "e:subject=A.*", "f:bool=true",
                 "g:ip=10.1.2.3", "h:port=1", "i:xml=<a/>", "j:f32=0.1")
        self.bus("send", "A.C", "--lines", "--reply", "R", input=b"a\0b\n" * 100)
        lines, _ = self.ended(record)
        self.assertEqual(lines.count("\n"), 300)
        self.assertEqual([json.loads(line)["fields"][-1]["value"] for line in lines.splitlines()],
                         list(range(1, 201)) + ["a\0b"] * 100)
        for line in (lines.splitlines()[0], lines.splitlines()[-1]):
            schema("pelmo-messages").validate(json.loads(line))

        def known(line):
            return {key: value for key, value in json.loads(line).items() if key != "time"}

        recorded = [known(line) for line in lines.splitlines()]
        for words, at, lead in (
                (["OTHER", "--original"], "A.>", lambda own: own),
                (["--prefix", "TEST."], "TEST.A.>", lambda own: {key: "TEST." + text for key, text in own.items()}),
                (["--to", "ELSE"], "ELSE", lambda own: {"subject": "ELSE"})):
            again = self.start("listen", at, "--json", "--count", "300")
            sent = self.bus("send", "--json", *words, input=lines.encode())
            self.assertTrue(sent.stderr.endswith(b"sent 300\n"), sent.stderr)
            self.assertEqual([known(line) for line in self.ended(again)[0].splitlines()],
                             [{**lead({key: line[key] for key in line if key != "fields"}), "fields": line["fields"]}
                              for line in recorded])

    def circuit(self, subject="C"):
        """Both ends, connected; their inputs are open."""
        ends = [self.start("circuit", word, subject, stdin=PIPE) for word in ("accept", "connect")]
        for end in ends:
            self.assertEqual(end.stderr.readline(), b"connected\n")
        return ends

    def test_a_circuit_ends_with_its_end_in_order_or_not(self):
        circuits = [(number, which, self.circuit("C%d.%d" % (number, which)))
                    for number in (signal.SIGTERM, signal.SIGKILL) for which in (0, 1)]
        for number, which, ends in circuits:
            ends[which].send_signal(number)
        for number, which, ends in circuits:
            with self.subTest(number=number, which=which):
                # Only a goodbye ends it in order. Without one the daemon waits for the end to come back.
                in_order = number == signal.SIGTERM
                self.assertEqual(ends[1 - which].wait(60), 0 if in_order else 1)
                self.assertEqual(ends[1 - which].stderr.read().endswith(b": remote unreachable\n"), not in_order)
                ends[which].wait(30)
        # Lines that the other end doesn't wait for.
        with tempfile.TemporaryFile() as lines:
            lines.write(b"x\n" * 3_000_000)
            lines.seek(0)
            accept = self.start("circuit", "accept", "C", stdin=lines)
            self.bus("circuit", "connect", "C")
        self.assertEqual(self.ended(accept, 1)[1],
                         b"connected\npelmobus: circuit accept C: the other end has ended before the input\n")
        accept, connect = self.circuit()
        self.pmd.close()
        for end in (accept, connect):
            self.assertEqual(end.stderr.readline(), b"pelmobus: lost the connection to the daemon\n")
        # What can't be sent is reported, and ends the circuit.
        connect.stdin.write(b"lost\n")
        connect.stdin.flush()
        self.assertEqual(self.ended(connect, 1)[1], b"pelmobus: send LINE: Not connected to daemon (21)\n")

    def test_who_ends_without_the_daemon_having_read_all_says_so(self):
        # The daemon is stopped, and killed while they end.
        accept, connect = self.circuit()
        self.pmd.popen.send_signal(signal.SIGSTOP)
        os.waitid(os.P_PID, self.pmd.popen.pid, os.WSTOPPED)
        connect.stdin.write(b"x\n")
        connect.stdin.close()
        connect.stdin = None
        with self.assertRaises(subprocess.TimeoutExpired):
            connect.wait(0.3)
        self.pmd.popen.kill()
        # Where it comes late, it finds the connection broken before it can send.
        self.assertRegex(self.ended(connect, 1)[1], b"circuit connect C: not all has left: |send LINE: Not connected")

    def test_listening_is_said_once_the_daemon_knows(self):
        relay = self.started(Relay(self.pmd.port))
        relay.line.holds = b"\6mtype\0\x08\x02L"
        listener = self.start("--service", "7500:", "--daemon", "127.0.0.1:%d" % relay.port,
                              "listen", "A", "--count", "1")
        wait_until(lambda: not relay.line.open.is_set(), "its interest")
        self.assertEqual(select.select([listener.stderr], [], [], 0.5)[0], [])
        relay.line.holds = None
        relay.line.open.set()
        self.assertEqual(listener.stderr.readline(), b"listening on A\n")
        self.bus("send", "A")
        self.assertEqual(listener.wait(30), 0)

    def test_a_broken_connection_is_waited_for_where_that_is_asked_for(self):
        listener = self.start("listen", "W", "--count", "4")  # the waiting one's second may come or not
        waiting = self.start("send", "W", "--lines", "--wait", stdin=PIPE)
        failing = self.start("send", "W", "--lines", stdin=PIPE)
        for process in (waiting, failing):
            process.stdin.write(b"before\n")
            process.stdin.flush()
            self.assertEqual(listener.stdout.readline(), b'W {line="before"}\n')
        self.pmd.close()
        for process in (waiting, failing, listener):
            self.assertEqual(process.stderr.readline(), b"pelmobus: lost the connection to the daemon\n")
        for process in (waiting, failing):
            process.stdin.write(b"after\n")
            process.stdin.flush()
        self.assertEqual(self.ended(failing, 1)[1], b"pelmobus: send W: Not connected to daemon (21)\nsent 1\n")
        self.daemon(port=self.pmd.port)
        self.assertEqual(self.ended(waiting)[0], "")
        self.assertRegex(listener.stderr.readline().decode(),
                         r"^pelmobus: connected to the daemon again after \d+\.\d seconds\n$")
        # The listener is back in its own time, and its end shows that it is.
        wait_until(lambda: self.bus("send", "W") and listener.poll() is not None, "the listener")
        self.assertEqual(listener.returncode, 0)

    def test_a_reader_that_has_gone_or_stalls_ends_in_order(self):
        gone = self.start("listen", "G")
        gone.stdout.close()
        self.bus("send", "G", "--count", "10")
        self.assertEqual(gone.wait(30), 1)
        self.assertIn(b"Broken pipe: IO operation failed (74)", gone.stderr.read())
        stalled = self.start("listen", "G")
        size = fcntl.fcntl(stalled.stdout, fcntl.F_SETPIPE_SZ, 4096)
        self.bus("send", "G", "--count", "100", "x=" + "y" * 1000)
        wait_until(lambda: unread(stalled.stdout) == size, "a full pipe")
        stalled.terminate()
        self.assertEqual(stalled.stderr.read(), b"pelmobus: standard output: its reader takes nothing: "
                                                b"IO operation failed (74)\n")
        self.assertEqual(stalled.wait(30), 1)

    def test_ends_at_a_signal_while_its_daemon_does_not_read(self):
        listeners = [self.start("listen", subject, "--count=1", "--quiet") for subject in "AB"]
        senders = [self.start(*words, "--count=1000000", "--size=1000000")
                   for words in (["send", "A"], ["bench", "send", "B"])]
        for listener in listeners:
            self.ended(listener)
        os.kill(self.pmd.popen.pid, signal.SIGSTOP)
        time.sleep(1)  # they have more to send than may wait
        for sender in senders:
            sender.send_signal(signal.SIGTERM)
        # What was taken and what wasn't are reported, and what was taken and hasn't left.
        _, err = self.ended(senders[0], 1)
        taken = int(re.search(rb"\nsent (\d+)\n$", err).group(1))
        self.assertGreater(taken, 15)
        self.assertIn(b"%d messages not sent: Operation interrupted (51)\n" % (1000000 - taken), err)
        self.assertIn(b"not all has left: ", err)
        self.ended(senders[1])

    def test_ends_at_a_signal_while_it_connects(self):
        with socket.create_server(("127.0.0.1", 0)) as silent:
            self.connection = ["--daemon", "127.0.0.1:%d" % silent.getsockname()[1]]
            for words, status, said in [
                    (["send", "A"], 1, b"pelmobus: connect: Operation interrupted (51)\nsent 0\n"),
                    (["bench", "send", "A"], 0, b"")]:
                process = self.start(*words)
                with silent.accept()[0]:  # and no greeting comes
                    process.send_signal(signal.SIGINT)
                    self.assertEqual(self.ended(process, status)[1], said)


if __name__ == "__main__":
    main()
