"""pelmowatch report: report_test.py PELMOWATCH PELMOGEN [TEST ...]. The oracle is pelmowatch json."""

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

import jsonschema

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "e2e"))

import packets  # noqa: E402
from hostile import SUBJECTS, subject_field  # noqa: E402

ROOT = HERE.parents[1]
WATCH, PELMOGEN = (str(pathlib.Path(argument).resolve()) for argument in sys.argv[1:3])
SCHEMA = jsonschema.Draft202012Validator(json.loads((ROOT / "docs/pelmowatch-report.schema.json").read_text()))
MIX = """--mix --count 4000 --rate 400 --hosts 30 --nets 3 --ports 4 --subjects 300 --publishers 3 --scids 0.5
    --repeats 0.05 --gaps 0.05 --restarts 0.01 --damaged 0.1""".split()
PLACES = {"port", "group", "subject", "sender", "host", "scid", "service_port", "reliability_seconds", "senders"}


def run(*arguments, **more):
    return subprocess.run([WATCH, *map(str, arguments)], capture_output=True, timeout=120, check=False,
                          **{"stdin": subprocess.DEVNULL, **more})


def sums(rows, *keys):
    """Rows with the same keys as one, by these keys."""
    found = {}
    for row in rows:
        sum_ = found.setdefault(tuple(row[key] for key in keys), {})
        for name, number in row.items():
            if name not in PLACES:
                sum_[name] = sum_.get(name, 0) + number
    return found


