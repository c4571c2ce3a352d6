"""Behaviour of pelmogen: pelmogen_test.py PELMOGEN SAMPLES."""

import pathlib
import subprocess
import sys
import tempfile
import unittest
from collections import Counter

from bus_reader import READERS, Fault, read_capture, read_enveloped, read_packet

PELMOGEN, SAMPLES = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])

MIX = """--nulls 0.1 --rreqs 0.05 --rrejs 0.04 --ptp-data 0.06 --ptp-ackmes 0.03 --ptp-acks 0.02
    --ptp-naks 0.02 --non-bus 0.04 --unknowns 0.01 --hosts 20 --nets 2 --ports 3 --subjects 240 --publishers 2
    --scids 0.5 --replies 0.2 --no-subject 0.1 --host-status 0.1 --messages 1-3 --fields 0-8
    --payload 100-1400 --fragments 0.05"""


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

    def test_options_alone_decide_the_bytes(self):
        first = self.generate(MIX, "--seed 5")
        self.same(first, self.generate(MIX, "--seed 5"))
        self.assertFalse(first == self.generate(MIX, "--seed 6"))

    def test_samples_are_what_the_generator_makes(self):
        subprocess.run([SAMPLES / "make.sh", PELMOGEN, self.folder], check=True)
        made = sorted(self.folder.iterdir())
        self.assertEqual([path.name for path in made],
                         sorted(path.name for path in SAMPLES.glob("*.pcap")))
        for path in made:
            self.same(path.read_bytes(), (SAMPLES / path.name).read_bytes(), path.name)
            self.assertLess(path.stat().st_size, 100_000)

    def test_every_file_format_holds_the_same_packets(self):
        plain = self.records("--rate 7 --start 5.25")
        self.same(self.records("--rate 7 --start 5.25 --big-endian"), plain)
        nano = self.records("--rate 7 --start 5.25 --nano --big-endian")
        self.same([record.frame for record in nano], [record.frame for record in plain])
        self.same([record.nanoseconds for record in nano],
                  [5_250_000_000 + i * 10**9 // 7 for i in range(1000)])
        self.same([record.nanoseconds for record in plain],
                  [record.nanoseconds // 1000 * 1000 for record in nano])

    def test_undamaged_packets_are_sound_to_the_last_field(self):
        packets = self.packets(MIX, "--count 10000")
        messages = [message for packet in packets if packet for message in packet.messages]
        codes = Counter(field.code for message in messages for field in message.fields)
        self.assertEqual(set(codes), set(READERS))
        self.assertTrue(any(field.id for message in messages for field in message.fields))
        self.assertGreater(len({message.subject for message in messages}), 240)

    def test_a_message_in_two_packets_is_whole_when_put_together(self):
        packets = self.packets("--fragments 0.5 --payload 64-400 --nulls 0.3")
        starts = [i for i, packet in enumerate(packets) if packet.fragment == 1]
        self.assertGreater(len(starts), 200)
        for i in starts[:-1]:
            begin, rest = packets[i:i + 2]
            self.assertEqual((rest.fragment, rest.seq, rest.port), (2, begin.seq + 1, begin.port))
            read_enveloped(begin.payload + rest.payload)

    def test_shares_are_kept(self):
        packets = self.packets(MIX, "--count 10000 --fragments 0")
        kinds = Counter(packet.kind if packet else "non-bus" for packet in packets)
        wanted = {"data": 0.63, "null": 0.1, "rreq": 0.05, "rrej": 0.04, "ptp-data": 0.06,
                  "ptp-ackme": 0.03, "ptp-ack": 0.02, "ptp-nak": 0.02, "non-bus": 0.04,
                  "unknown": 0.01}
        for kind, share in wanted.items():
            self.assertAlmostEqual(kinds[kind] / 10000, share, delta=0.01, msg=kind)
        data = [packet for packet in packets if packet and packet.kind == "data"]
        status = [packet for packet in data if len(packet.messages) == 1 and str(
            packet.messages[0].subject).startswith("_PM.INFO.SYSTEM.HOST.")]
        self.assertAlmostEqual(len(status) / len(data), 0.1, delta=0.02)
        scids = {(packet.src, packet.epoch >> 31) for packet in data}
        self.assertEqual(len(scids), 20)
        self.assertTrue(5 <= sum(scid for _, scid in scids) <= 15)

    def test_sequence_numbers_tell_of_repeats_gaps_and_restarts(self):
        packets = self.packets("--count 10000 --repeats 0.1 --gaps 0.05 --restarts 0.01 --ports 2")
        streams, seen = {}, Counter()
        for packet in packets:
            key = (packet.dst_port, packet.dst, packet.src)
            epoch, last = streams.get(key, (None, 0))
            if packet.epoch != epoch:
                seen["restart" if epoch is not None else "start"] += 1
                self.assertTrue(epoch is None or packet.seq == 1)
            elif packet.seq <= last:
                seen["repeat"] += 1
                continue
            elif packet.seq > last + 1:
                seen["gap"] += 1
                self.assertLessEqual(packet.seq - last - 1, 4)
            streams[key] = (packet.epoch, packet.seq)
        self.assertEqual(seen["start"], len(streams))
        for what, share in {"repeat": 0.1, "gap": 0.05, "restart": 0.01}.items():
            self.assertAlmostEqual(seen[what] / 10000, share, delta=0.01, msg=what)

    def test_the_mix_is_uneven_and_gaps_come_when_asked_for(self):
        packets = self.packets("--mix --count 20000 --gaps 0 --restarts 0 --damaged 0 --subjects 400")
        last, senders, counts, hosts = {}, {}, Counter(), Counter()
        for packet in packets:
            if packet is None or packet.kind not in ("data", "null"):
                continue
            stream = (packet.dst, packet.dst_port, packet.src)
            step = 1 if packet.kind == "data" else 0
            self.assertLessEqual(packet.seq, last.get(stream, packet.seq - step) + step)
            last[stream] = max(packet.seq, last.get(stream, 0))
            hosts[packet.src] += 1
            counts[len(packet.messages)] += 1
            for message in packet.messages:
                senders.setdefault((message.subject, packet.dst, packet.dst_port),
                                   set()).add(packet.src)
        self.assertEqual(len({stream[:2] for stream in last}), 96)
        self.assertEqual(len({stream[2] for stream in last}), 200)
        self.assertTrue(all(counts[n] > counts[n + 1] > 100 for n in range(1, 8)), counts)
        self.assertGreater(hosts.most_common(20)[-1][1], 3 * hosts.most_common(180)[-1][1])
        self.assertGreater(max(len(them) for them in senders.values()), 3)

    def test_each_subject_has_its_publishers_and_its_place(self):
        senders = {}
        for packet in self.packets("--hosts 7 --nets 2 --ports 2 --subjects 20 --publishers 2"):
            place = (packet.dst, packet.dst_port)
            senders.setdefault((packet.messages[0].subject, place), set()).add(packet.src)
        self.assertEqual(len(senders), 20)
        for (subject, place), hosts in senders.items():
            number = int("".join(filter(str.isdigit, subject)))
            self.assertEqual(hosts, {0x0A000001 + (number + k * 3) % 7 for k in range(2)})
            self.assertEqual(place, (0xEFFF0001 + number % 2, 7500 + number // 2 % 2))

    def test_round_robin_leaves_nobody_out(self):
        nulls = self.packets("--hosts 500 --count 500 --nulls 1 --round-robin")
        self.assertEqual(len({packet.src for packet in nulls}), 500)
        data = self.packets("--subjects 500 --count 500 --round-robin")
        self.assertEqual(len({packet.messages[0].subject for packet in data}), 500)

    def test_every_damage_does_harm(self):
        help_text = self.run_it("--help").stdout
        names = help_text.split("Damages: ")[1].strip().split(",")
        self.assertEqual(len(names), 14)
        for name in names:
            kinds = "" if name.startswith(("message", "field", "subject", "stray")) else MIX
            records = self.records(kinds, "--fragments 0 --no-subject 0 --non-bus 0 --damaged 1",
                                   f"--damage {name} --seed 9")
            for record in records:
                kind = record.frame[58:60]
                if name == "length" and kind not in (b"\0\1", b"\0\3", b"\0\6"):
                    continue  # nothing in it that could be spoilt
                try:
                    packet = read_packet(record.frame)
                    what = packet.kind if packet else "non-bus"
                    self.assertIn((name, what), [("magic", "non-bus"), ("type", "unknown"),
                                                 ("src", "unknown"), ("dst", "unknown")])
                except Fault:
                    pass

    def test_damage_and_cuts_come_in_the_share_asked_for(self):
        whole = self.records("--payload 300")
        damaged = self.records("--payload 300 --damaged 0.2 --damage checksum --cut 0.3",
                               "--cut-to 20-400")
        pairs = list(zip(whole, damaged))
        cut = [after for _, after in pairs if len(after.frame) < after.wire_bytes]
        self.assertAlmostEqual(len(cut) / 1000, 0.3, delta=0.05)
        self.assertTrue(all(20 <= len(record.frame) <= 341 for record in cut))
        self.assertTrue(all(len(record.frame) == record.wire_bytes - 1
                            for record in self.records("--cut 1 --cut-to 1500")))
        changed = [after for before, after in pairs
                   if before.frame[:len(after.frame)] != after.frame]
        self.assertAlmostEqual(len(changed) / 1000, 0.2, delta=0.05)
        self.assertEqual({len(record.frame) for record in self.records("--snaplen 96")}, {96})

    def test_the_clock_jumps_both_ways(self):
        times = [record.nanoseconds // 10**9 for record in self.records(
            "--count 40 --rate 1 --start 100 --jump 10:-5.5 --jump 20:60.5")]
        self.assertEqual(times[:10], list(range(100, 110)))
        self.assertEqual(times[10:20], list(range(104, 114)))
        self.assertEqual(times[20:], list(range(175, 195)))

    def test_wrong_command_lines_are_refused(self):
        for options in ["", "--out", "--out x --bogus", "--out x --hosts 0", "--out x --hosts 1.",
                        "--out x --hosts 1000001", "--out x --nulls 1.1", "--out x --nulls 0.0000001",
                        "--out x --fields 6-3",
                        "--out x --types i32,i33", "--out x --nulls 0.6 --rreqs 0.6",
                        "--out x --publishers 11", "--out x --jump 5",
                        "--out x --jump 0:-1800000000",
                        "--out x --elements 40 --element-length 20",
                        "--out x --start 4294967295 --rate 9",
                        "--out x --loopback", "--interface x --loopback", "--loopback --cut 0.1",
                        "--out x --hosts 1000000 --nets 10000"]:
            run = self.run_it(options)
            self.assertEqual((run.returncode, run.stdout), (2, ""), options)
            self.assertIn("pelmogen: ", run.stderr)

    def test_a_capture_is_complete_or_not_there(self):
        self.assertEqual(self.run_it("--out /dev/full").returncode, 1)
        self.assertEqual(self.run_it(f"--out {self.folder}/none/x").returncode, 1)
        (self.folder / "taken.part").mkdir()
        run = self.run_it(f"--out {self.folder}/taken")
        self.assertEqual(run.returncode, 1)
        self.assertIn("Is a directory", run.stderr)
        limited = subprocess.run(["sh", "-c", 'trap "" XFSZ; ulimit -f 100; exec "$@"', "sh",
                                  PELMOGEN, "--out", self.path, "--count", "10000"], check=False,
                                 capture_output=True, text=True)
        self.assertEqual(limited.returncode, 1)
        self.assertIn("File too large", limited.stderr)
        self.assertEqual([path.name for path in self.folder.iterdir()], ["taken.part"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
