"""The base of tests that run whole programs.

A driver takes its programs by name from the folder that PELMO_BIN names, as ctest sets it, and the names
of single tests as arguments:

    PELMO_BIN=build/test/bin python3 tests/watch/json_test.py Json.test_progress_is_for_a_terminal
"""

import fcntl
import functools
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests" / "e2e"), str(ROOT / "scripts")]

import packets  # noqa: E402
from bus_client import Client, Daemon  # noqa: E402
from live_run import Process, Tool, wait_until  # noqa: E402, F401

# A bus with a bit of everything.
MIX = """--mix --count 4000 --rate 400 --hosts 30 --nets 3 --ports 4 --subjects 300 --publishers 3 --scids 0.5
    --repeats 0.05 --gaps 0.05 --restarts 0.01 --damaged 0.1""".split()
# Subjects that break careless displays: their elements' bytes -> as text.
HOSTILE_SUBJECTS = {
    (b"PLAIN", b"TEXT"): "PLAIN.TEXT",
    (b'"', b"<&>"): '".<&>',
    (b"\\",): "\\\\",
    (b"A.B",): "A\\x2eB",
    (b"", b""): ".",
    (b"A\0B",): "A\\x00B",
    (b"\x01\x1b[2J\x7f\n",): "\\x01\\x1b[2J\\x7f\\x0a",
    ("ü€😀".encode(),): "ü€😀",
    (b"\xff\xc3", b"\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80"):
        "\\xff\\xc3.\\xc0\\x80\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80",
    ("\u0085\u202e\u2066\u200b\ufeff".encode(),):
        "\\xc2\\x85\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x80\\x8b\\xef\\xbb\\xbf",
    (b"\x02" * 250,): "\\x02" * 250,
    (b"\\x41", b"x"): "\\\\x41.x",
    (b'"', b"}\n", b"<script>alert(1)</script>"): '".}\\x0a.<script>alert(1)</script>',
    (b"\\n", b'\\"'): '\\\\n.\\\\"',
}


def binary(name):
    """The path of a program of the build."""
    folder = os.environ.get("PELMO_BIN")
    if folder is None:
        sys.exit("PELMO_BIN isn't set: it names the folder of the built programs")
    return pathlib.Path(folder).resolve() / name


def run(*command, **more):
    """What a program that ends by itself did: status, output and log as bytes."""
    usual = {"stdin": subprocess.DEVNULL, "stdout": subprocess.PIPE, "stderr": subprocess.PIPE, "timeout": 120}
    if "input" in more:
        del usual["stdin"]
    return subprocess.run([word if isinstance(word, bytes) else str(word) for word in command], check=False,
                          **{**usual, **more})


def messages(subjects):
    """Lines of packets.capture: a message on each subject, which may have any bytes."""
    lines = []
    for number, elements in enumerate(subjects, 1):
        body = b"".join(bytes([len(element) + 2]) + element + b"\0" for element in elements)
        field = packets.field("sub", 2, b"")[:6] + bytes([121]) + (len(body) + 3).to_bytes(2, "big") + \
            bytes([len(elements)]) + body
        lines.append("data seq=%d {%s}" % (number, field.hex()))
    return lines


@functools.cache
def schema(name):
    """The validator of docs/NAME.schema.json."""
    import jsonschema  # which not every driver needs
    return jsonschema.Draft202012Validator(json.loads((ROOT / "docs" / (name + ".schema.json")).read_text()))


def catches(pid, number=signal.SIGINT):
    """The process has a handler for the signal."""
    status = pathlib.Path("/proc/%d/status" % pid).read_text()
    return int(re.search(r"SigCgt:\s(\w+)", status)[1], 16) >> (number - 1) & 1


class ProgramCase(unittest.TestCase):
    """Has a scratch folder of its own, `folder`, which goes with the last test of the class."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))

    @classmethod
    def generate(cls, name, *options):
        subprocess.run([binary("pelmogen"), "--out", cls.folder / name, *options], check=True,
                       stdout=subprocess.DEVNULL)
        return cls.folder / name

    @classmethod
    def capture_of(cls, name, *lines):
        """A capture of packets that are written as packets.capture has them."""
        (cls.folder / name).write_bytes(packets.capture("\n".join(lines)))
        return cls.folder / name

    def started(self, process):
        """A live_run.Process, or what else has a `close`, which ends with the test."""
        self.addCleanup(process.close)
        return process

    def start(self, *command, **more):
        return self.started(Process(*command, **more))

    def fed(self, data):
        """The reading end of a pipe that holds the data and stays open."""
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 1 << 20)
        os.write(writer, data)
        for end in (reader, writer):
            self.addCleanup(os.close, end)
        return reader

    def without_reader(self):
        """The writing end of a pipe whose reader has gone."""
        reader, writer = os.pipe()
        os.close(reader)
        self.addCleanup(os.close, writer)
        return writer

    def sound_lines(self, text, name):
        """The objects of whole lines. The schema of that name checks the first 60,000 bytes: it is slow."""
        self.assertTrue(text.endswith(b"\n") or not text)
        found, checked = [], 0
        for line in text.splitlines():
            found.append(json.loads(line.decode("utf-8")))
            checked += len(line)
            if checked < 60000:
                schema(name).validate(found[-1])
        return found

    def daemon(self, *arguments, **more):
        return self.started(Daemon(binary("pmd"), *arguments, **more))

    def client(self, daemon, *subjects, **more):
        """A bus_client.Client that listens to these subjects and ends with the test."""
        client = self.started(Client(daemon.port, **more))
        if subjects:
            client.listen(*subjects)
        return client

    def ends_at_signal(self, process, status=0, number=signal.SIGTERM, seconds=1):
        """It ends with that status within some seconds and the time that this machine, which may be busy,
        takes for starting ten programs."""
        begin = time.monotonic()
        process.popen.send_signal(number)
        self.assertEqual(process.status(), status)
        self.ended_within(begin, seconds)

    def ended_within(self, begin, seconds):
        took = time.monotonic() - begin
        begin = time.monotonic()
        for _ in range(10):
            subprocess.run([sys.executable, "-S", "-c", ""], check=True)
        self.assertLess(took, seconds + time.monotonic() - begin)


def main():
    unittest.main()