class Report(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.scratch.name)
        cls.mix = cls.generate("mix.pcap", *MIX)

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    @classmethod
    def generate(cls, name, *options):
        subprocess.run([PELMOGEN, "--out", cls.folder / name, *options], check=True, stdout=subprocess.DEVNULL)
        return cls.folder / name

    def data_of(self, page):
        text = page.read_text(encoding="utf-8")
        found = re.findall(r'<script type="application/json"[^>]*>(.*?)</script>', text, re.S)
        self.assertEqual(len(found), 1)
        self.assertNotIn("<", found[0])
        return json.loads(found[0])

    def report(self, capture, *options):
        page = self.folder / "out.html"
        done = run("report", "-r", capture, "-o", page, *options)
        self.assertEqual((done.returncode, done.stderr, done.stdout), (0, b"", b""))
        data = self.data_of(page)
        SCHEMA.validate(data)
        return data

    def json_of(self, capture, *options):
        done = run("json", "-r", capture, "--senders", "--since-start", *options)
        return [json.loads(line) for line in done.stdout.splitlines()]

    def check_tables(self, tables, whole):
        self.assertEqual(sums(tables["subjects"]["rows"], "port", "group", "subject"),
                         sums([{k: v for k, v in row.items() if k != "senders"} for row in whole["subjects"]],
                              "port", "group", "subject"))
        for table, keys in (("senders", ("sender", "scid")), ("groups", ("port", "group"))):
            found = sums(tables[table]["rows"], *keys)
            expected = sums(whole["multicast"], *keys)
            self.assertEqual(len(found), tables[table]["row_count"])
            for key, numbers in expected.items():
                self.assertEqual({name: found[key][name] for name in numbers}, numbers)
        published = sums([sender | {} for row in whole["subjects"] for sender in row["senders"]], "sender", "scid")
        for key, numbers in published.items():
            sender = sums(tables["senders"]["rows"], "sender", "scid")[key]
            self.assertEqual((sender["messages"], sender["message_bytes"]),
                             (numbers["messages"], numbers["message_bytes"]))
        for table in ("retransmission", "point_to_point"):
            self.assertCountEqual(tables[table]["rows"], whole[table])

    def test_every_number_is_that_of_json(self):
        for capture in [*sorted((ROOT / "samples").glob("*.pcap")), self.mix]:
            with self.subTest(capture=capture.name):
                data = self.report(capture)
                lines = self.json_of(capture, "-u", 1)
                whole = lines[-1]["since_start"]
                self.assertEqual(data["totals"], whole["totals"])
                self.assertEqual({key: fault["packets"] for key, fault in data["faults"].items()},
                                 {key: fault["packets"] for key, fault in whole["faults"].items()})
                for name in ("frames", "packets", "bus_packets", "begin_time", "read_bytes", "file_bytes"):
                    self.assertEqual(data["capture"][name], whole[name])
                self.assertTrue(data["capture"]["is_whole"])
                self.check_tables(data["tables"], whole)
                for table, series in data["timeline"]["series"].items():
                    for name, values in series.items():
                        if table != "faults":
                            self.assertEqual(values, [line["totals"][table][name] for line in lines])

    def test_the_largest_of_many_and_the_sums_of_all(self):
        capture = self.generate("many.pcap", "--count", "60000", "--subjects", "50000", "--hosts", "5000",
                                "--payload", "100-900", "--subject-skew", "2", "--seconds", "3000", "--rate", "20")
        begin = time.monotonic()
        data = self.report(capture)
        self.assertLess(time.monotonic() - begin, 30)
        whole = self.json_of(capture, "-u", 4000)[-1]["since_start"]
        table = data["tables"]["subjects"]
        self.assertEqual(table["row_count"], len(whole["subjects"]))
        self.assertEqual(table["sums"], whole["totals"]["subjects"])
        for measure in ("messages", "message_bytes"):
            expected = sorted((row[measure] for row in whole["subjects"]), reverse=True)[:1000]
            self.assertEqual(sorted((row[measure] for row in table["rows"]), reverse=True)[:1000], expected)
        # More intervals than the page has points.
        timeline = data["timeline"]
        self.assertEqual(timeline["interval_seconds"], 2)
        self.assertEqual(sum(timeline["series"]["subjects"]["messages"]), whole["totals"]["subjects"]["messages"])
        self.assertEqual(timeline["times"], sorted(timeline["times"]))

    def test_texts_of_the_bus_stay_texts(self):
        capture = self.folder / "hostile.pcap"
        payloads = ["data seq=%d {%s}" % (seq, subject_field(elements).hex())
                    for seq, elements in enumerate(SUBJECTS, 1)]
        capture.write_bytes(packets.capture("\n".join(payloads)))
        found = {row["subject"] for row in self.report(capture)["tables"]["subjects"]["rows"]}
        self.assertEqual(found, set(SUBJECTS.values()))

    def test_what_cannot_be_written_is_told_and_the_old_page_stays(self):
        page, link = self.folder / "old.html", self.folder / "link.pcap"
        page.write_text("old")
        link.hardlink_to(self.mix)
        capture = self.mix.read_bytes()
        for arguments, status, words in (
                (("-r", self.mix), 2, b"needs -o FILE"),
                (("-i", "lo", "-o", page), 2, b"needs -r FILE"),
                (("-r", self.mix, "-o", ""), 2, b"needs the name"),
                (("-r", self.mix, "-o", self.mix), 2, b"same file"),
                (("-r", self.mix, "-o", link), 2, b"same file"),
                (("-r", self.mix, "-o", self.folder / "none" / "x.html"), 1, b"No such file"),
                (("-r", self.mix, "-o", self.folder), 1, b"regular file"),
                (("-r", self.folder / "none.pcap", "-o", page), 1, b"none.pcap")):
            with self.subTest(arguments=arguments):
                done = run("report", *arguments)
                self.assertEqual(done.returncode, status)
                self.assertIn(words, done.stderr)
                self.assertEqual(page.read_text(), "old")
        with open(self.mix, "rb") as stream:
            self.assertEqual(run("report", "-r", "-", "-o", self.mix, stdin=stream).returncode, 2)
        self.assertEqual(self.mix.read_bytes(), capture)
        self.assertEqual([path.name for path in self.folder.iterdir() if ".part" in path.name], [])

    def test_a_run_that_is_cut_off_leaves_the_old_page(self):
        page = self.folder / "cut.html"
        page.write_text("old")
        reader, writer = os.pipe()
        os.write(writer, self.mix.read_bytes()[:20000])
        with subprocess.Popen([WATCH, "report", "-r", "-", "-o", str(page)], stdin=reader,
                              stderr=subprocess.PIPE) as process:
            os.close(reader)
            time.sleep(0.5)
            process.send_signal(signal.SIGINT)
            begin = time.monotonic()
            process.wait(5)
            self.assertLess(time.monotonic() - begin, 1.5)
            self.assertEqual(process.returncode, 1)
        self.assertEqual(list(self.folder.glob("*.part")), [])
        os.close(writer)
        self.assertEqual(page.read_text(), "old")


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]])
