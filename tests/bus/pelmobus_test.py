#!/usr/bin/env python3
"""pelmobus_test.py PELMOBUS: the program by what it prints and how it ends, over the transport within
the process: no daemon is needed.
"""
import os
import re
import signal
import subprocess
import sys
import time
import unittest


def run(*words, **kwargs):
    return subprocess.run([PROGRAM, *words], capture_output=True, timeout=60, **kwargs)


def local(*words, **kwargs):
    return run("--local", *words, **kwargs)


def start(*words, **kwargs):
    return subprocess.Popen([PROGRAM, "--local", *words], stderr=subprocess.PIPE, **kwargs)


class Pelmobus(unittest.TestCase):
    def ends(self, result, status, stderr=None, stdout=None):
        self.assertEqual(result.returncode, status, result.stderr)
        if stderr is not None:
            self.assertEqual(result.stderr.decode(), stderr)
        if stdout is not None:
            self.assertRegex(result.stdout.decode(), stdout)

    def test_statuses_and_words(self):
        for words, status, stderr in [
                (["send", "A", "--count", "3"], 0, "sent 3\n"),
                (["send", "A", "--count", "0"], 0, "sent 0\n"),
                (["send", "A", "--count", "200", "--sequence", "--size", "300"], 0, "sent 200\n"),
                (["send", "_PM.A"], 1, "pelmobus: send _PM.A: Invalid subject (20)\nsent 0\n"),
                (["send", "A", "--reply", ""], 1, "pelmobus: reply : Invalid subject (20)\nsent 0\n"),
                (["send", "A", "s:subject=a..b"], 2, "pelmobus: s:subject=a..b: Invalid subject (20)\n"),
                (["send", "A", "b"], 2, "pelmobus: b: neither NAME=TEXT nor NAME:TYPE=VALUE\n"),
                (["listen", "A..B"], 1, "pelmobus: listen A..B: Invalid subject (20)\n"),
                (["listen", "A", "B.>", "--seconds", "0"], 0, "listening on A\nlistening on B.>\n"),
                (["listen", "A", "--seconds=0.01", "--count=1"], 3, "listening on A\n"),
                (["listen", "A", "--count=0", "--quiet"], 0, "listening on A\nreceived 0\n"),
                (["request", "A", "--seconds=0.01"], 3,
                 "pelmobus: request A: Operation timed out (50)\n"),
                (["circuit", "accept", "A"], 1,
                 "pelmobus: circuit accept: this version of the library has no virtual circuits\n")]:
            with self.subTest(words):
                self.ends(local(*words), status, stderr, "^$")

    def test_a_daemon_that_is_not_there(self):
        # An address that nobody listens on, and from which no daemon is started.
        self.ends(run("--daemon", "127.0.0.1:1", "send", "A"), 1,
                  "pelmobus: connect 127.0.0.1:1: Not connected to daemon (21)\n")

    def test_help_and_version(self):
        self.ends(run("--version"), 0, "", r"^pelmobus [0-9.]+\n$")
        self.ends(run("--local", "--help"), 0, "", r"(?s)^usage: .*bench listen.*--local")
        self.ends(run("send", "A", "--help"), 0, "", r"(?s)^usage: .* send .*--rate R.*--wait")

    def test_lines_of_the_input(self):
        self.ends(local("send", "A", "--lines", input=b"one\n\nlast"), 0, "sent 3\n")
        self.ends(local("send", "A", "--lines", "--count=2", input=b"1\n2\n3\n"), 0, "sent 2\n")
        line = b'{"fields":[{"name":"x","type":"u64","value":18446744073709551615}]}\n'
        self.ends(local("send", "A", "--json", input=line * 3 + b"\n"), 0, "sent 3\n")
        self.ends(local("send", "A", "--json", input=line + b'{"fields":[7]}\n' + line), 1,
                  "pelmobus: line 2: column 12: not an object\nsent 1\n")
        self.ends(local("send", "A", "--json", input=line.replace(b"{", b'{"subject":"a..b",', 1)), 1,
                  "pelmobus: send a..b: Invalid subject (20)\nsent 0\n")

    def test_a_rate_holds(self):
        began = time.monotonic()
        self.ends(local("send", "A", "--rate", "200", "--count", "101"), 0, "sent 101\n")
        self.assertGreater(time.monotonic() - began, 0.499)
        self.assertLess(time.monotonic() - began, 5)

    def test_ends_in_order_at_a_signal_whatever_it_waits_for(self):
        for words, said in [(["listen", "A"], b"listening on A\n"),
                            (["answer", "A"], b"listening on A\n"),
                            (["bench", "listen", "--seconds", "60"], b"listening on PELMOBUS.BENCH\n"),
                            (["send", "A", "--lines"], b""),
                            (["send", "A", "--count=2", "--rate=0.001"], b""),
                            (["request", "A"], b"")]:
            for number in (signal.SIGINT, signal.SIGTERM):
                with self.subTest(words, number=number):
                    process = start(*words, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
                    self.assertEqual(process.stderr.read(len(said)), said)
                    # What tells nothing once it stands has its handlers soon.
                    while not said and not self.catches(process.pid, number):
                        pass
                    process.send_signal(number)
                    process.communicate(timeout=30)
                    self.assertEqual(process.returncode, 0)

    @staticmethod
    def catches(pid, number):
        with open("/proc/%d/status" % pid, encoding="ascii") as f:
            caught = int(re.search(r"SigCgt:\s*([0-9a-f]+)", f.read()).group(1), 16)
        return caught >> (number - 1) & 1

    def test_output_that_can_not_be_written(self):
        for words in (["--help"], ["--local", "bench", "send", "--count", "10"]):
            with open("/dev/full", "w", encoding="ascii") as full:
                result = subprocess.run([PROGRAM, *words], stdout=full, stderr=subprocess.PIPE,
                                        timeout=60)
            self.assertEqual(result.returncode, 1)
            self.assertIn(b"IO operation failed (74)", result.stderr)
            reader, writer = os.pipe()
            os.close(reader)
            result = subprocess.run([PROGRAM, *words], stdout=writer, stderr=subprocess.PIPE, timeout=60)
            os.close(writer)
            self.assertEqual(result.returncode, 1)
            self.assertIn(b"IO operation failed (74)", result.stderr)
        result = subprocess.run(["sh", "-c", '"$0" --version >&-', PROGRAM], stderr=subprocess.PIPE,
                                timeout=60)
        self.assertEqual(result.returncode, 1)

    def test_benchmarks_count_what_they_send(self):
        rate = r"%s: 5000 messages, %d bytes in [0-9.]+ s: \d+ messages/s, \d+ bytes/s\n"
        sent = rate % ("sent", 5000 * 115)
        received = rate % ("received", 5000 * 115)
        amount = ["--count", "5000", "--size", "100"]
        self.ends(local("bench", "send", *amount), 0, "", "^%s%s$" % (sent, received))
        self.ends(local("bench", "listen", *amount), 0, None, "^%s$" % received)
        self.ends(local("bench", "request", "X", "--count", "500"), 0, "",
                  r"^answered: 500 requests in [0-9.]+ s: \d+ requests/s\n"
                  r"latency: min [0-9.]+ us, median [0-9.]+ us, 99% [0-9.]+ us, 99.9% [0-9.]+ us, "
                  r"max [0-9.]+ us\n$")
        self.ends(local("bench", "send", "--seconds=0.05", "--count=1000000", "--rate=100"), 3, "")


if __name__ == "__main__":
    PROGRAM = sys.argv.pop(1)
    unittest.main()
