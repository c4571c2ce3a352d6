"""pelmowatch json on saved captures."""

import collections
import os
import pathlib
import pty
import signal
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import HOSTILE_SUBJECTS, MIX, ROOT, ProgramCase, binary, main, messages, run  # noqa: E402

from live_run import read_reports  # noqa: E402

WATCH = binary("pelmowatch")
TABLES = ("multicast", "retransmission", "point_to_point", "subjects")
# The tool's columns.
MULTICAST = ("data_packets", "payload_bytes", "null_packets", "repeated_packets", "repeated_bytes", "missed_packets",
             "bad_packets")
RETRANSMISSION = ("requests", "requested_packets", "rejects", "bad_packets")
POINT_TO_POINT = ("data_packets", "payload_bytes", "acknowledgement_requests", "acknowledgements", "loss_reports",
                  "bad_packets")
SUBJECTS = ("messages", "message_bytes")


def at(seconds):
    return "2023-11-14T22:13:%s0000000Z" % seconds


def tool_rows(snapshot):
    """The numbers of a Snapshot by the rows and columns that the tool shows."""
    rows, totals = collections.Counter(), snapshot["totals"]

    def add(table, numbers, names, *words, suffix=""):
        key = " ".join("-" if word is None else str(word) for word in words)
        rows.update({(table, key, column): numbers[name + suffix] for column, name in enumerate(names)})

    for table, name, names in (("mcast", "multicast", MULTICAST), ("subject", "subjects", SUBJECTS)):
        add(table, totals[name], names, "totals")
        for row in snapshot[name]:
            add(table, row, names, row["port"], row["group"], *(row[name] for name in ("subject",) if name in row))
            for sender in row.get("senders", (row,)):
                add(table, sender, names, sender["sender"], sender["scid"])
    for table, name, names in (("retrans", "retransmission", RETRANSMISSION),
                               ("ptp", "point_to_point", POINT_TO_POINT)):
        add(table, totals[name], names, "totals", suffix="_sent")
        shows = [each + "_sent" for each in names] + ["bad_packets_received"] * (table == "retrans")
        ports = {row["port"] for row in snapshot[name] if any(row[each] for each in shows)}
        for row in (row for row in snapshot[name] if row["port"] in ports):
            for way in ("received", "sent"):
                add(table, row, names, row["host"], row["scid"], way, suffix="_" + way)
    return {row: number for row, number in rows.items() if number}


