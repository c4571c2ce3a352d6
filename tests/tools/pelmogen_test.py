"""Behaviour of pelmogen: pelmogen_test.py PELMOGEN PELMOSCOPE SAMPLES.

What a packet is made of is judged by the tool, which complains of each fault; here stands what it
doesn't know: who sends what, how often, when, and in which file.
"""

import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest
from collections import Counter, namedtuple

PELMOGEN, PELMOSCOPE, SAMPLES = (pathlib.Path(path).resolve() for path in sys.argv[1:4])

KINDS = {1: "data", 3: "rreq", 4: "null", 5: "rrej",
         6: "ptp-data", 7: "ptp-ackme", 8: "ptp-ack", 9: "ptp-nak"}
MIX = """--nulls 0.1 --rreqs 0.05 --rrejs 0.04 --ptp-data 0.06 --ptp-ackmes 0.03 --ptp-acks 0.02
    --ptp-naks 0.02 --non-bus 0.04 --unknowns 0.01 --hosts 20 --nets 2 --ports 3 --subjects 240
    --publishers 2 --scids 0.5 --replies 0.2 --no-subject 0.1 --host-status 0.1 --messages 1-3
    --fields 0-8 --payload 100-1400 --fragments 0.05"""

Record = namedtuple("Record", "nanoseconds wire_bytes frame")
Packet = namedtuple("Packet", "kind src dst dst_port epoch seq fragment data subjects")


def read_capture(path):
    data = path.read_bytes()
    order, scale = {b"\xd4\xc3\xb2\xa1": ("<", 1000), b"\xa1\xb2\xc3\xd4": (">", 1000),
                    b"\x4d\x3c\xb2\xa1": ("<", 1), b"\xa1\xb2\x3c\x4d": (">", 1)}[data[:4]]
    records, at = [], 24
    while at < len(data):
        seconds, fraction, kept, wire = struct.unpack(order + "IIII", data[at:at + 16])
        records.append(Record(seconds * 10**9 + fraction * scale, wire,
                              data[at + 16:at + 16 + kept]))
        at += 16 + kept
    return records


def read_subjects(data):
    """Of whole messages; None for one without."""
    subjects, at = [], 0
    while at < len(data):
        size, = struct.unpack(">I", data[at:at + 4])
        has_one = data[at + 9:at + 13] == b"sub\0"
        end = at + 15 + struct.unpack(">H", data[at + 15:at + 17])[0]
        subjects.append(data[at + 18:end] if has_one else None)
        at += size
    return subjects


def read_packet(frame):
    src, dst = struct.unpack(">II", frame[26:34])
    dst_port, udp_bytes = struct.unpack(">HH", frame[36:40])
    payload = frame[42:34 + udp_bytes]
    if payload[:4] != b"\x88\xfa\x69\x23":
        return Packet("non-bus", src, dst, dst_port, 0, 0, 0, b"", [])
    epoch, _, number, _, seq = struct.unpack(">IIHHI", payload[8:24])
    kind = KINDS.get(number, "unknown")
    if kind != "data":
        return Packet(kind, src, dst, dst_port, epoch, seq, 0, b"", [])
    fragment, data = payload[31], payload[32:]
    subjects = read_subjects(data) if fragment == 0 else []
    return Packet(kind, src, dst, dst_port, epoch, seq, fragment, data, subjects)


