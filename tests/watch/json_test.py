"""pelmowatch json on saved captures: json_test.py PELMOSCOPE PELMOWATCH PELMOGEN [TEST ...]."""

import fcntl
import json
import os
import pathlib
import pty
import signal
import subprocess
import sys
import tempfile
import time
import unittest

import jsonschema

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "e2e"))

import compare  # noqa: E402
import packets  # noqa: E402
from hostile import SUBJECTS, subject_field  # noqa: E402

ROOT = HERE.parents[1]
TOOL, WATCH, PELMOGEN = (str(pathlib.Path(argument).resolve()) for argument in sys.argv[1:4])
SCHEMA = jsonschema.Draft202012Validator(json.loads((ROOT / "docs/pelmowatch.schema.json").read_text()))
MIX = """--mix --count 4000 --rate 400 --hosts 30 --nets 3 --ports 4 --subjects 300 --publishers 3 --scids 0.5
    --repeats 0.05 --gaps 0.05 --restarts 0.01 --damaged 0.1""".split()
TABLES = ("multicast", "retransmission", "point_to_point", "subjects")


def at(seconds):
    return "2023-11-14T22:13:%s0000000Z" % seconds


def run(*arguments, **more):
    return subprocess.run([WATCH, *map(str, arguments)], capture_output=True, timeout=60, check=False,
                          **{"stdin": subprocess.DEVNULL, **more})