class Json(ProgramCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.mix, cls.mix2 = (cls.generate("mix%d.pcap" % seed, *MIX, "--seed", str(seed)) for seed in (1, 2))

    def read(self, capture, *options):
        done = run(WATCH, "json", "-r", capture, *options)
        self.assertEqual((done.returncode, done.stderr), (0, b""))
        return self.sound_lines(done.stdout, "pelmowatch")

    def test_every_number_is_the_tools(self):
        for capture in [*sorted((ROOT / "samples").glob("*.pcap")), self.mix, self.mix2]:
            for interval in (10, 0) if capture.name == "bus.pcap" else (2,):
                with self.subTest(capture=capture.name, interval=interval):
                    self.check_tables(capture, interval)
        self.check_tables(self.mix, 5, "-src", "10.0.0.1", "-dst", "10.0.0.2")

    def check_tables(self, capture, interval, *options):
        tool = run(binary("pelmoscope"), "-r", capture, "-u", interval, "-addrinfo", "-ptp", *options,
                   env={**os.environ, "TZ": "UTC"})
        self.assertEqual(tool.returncode, 0)
        wanted = [(report.time, report.elapsed, {row: number for row, number in report.rows.items() if number})
                  for report in read_reports(tool.stdout.decode())]
        found = [(one["time"][:19].replace("T", " "), float("%.1f" % one["elapsed_seconds"]), tool_rows(one))
                 for one in self.read(capture, "-u", interval, "--senders", *options)]
        self.assertEqual(len(found), len(wanted))
        for one, other in zip(found, wanted):
            self.assertEqual(one, other)
        self.assertGreater(len(wanted), 0)

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
        capture = self.capture_of(
            "faults.pcap",
            "at 1700000000", "null", "at 1700000001.5", "null ip@26=0000",  # no checksum
            "at 1700000003", "null src=0.0.0.0", "at 1700000004.25", "null src=255.255.255.255 dst=10.0.0.1",
            "frame 01005e", "frame 01005e010101 020000000001 0800 4500", "at 1700000030", "null ip@26=0000")
        first, *_, last = [snapshot["faults"] for snapshot in self.read(capture, "-filter", "len > 0")]
        def of(fault):
            return [fault[name] for name in ("packets", "first_time", "last_time", "first_frame", "last_frame", "last_sender")]
        self.assertEqual({kind: of(fault) for kind, fault in first.items()}, {
            "ethernet_header_cut": [1, at("24.25"), at("24.25"), 5, 5, None],
            "ip_header_cut": [1, at("24.25"), at("24.25"), 6, 6, None],
            "udp_checksum_missing": [1, at("21.50"), at("21.50"), 2, 2, "10.0.0.1"],
            "source_invalid": [2, at("23.00"), at("24.25"), 3, 4, "10.0.0.1"],
            "destination_invalid": [1, at("24.25"), at("24.25"), 4, 4, "10.0.0.1"]})
        self.assertEqual(of(last["udp_checksum_missing"]), [1, at("50.00"), at("50.00"), 7, 7, "10.0.0.1"])
        self.assertNotIn("first_file", last["udp_checksum_missing"])
        self.assertEqual(last["udp_checksum_missing"]["words"], "no UDP checksum")

    def test_each_kind_of_fault_is_counted_alone_and_once(self):
        rows = {
            "udp_header_cut": "null cut=27", "udp_length_too_large": "null ip@2=0014",
            "udp_checksum_missing": "null ip@26=0000", "udp_checksum_invalid": "null ip@51=09",
            "header_cut": "data says=24", "type_invalid": "type 2", "source_invalid": "null src=0.0.0.0",
            "destination_invalid": "null dst=10.0.0.9", "destination_mismatch": "ptp dst=10.0.0.9 *1",
            "length_invalid": "data bus@28=8000", "length_too_large": "data bus@28=0009",
            "message_header_cut": "data *7", "message_magic_invalid": "data 0000000000000000",
            "message_length_invalid": "data 000000079955eeaa", "message_length_too_large": "data 000000099955eeaa",
            "message_field_invalid": "data {09}", "message_subject_invalid": "data {(sub:2:78)}"}
        lines = ["at %.1f\n%s seq=%d" % (1700000000.5 + at, line, at + 1) for at, line in enumerate(rows.values())]
        found = self.read(self.capture_of("kinds.pcap", "at 1700000000", "null", *lines), "-u", "1")
        self.assertEqual([{kind: fault["packets"] for kind, fault in one["faults"].items()} for one in found],
                         [{kind: 1} for kind in rows])

    def test_intervals_are_those_of_the_packets_own_times(self):
        lines = [word for second in (0, 9, 3605, 3606, 3612, 100, 103) for word in ("at %d" % (1700000000 + second), "null")]
        names = ("elapsed_seconds", "skipped_seconds", "clock_step_seconds", "packets")
        self.assertEqual([[one.get(name) for name in names] for one in self.read(self.capture_of("hole.pcap", *lines), "-u", "10")],
                         [[10, None, None, 2], [10, 3590, None, 2], [2, None, None, 1], [3, None, -3512, 2]])

    def test_texts_are_safe_and_what_no_number_holds_is_null(self):
        capture = self.capture_of("subjects.pcap", *messages(HOSTILE_SUBJECTS))
        text = run(WATCH, "json", "-r", capture).stdout
        rows = self.sound_lines(text, "pelmowatch")[0]["subjects"]
        self.assertEqual(sorted(row["subject"] for row in rows), sorted(HOSTILE_SUBJECTS.values()))
        self.assertFalse([byte for byte in text if byte < 0x20 and byte != 0x0a or byte == 0x7f])
        for reliability, shown in (("0.5", 0.5), ("nan", None), ("inf", None), ("-inf", None)):
            capture = self.capture_of("reliability.pcap", "null r=" + reliability)
            self.assertEqual(self.read(capture)[0]["multicast"][0]["reliability_seconds"], shown)

    def test_a_bad_option_is_refused_in_one_line(self):
        whole = ("json", "-r", self.mix)
        for arguments, word in [
                ((), "FORM"), (("nosuch",), "nosuch"), (("json",), "-i and -r"), ((*whole, "-i", "lo"), "-i and -r"),
                ((*whole, "--nosuch"), "--nosuch"), (("json", "word", *whole[1:]), "word"),
                ((*whole, "--from", "noon"), "noon"), ((*whole, "-u", "-1"), "-u -1:"),
                ((*whole, "--interval=100000001"), "--interval 100000001:"),
                ((*whole, "-port", "nosuch"), "nosuch"), ((*whole, *["-port", "1"] * 3000), "filter")]:
            with self.subTest(arguments=arguments):
                done = run(WATCH, *arguments)
                self.assertEqual((done.returncode, done.stdout, done.stderr.count(b"\n")), (2, b"", 1))
                self.assertIn(word, done.stderr.decode())
        wanted = run(WATCH, *whole, "-u", "3", "-port", "7500", "-filter", "udp and port 7500").stdout
        self.assertEqual(run(WATCH, "json", "--read=%s" % self.mix, "-u3", "--port=7501", "--filter", "x",
                             "-filter=udp and port 7500").stdout, wanted)

    def test_a_run_that_is_cut_off_writes_whole_lines(self):
        """Its capture comes by a pipe that stays open: some output, and then nothing."""
        for form, number, name in (("json", signal.SIGINT, "pelmowatch"), ("json", signal.SIGTERM, "pelmowatch"),
                                   ("messages", signal.SIGTERM, "pelmo-messages")):
            with self.subTest(form=form, number=number):
                watch = self.start(WATCH, form, "-r", "-", *(("-u", "1") if form == "json" else ()),
                                   stdin=self.fed(self.mix.read_bytes()[:400000]), stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE)
                first = b""
                while b"\n" not in first:
                    first += os.read(watch.popen.stdout.fileno(), 65536)
                begin = time.monotonic()
                watch.popen.send_signal(number)
                rest, log = watch.popen.communicate(timeout=20)
                self.ended_within(begin, 1)
                self.assertEqual(watch.status(), 1)
                self.assertGreater(len(self.sound_lines(first + rest, name)), 1)
                self.assertIn(b"stopped before the end of -", log)

    def test_output_that_fails_ends_the_run(self):
        # A file keeps whole lines only, also of those that are written in pieces.
        many = self.generate("many.pcap", *MIX, "--subjects", "8000", "--count", "20000")
        self.assertGreater(max(map(len, run(WATCH, "json", "-r", many).stdout.splitlines())), 500000)
        limit = ("bash", "-c", 'ulimit -f 1000; exec "$@"', "bash")
        for form, what, name in (("json", b"a snapshot", "pelmowatch"), ("messages", b"messages", "pelmo-messages")):
            with self.subTest(form), open("/dev/full", "wb") as full, open(self.folder / form, "wb") as limited:
                done = run(WATCH, form, "-r", self.mix, stdout=full)
                self.assertEqual((done.returncode, done.stderr.count(b"\n")), (1, 1))
                self.assertIn(b"unable to write %s: No space left on device" % what, done.stderr)
                done = run(WATCH, form, "-r", self.mix, stdout=self.without_reader())
                self.assertEqual((done.returncode, done.stderr), (1, b""))
                done = run(*limit, WATCH, form, "-r", many, stdout=limited)
                self.assertEqual(done.returncode, 1)
                self.assertIn(b"File too large", done.stderr)
                self.assertGreater(len(self.sound_lines((self.folder / form).read_bytes(), name)), 0)

    def test_progress_is_for_a_terminal(self):
        ours, theirs = pty.openpty()
        watch = self.start(WATCH, "json", "-r", self.mix, "-u", "0", stdout=subprocess.PIPE, stderr=theirs)
        os.close(theirs)
        seen = b""
        while b"left" not in seen:  # the run waits for its reader meanwhile
            seen += os.read(ours, 1000)
        watch.popen.stdout.read()
        self.assertEqual(watch.status(), 0)
        seen += os.read(ours, 1000)
        self.assertRegex(seen.decode(), r"\d+%  [\d.]+ of [\d.]+ [kM]B  \d+:\d\d left")
        self.assertTrue(seen.endswith(b"\r\x1b[K"))
        os.close(ours)


if __name__ == "__main__":
    main()
