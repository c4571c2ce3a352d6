"""pelmowatch report. The oracle is pelmowatch json."""

import json
import math
import os
import pathlib
import re
import signal
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import (HOSTILE_SUBJECTS, MIX, ROOT, ProgramCase, binary, catches, main, messages, run,  # noqa: E402
                          schema, wait_until)

WATCH = binary("pelmowatch")
PLACES = {"port", "group", "subject", "sender", "host", "scid", "service_port", "reliability_seconds", "senders"}


def sums(rows, *keys):
    """Rows with the same keys as one, by these keys."""
    found = {}
    for row in rows:
        sum_ = found.setdefault(tuple(row[key] for key in keys), {})
        for name in row.keys() - PLACES:
            sum_[name] = sum_.get(name, 0) + row[name]
    return found


def key_of(row):
    return tuple(row[name] for name in ("table", "port", "group", "subject", "sender", "scid") if name in row)


class Report(ProgramCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.mix = cls.generate("mix.pcap", *MIX)

    def report(self, capture, *options):
        page = self.folder / "out.html"
        done = run(WATCH, "report", "-r", capture, "-o", page, *options)
        self.assertEqual((done.returncode, done.stderr, done.stdout), (0, b"", b""))
        found = re.findall(r'<script type="application/json"[^>]*>(.*?)</script>', page.read_text("utf-8"), re.S)
        self.assertEqual(len(found), 1)
        self.assertNotIn("<", found[0])
        data = json.loads(found[0])
        schema("pelmowatch-report").validate(data)
        return data

    def json_of(self, capture, *options):
        done = run(WATCH, "json", "-r", capture, "--senders", "--since-start", *options)
        return [json.loads(line) for line in done.stdout.splitlines()]

    def check_tables(self, tables, whole):
        pairs = [{**row, **sender} for row in whole["subjects"] for sender in row["senders"]]
        subject, place = ("port", "group", "subject"), ("sender", "scid")
        for table, rows, keys, is_all in (
                ("subjects", whole["subjects"], subject, True), ("subject_senders", pairs, (*subject, *place), True),
                ("senders", pairs, place, False), ("senders", whole["multicast"], place, False),
                ("groups", whole["multicast"], ("port", "group"), False)):
            found, wanted = (sums(part, *keys) for part in (tables[table]["rows"], rows))
            self.assertEqual(len(found), tables[table]["row_count"])
            self.assertTrue(not is_all or found.keys() == wanted.keys(), table)
            for key, numbers in wanted.items():
                self.assertEqual({name: found[key][name] for name in numbers}, numbers)
        for table in ("retransmission", "point_to_point"):
            self.assertCountEqual(tables[table]["rows"], whole[table])

    def test_every_number_is_that_of_json(self):
        for capture in (ROOT / "samples/bus.pcap", self.mix):
            with self.subTest(capture=capture.name):
                data = self.report(capture, "--senders")
                self.assertGreater(data["tables"]["subject_senders"]["row_count"], 10)
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

    def compare(self, *arguments):
        done = run(WATCH, "compare", *arguments)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return self.sound_lines(done.stdout, "pelmowatch-compare")

    def test_a_comparison_has_the_numbers_of_both_captures(self):
        other = self.generate("other.pcap", *MIX, "--seed", "2", "--count", "9000")
        head, *rows = self.compare("-r", self.mix, "--against", other, "--all")
        wanted = {}
        for name, capture in (("before", other), ("now", self.mix)):
            one = self.report(capture)
            self.assertEqual(head[name]["messages"], one["totals"]["subjects"]["messages"])
            self.assertEqual(head[name]["begin_time"], one["capture"]["begin_time"])
            for table in ("subjects", "senders", "groups"):
                for row in one["tables"][table]["rows"]:
                    wanted.setdefault(key_of({"table": table, **row}), {})[name] = row["messages"], row["message_bytes"]
        found, changes = {}, {}
        for row in rows:
            both = {name: row[name] for name in ("before", "now") if row[name]}
            found[key_of(row)] = {name: (side["messages"], side["message_bytes"]) for name, side in both.items()}
            word = "same" if len(both) == 2 else "came" if "now" in both else "went"
            if len(both) == 2 and both["before"]["messages"] and both["now"]["messages"]:
                ratio = max((math.log(both["now"][name] / both["before"][name])
                             for name in ("messages_per_second", "message_bytes_per_second")), key=abs)
                word = "same" if abs(ratio) < math.log(1.25) else "grew" if ratio > 0 else "shrank"
            self.assertEqual(row["change"], word)
            counts = changes.setdefault(row["table"], dict.fromkeys(("same", "came", "went", "grew", "shrank"), 0))
            counts[word] += 1
        self.assertEqual(head["changes"], changes)
        self.assertEqual(found, wanted)
        self.assertEqual(self.compare("-r", self.mix, "--against", other)[1:], [row for row in rows if row["change"] != "same"])

        data = self.report(self.mix, "--against", other)
        self.assertEqual({name: data["comparison"][name] for name in head.keys() - {"table"}},
                         {name: head[name] for name in head.keys() - {"table"}})
        self.assertEqual([{"table": table, **row} for table in ("subjects", "senders", "groups")
                          for row in data["comparison"][table]], rows)
        del data["comparison"]
        self.assertEqual(data, one)  # the first of two leaves nothing in the second

    def test_silence_is_drawn_as_such(self):
        times = [1700000000 + 0.5 * number for number in range(60)] + [1700003630.2 + 0.5 * number for number in range(60)]
        lines = [line for time in times for line in ("at %.1f" % time, "null")]
        data = self.report(self.capture_of("silence.pcap", *lines))
        timeline = data["timeline"]
        nulls = timeline["series"]["multicast"]["null_packets"]
        self.assertEqual(timeline["interval_seconds"], 2)
        self.assertEqual((sum(nulls), sum(nulls[:15]), sum(nulls[15:1815]), sum(nulls[1815:])), (120, 60, 0, 60))
        self.assertEqual(timeline["elapsed_seconds"], [2] * 1829 + [1.7])
        self.assertEqual((data["capture"]["elapsed_seconds"], data["capture"]["skipped_seconds"]), (3659.7, 3600))
        data = self.report(self.capture_of("back.pcap", "at 1700000100", "null", "at 1700000100.5", "null",
                                           "at 1700000010", "null"))
        self.assertEqual([data["capture"][name][11:21] for name in ("begin_time", "end_time")], ["22:13:30.0", "22:15:00.5"])
        back = data["timeline"]
        self.assertEqual([time for time, count in zip(back["times"], back["series"]["multicast"]["null_packets"]) if count],
                         [1700000011, 1700000100.5])

    def test_two_times_of_one_capture_are_compared(self):
        begin, middle = "2023-11-14T22:13:24Z", "2023-11-14T22:13:23.999999Z"
        parts = [self.folder / name for name in ("part1.pcap", "part2.pcap")]
        for option, part in zip(("-B", "-A"), parts):
            subprocess.run(["editcap", "-F", "pcap", option, "1700000004", self.mix, part], check=True,
                           env={**os.environ, "TZ": "UTC"})
        head, *rows = self.compare("-r", self.mix, "--from", begin, "--against-to", middle)
        wanted, *rest = self.compare("-r", parts[1], "--against", parts[0])
        self.assertEqual(rows, rest)
        self.assertEqual(head["changes"], wanted["changes"])
        for arguments, status in ((("-r", "-", "--against-from", "14:00"), 2), (("-r", self.mix), 2),
                                  (("-r", self.mix, "--against", self.mix, "--factor", "1"), 2),
                                  (("-r", self.mix, "--against", self.folder / "none.pcap"), 1)):
            done = run(WATCH, "compare", *arguments)
            self.assertEqual((done.returncode, done.stdout), (status, b""), arguments)

    def test_the_largest_of_many_and_the_sums_of_all(self):
        capture = self.generate("many.pcap", "--count", "60000", "--subjects", "50000", "--hosts", "5000",
                                "--payload", "100-900", "--subject-skew", "2", "--seconds", "3000", "--rate", "20")
        data = self.report(capture)
        whole = self.json_of(capture, "-u", 4000)[-1]["since_start"]
        table = data["tables"]["subjects"]
        self.assertEqual(table["row_count"], len(whole["subjects"]))
        self.assertEqual(table["sums"], whole["totals"]["subjects"])
        for measure in ("messages", "message_bytes"):
            largest = [sorted((row[measure] for row in rows), reverse=True)[:1000]
                       for rows in (table["rows"], whole["subjects"])]
            self.assertEqual(*largest)
        # Each listed subject and sender leads to its largest pair, however small that is.
        pairs = self.report(capture, "--senders")["tables"]["subject_senders"]["rows"]
        for place, keys in (("subjects", ("port", "group", "subject")), ("senders", ("sender", "scid"))):
            listed = {tuple(row[key] for key in keys) for row in data["tables"][place]["rows"]}
            self.assertLessEqual(listed, {tuple(row[key] for key in keys) for row in pairs})
        self.assertLess(len(pairs), 20000)
        # More intervals than the page has points.
        self.assertEqual(sum(data["timeline"]["series"]["subjects"]["messages"]), whole["totals"]["subjects"]["messages"])

    def test_texts_of_the_bus_stay_texts(self):
        capture = self.capture_of("hostile.pcap", *messages(HOSTILE_SUBJECTS))
        found = {row["subject"] for row in self.report(capture)["tables"]["subjects"]["rows"]}
        self.assertEqual(found, set(HOSTILE_SUBJECTS.values()))

    def test_a_page_that_cannot_be_written_leaves_the_old_one(self):
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
                done = run(WATCH, "report", *arguments)
                self.assertEqual(done.returncode, status)
                self.assertIn(words, done.stderr)
        with open(self.mix, "rb") as stream:
            self.assertEqual(run(WATCH, "report", "-r", "-", "-o", self.mix, stdin=stream).returncode, 2)
        self.assertEqual(self.mix.read_bytes(), capture)

        # A run that is cut off.
        process = self.start(WATCH, "report", "-r", "-", "-o", page, stdin=self.fed(self.mix.read_bytes()[:20000]),
                             stderr=subprocess.DEVNULL)
        wait_until(lambda: catches(process.popen.pid), "its handler")
        self.ends_at_signal(process, 1, signal.SIGINT)
        self.assertEqual([path.name for path in self.folder.iterdir() if ".part" in path.name], [])
        self.assertEqual(page.read_text(), "old")


if __name__ == "__main__":
    main()