class Json(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.scratch.name)
        for seed in (1, 2):
            subprocess.run([PELMOGEN, "--out", cls.folder / ("mix%d.pcap" % seed), *MIX, "--seed", str(seed)],
                           check=True, stdout=subprocess.DEVNULL)
        cls.mix = cls.folder / "mix1.pcap"

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def lines(self, text):
        """Each is whole, sound by the schema, and UTF-8."""
        self.assertTrue(text.endswith(b"\n"))
        found = [json.loads(line.decode("utf-8")) for line in text.splitlines()]
        left = 60000  # bytes: the validator is slow
        for line, sound in zip(text.splitlines(), found):
            if left > 0:
                SCHEMA.validate(sound)
            left -= len(line)
        return found

    def read(self, capture, *options):
        done = run("json", "-r", capture, *options)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return self.lines(done.stdout)

    def capture_of(self, name, text):
        path = self.folder / name
        path.write_bytes(packets.capture(text))
        return path

    def test_every_number_is_the_tools(self):
        captures = [*sorted((ROOT / "samples").glob("*.pcap")), *sorted(self.folder.glob("mix*.pcap"))]
        for capture in captures:
            for interval in (10, 0) if capture.name == "bus.pcap" else (2,):
                with self.subTest(capture=capture.name, interval=interval):
                    odd, count = compare.compare(TOOL, WATCH, str(capture), interval)
                    self.assertIsNone(odd)
                    self.assertGreater(count, 0)
        self.assertIsNone(compare.compare(TOOL, WATCH, str(self.mix), 5, "-src", "10.0.0.1", "-dst", "10.0.0.2")[0])

    def test_rows_are_those_of_the_objects(self):
        for options in (("-u", 4), ("-u", 4, "--senders", "--since-start")):
            objects, rows = self.read(self.mix, *options), self.read(self.mix, "--rows", *options)
            wanted = []
            for snapshot in objects:
                for scope, part in (("interval", snapshot), ("since_start", snapshot.pop("since_start", None))):
                    if not part:
                        continue
                    tables = {table: part.pop(table) for table in TABLES}
                    wanted.append({"table": "snapshot", "scope": scope, **part})
                    wanted += [{"table": table, "scope": scope, "time": part["time"], **row}
                               for table in TABLES for row in tables[table]]
            self.assertEqual(rows, wanted)

    def test_sums_since_the_start_are_those_of_all_intervals(self):
        snapshots = self.read(self.mix, "-u", "1", "--senders", "--since-start")
        whole = self.read(self.mix, "-u", "1000000", "--senders")[0]
        last = snapshots[-1]["since_start"]
        self.assertGreater(len(snapshots), 8)
        for name in ("frames", "packets", "bus_packets", "faults", "totals", "begin_time"):
            self.assertEqual(last[name], whole[name])
        for table in TABLES:
            # Service ports depend on what was shown before.
            for row in last[table] + whole[table]:
                row.pop("service_port", None)
            self.assertEqual(last[table], whole[table])

    def test_faults_are_counted_by_kind_with_their_packets_times(self):
        capture = self.capture_of("faults.pcap", "\n".join([
            "at 1700000000", "null", "at 1700000001.5", "null ip@26=0000",  # no checksum
            "at 1700000003", "null src=0.0.0.0", "at 1700000004.25", "null src=255.255.255.255 dst=10.0.0.1",
            "frame 01005e", "at 1700000030", "null ip@26=0000"]))
        first, *_, last = [snapshot["faults"] for snapshot in self.read(capture, "-filter", "len > 0")]
        self.assertEqual({kind: list(fault.values()) for kind, fault in first.items()}, {
            "ethernet_header_cut": [1, at("24.25"), at("24.25")],
            "udp_checksum_missing": [1, at("21.50"), at("21.50")],
            "source_invalid": [2, at("23.00"), at("24.25")],
            "destination_invalid": [1, at("24.25"), at("24.25")]})
        self.assertEqual(list(last["udp_checksum_missing"].values()), [1, at("50.00"), at("50.00")])

    def test_subjects_are_safe_text_and_never_the_same(self):
        payloads = ["data seq=%d {%s}" % (seq, subject_field(elements).hex())
                    for seq, elements in enumerate(SUBJECTS, 1)]
        capture = self.capture_of("subjects.pcap", "\n".join(payloads))
        text = run("json", "-r", capture).stdout
        rows = self.lines(text)[0]["subjects"]
        self.assertEqual(sorted(row["subject"] for row in rows), sorted(SUBJECTS.values()))
        self.assertFalse([byte for byte in text if byte < 0x20 and byte != 0x0a or byte == 0x7f])
        self.assertIsNone(compare.compare(TOOL, WATCH, str(capture), 10)[0])

    def test_what_no_number_holds_is_null(self):
        for told in ("nan", "inf", "-inf"):
            capture = self.capture_of("told.pcap", "null r=" + told)
            self.assertIsNone(self.read(capture)[0]["multicast"][0]["reliability_seconds"], told)

    def test_a_bad_option_is_told_in_one_line(self):
        whole = ("-r", self.mix)
        cases = [((), "FORM"), (("nosuch",), "nosuch"), (("json",), "-i and -r"),
                 (("json", "-i", "lo", *whole), "-i and -r"), (("json", "--nosuch", *whole), "--nosuch"),
                 (("json", "word", *whole), "word"), (("json", *whole, "--from", "noon"), "noon"), (("json", *whole, "-u"), "-u:"),
                 (("json", *whole, "--rows=5"), "--rows=5"),
                 (("json", *whole, "-u", "x"), "-u x:"), (("json", *whole, "-u", "-1"), "-u -1:"),
                 (("json", *whole, "--interval=100000001"), "--interval 100000001:"),
                 (("json", *whole, "-filter", "nonsense 7"), "nonsense 7"),
                 (("json", *whole, "-filter", "-port"), "--filter -port:"),  # a value, whatever it looks like
                 (("json", *whole, "-port", "nosuch"), "nosuch"), (("json", *whole, *["-port", "1"] * 3000), "filter")]
        for arguments, word in cases:
            with self.subTest(arguments=arguments):
                done = run(*arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr.count(b"\n")), (2, b"", 1))
                self.assertIn(word, done.stderr.decode())

    def test_old_names_and_long_ones_are_the_same(self):
        wanted = run("json", "-r", self.mix, "-u", "3", "-port", "7500", "-filter", "udp and port 7500").stdout
        for arguments in (("--read=%s" % self.mix, "--interval=3", "--port=7501", "--filter=udp and port 7500"),
                          ("--read", self.mix, "-u3", "--filter", "x", "-filter=udp and port 7500")):
            self.assertEqual(run("json", *arguments).stdout, wanted)

    def test_a_run_that_is_cut_off_writes_whole_lines(self):
        """Its capture comes by a pipe that stays open: some Snapshots, and then nothing."""
        for number in (signal.SIGINT, signal.SIGTERM):
            with self.subTest(number=number):
                reader, writer = os.pipe()
                fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 1 << 20)
                os.write(writer, self.mix.read_bytes()[:400000])
                watch = subprocess.Popen([WATCH, "json", "-r", "-", "-u", "1"], stdin=reader,
                                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                os.close(reader)
                first = watch.stdout.readline()
                asked = time.monotonic()
                watch.send_signal(number)
                rest, log = watch.communicate(timeout=20)
                self.assertLess(time.monotonic() - asked, 1)
                os.close(writer)
                self.assertEqual(watch.returncode, 1)
                self.assertGreater(len(self.lines(first + rest)), 1)
                self.assertIn(b"stopped ahead of the end of -", log)

    def test_output_that_fails_ends_the_run(self):
        done = run("json", "-r", self.mix, "-u", "1", preexec_fn=lambda: os.dup2(os.open("/dev/full", os.O_WRONLY), 1))
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"unable to write a snapshot: No space left on device", done.stderr)

        reader, writer = os.pipe()
        os.close(reader)
        done = subprocess.run([WATCH, "json", "-r", self.mix], stdout=writer, stderr=subprocess.PIPE, check=False)
        os.close(writer)
        self.assertEqual((done.returncode, done.stderr), (1, b""))

        # A file keeps whole Snapshots only, also of those that are written in pieces.
        capture, path = self.folder / "many.pcap", self.folder / "limited"
        subprocess.run([PELMOGEN, "--out", capture, *MIX, "--subjects", "8000", "--count", "20000"], check=True,
                       stdout=subprocess.DEVNULL)
        self.assertGreater(max(map(len, run("json", "-r", capture).stdout.splitlines())), 500000)
        with open(path, "wb") as out:
            command = 'ulimit -f 1000; exec "$@"'
            done = subprocess.run(["bash", "-c", command, "bash", WATCH, "json", "-r", capture], stdout=out,
                                  stderr=subprocess.PIPE, check=False)
        self.assertEqual(done.returncode, 1)
        self.assertIn(b"File too large", done.stderr)
        self.assertGreater(len(self.lines(path.read_bytes())), 0)

    def test_progress_stands_on_a_terminal_and_nowhere_else(self):
        ours, theirs = pty.openpty()
        watch = subprocess.Popen([WATCH, "json", "-r", str(self.mix), "-u", "0"], stdout=subprocess.PIPE,
                                 stderr=theirs)
        os.close(theirs)
        seen = b""
        while b"left" not in seen:  # the run waits for its reader meanwhile
            seen += os.read(ours, 1000)
        watch.stdout.read()
        watch.stdout.close()
        self.assertEqual(watch.wait(20), 0)
        seen += os.read(ours, 1000)
        self.assertRegex(seen.decode(), r"\d+%  [\d.]+ of [\d.]+ [kM]B  \d+:\d\d left")
        self.assertTrue(seen.endswith(b"\r\x1b[K"))
        os.close(ours)


if __name__ == "__main__":
    del sys.argv[1:4]
    unittest.main()