class Generator(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)
        self.path = self.folder / "out.pcap"

    def run_it(self, *options):
        return subprocess.run([PELMOGEN, *" ".join(options).split()], capture_output=True,
                              text=True, check=False, cwd=self.folder)

    def generate(self, *options):
        run = self.run_it(f"--out {self.path}", *options)
        self.assertEqual((run.returncode, run.stderr), (0, ""))
        return self.path.read_bytes()

    def same(self, left, right, what=""):
        """Long lists: unittest's own comparison would take minutes to lay out a difference."""
        self.assertTrue(left == right, f"not the same: {what}")

    def records(self, *options):
        self.generate(*options)
        return read_capture(self.path)

    def packets(self, *options):
        return [read_packet(record.frame) for record in self.records(*options)]

    def complaints(self, *options):
        """What the tool finds wrong, a line each, and its report."""
        self.generate(*options)
        run = subprocess.run([PELMOSCOPE, "-r", self.path, "-complain", "-hostmsgs"], check=True,
                             capture_output=True, text=True, errors="replace")
        return [line for line in run.stderr.splitlines() if " from 10." in line], run.stdout

    def test_samples_are_what_the_generator_makes(self):
        subprocess.run([SAMPLES / "make.sh", PELMOGEN, self.folder], check=True)
        made = sorted(self.folder.iterdir())
        self.assertEqual([path.name for path in made],
                         sorted(path.name for path in SAMPLES.glob("*.pcap")))
        for path in made:
            self.same(path.read_bytes(), (SAMPLES / path.name).read_bytes(), path.name)
        self.assertFalse(self.generate("--seed 5") == self.generate("--seed 6"))

    def test_every_file_format_holds_the_same_packets(self):
        plain = self.records("--rate 7 --start 5.25")
        self.same(self.records("--rate 7 --start 5.25 --big-endian"), plain)
        nano = self.records("--rate 7 --start 5.25 --nano --big-endian")
        self.same([record.frame for record in nano], [record.frame for record in plain])
        self.same([record.nanoseconds for record in nano],
                  [5_250_000_000 + i * 10**9 // 7 for i in range(1000)])
        self.same([record.nanoseconds for record in plain],
                  [record.nanoseconds // 1000 * 1000 for record in nano])

    def test_the_tool_finds_faults_where_there_is_damage_and_nowhere_else(self):
        lines, report = self.complaints(MIX, "--unknowns 0 --count 10000")
        self.assertEqual(lines, [])
        self.assertIn("HOST.H19", report)
        self.assertNotIn("[NO ", report)
        names = self.run_it("--help").stdout.split("Damages: ")[1].strip().split(",")
        self.assertEqual(len(names), 14)
        for name in names:
            lines, _ = self.complaints(f"--damaged 1 --count 200 --damage {name}")
            self.assertTrue(len(lines) >= 200 or name == "magic", (name, len(lines)))

    def test_the_mix_shrinks_with_its_hosts(self):
        senders = {packet.src for packet in self.packets("--mix --count 2000 --hosts 3 --services 0")
                   if packet.kind == "data"}
        self.assertEqual(len(senders), 3)

    def test_the_mix_is_uneven_and_gaps_come_when_asked_for(self):
        packets = self.packets("--mix --count 20000 --gaps 0 --restarts 0 --damaged 0 --subjects 400")
        last, senders, counts, hosts = {}, {}, Counter(), Counter()
        for packet in packets:
            if packet.kind not in ("data", "null"):
                continue
            stream = (packet.dst, packet.dst_port, packet.src)
            step = 1 if packet.kind == "data" else 0
            self.assertLessEqual(packet.seq, last.get(stream, packet.seq - step) + step)
            last[stream] = max(packet.seq, last.get(stream, 0))
            hosts[packet.src] += 1
            counts[len(packet.subjects)] += 1
            for subject in packet.subjects:
                senders.setdefault((subject, *stream[:2]), set()).add(packet.src)
        self.assertEqual(len({stream[:2] for stream in last}), 96)
        self.assertEqual(len(hosts), 200)
        self.assertTrue(all(counts[n] > counts[n + 1] > 100 for n in range(1, 8)), counts)
        self.assertGreater(hosts.most_common(20)[-1][1], 3 * hosts.most_common(180)[-1][1])
        self.assertGreater(max(len(them) for them in senders.values()), 3)

    def test_round_robin_leaves_nobody_out(self):
        nulls = self.packets("--hosts 500 --count 500 --nulls 1 --round-robin")
        self.assertEqual(len({packet.src for packet in nulls}), 500)
        data = self.packets("--subjects 500 --count 500 --round-robin")
        self.assertEqual(len({packet.subjects[0] for packet in data}), 500)

    def test_cuts_leave_no_more_than_was_asked_for(self):
        self.assertTrue(all(len(record.frame) == record.wire_bytes - 1
                            for record in self.records("--cut 1 --cut-to 1500")))
        self.assertEqual({len(record.frame) for record in self.records("--snaplen 96")}, {96})

    def test_the_clock_jumps_both_ways(self):
        times = [record.nanoseconds // 10**9 for record in self.records(
            "--count 40 --rate 1 --start 100 --jump 10:-5.5 --jump 20:60.5")]
        self.assertEqual(times, [*range(100, 110), *range(104, 114), *range(175, 195)])

    def test_wrong_command_lines_are_refused(self):
        for options in ["", "--out", "--out x --bogus", "--out x --hosts 0", "--out x --hosts 1.",
                        "--out x --hosts 1000001", "--out x --nulls 1.1",
                        "--out x --nulls 0.0000001", "--out x --fields 6-3",
                        "--out x --types i32,i33", "--out x --nulls 0.6 --rreqs 0.6",
                        "--out x --publishers 11", "--out x --jump 5",
                        "--out x --jump 0:-1800000000", "--out x --mix --subjects 95",
                        "--out x --elements 40 --element-length 20",
                        "--out x --start 4294967295 --rate 9",
                        "--out x --loopback", "--interface x --loopback", "--loopback --cut 0.1",
                        "--out x --hosts 1000000 --nets 10000"]:
            run = self.run_it(options)
            self.assertEqual((run.returncode, run.stdout), (2, ""), options)
            self.assertIn("pelmogen: ", run.stderr)

    def test_a_capture_is_complete_or_not_there(self):
        (self.folder / "taken.part").mkdir()
        for target in ("/dev/full", f"{self.folder}/none/x", f"{self.folder}/taken"):
            self.assertEqual(self.run_it(f"--out {target}").returncode, 1)
        limited = subprocess.run(["sh", "-c", 'trap "" XFSZ; ulimit -f 100; exec "$@"', "sh",
                                  PELMOGEN, "--out", self.path, "--count", "10000"], check=False,
                                 capture_output=True, text=True)
        self.assertEqual(limited.returncode, 1)
        self.assertIn("File too large", limited.stderr)
        self.assertEqual([path.name for path in self.folder.iterdir()], ["taken.part"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
