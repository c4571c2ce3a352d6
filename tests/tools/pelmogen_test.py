"""Behaviour of pelmogen.

What a packet is made of is judged by the tool, which complains of each fault, and by the samples to the
byte; here is what neither knows: who sends, when, and in which file.
"""

import pathlib
import struct
import sys
from collections import Counter, namedtuple

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, binary, main, packets, run  # noqa: E402

PELMOGEN, SAMPLES = binary("pelmogen"), ROOT / "samples"

DATA, NULL = 1, 4
Packet = namedtuple("Packet", "kind src dst dst_port")


def read_packet(frame):
    """Its kind is None where it isn't the bus's."""
    kind, = struct.unpack_from(">H", frame, 58) if frame[42:46] == b"\x88\xfa\x69\x23" else (None,)
    return Packet(kind, *struct.unpack_from(">II2xH", frame, 26))


class Generator(ProgramCase):
    def setUp(self):
        self.scratch = self.folder / self.id()
        self.scratch.mkdir()
        self.path = self.scratch / "out.pcap"

    def run_it(self, *options):
        return run(PELMOGEN, *" ".join(options).split(), text=True, cwd=self.scratch)

    def made(self, *options):
        done = self.run_it(f"--out {self.path}", *options)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        return self.path.read_bytes()

    def records(self, *options):
        self.made(*options)
        return packets.frames_of(self.path)

    def packets(self, *options):
        return [read_packet(frame) for _, _, frame in self.records(*options)]

    def complaints(self, *options):
        """What the tool finds wrong, a line each, and its report."""
        self.made(*options)
        done = run(binary("pelmoscope"), "-r", self.path, "-complain", "-hostmsgs", text=True, errors="replace")
        self.assertEqual(done.returncode, 0)
        return [line for line in done.stderr.splitlines() if " from 10." in line], done.stdout

    def test_samples_are_what_the_generator_makes(self):
        self.assertEqual(run(SAMPLES / "make.sh", PELMOGEN, self.scratch).returncode, 0)
        made = sorted(self.scratch.iterdir())
        self.assertEqual([path.name for path in made],
                         sorted(path.name for path in SAMPLES.glob("*.pcap")))
        for path in made:
            self.assertTrue(path.read_bytes() == (SAMPLES / path.name).read_bytes(), path.name)
        self.assertFalse(self.made("--seed 5") == self.made("--seed 6"))

    def test_the_tool_finds_faults_where_there_is_damage_and_nowhere_else(self):
        lines, report = self.complaints("--mix --unknowns 0 --damaged 0 --hosts 20 --host-status 0.1 --count 10000")
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
                   if packet.kind == DATA}
        self.assertEqual(len(senders), 3)

    def test_the_mix_is_uneven(self):
        packets = [packet for packet in self.packets("--mix --count 20000 --damaged 0 --subjects 400")
                   if packet.kind in (DATA, NULL)]
        hosts = Counter(packet.src for packet in packets)
        self.assertEqual(len({packet[2:] for packet in packets}), 96)
        self.assertEqual(len(hosts), 200)
        self.assertGreater(hosts.most_common(20)[-1][1], 3 * hosts.most_common(180)[-1][1])

    def test_round_robin_takes_each_host_in_turn(self):
        nulls = self.packets("--hosts 500 --count 500 --nulls 1 --round-robin")
        self.assertEqual(len({packet.src for packet in nulls}), 500)

    def test_a_snap_length_bounds_what_is_kept(self):
        self.assertEqual({len(frame) for _, _, frame in self.records("--snaplen 96")}, {96})

    def test_the_clock_jumps_both_ways(self):
        times = [nanoseconds // 10**9 for nanoseconds, _, _ in self.records(
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
            done = self.run_it(options)
            self.assertEqual((done.returncode, done.stdout), (2, ""), options)
            self.assertIn("pelmogen: ", done.stderr)

    def test_a_capture_is_complete_or_not_there(self):
        (self.scratch / "taken.part").mkdir()
        for target in ("/dev/full", f"{self.scratch}/none/x", f"{self.scratch}/taken"):
            self.assertEqual(self.run_it(f"--out {target}").returncode, 1)
        limited = run("sh", "-c", 'trap "" XFSZ; ulimit -f 100; exec "$@"', "sh", PELMOGEN, "--out", self.path,
                      "--count", "10000", text=True)
        self.assertEqual(limited.returncode, 1)
        self.assertIn("File too large", limited.stderr)
        self.assertEqual([path.name for path in self.scratch.iterdir()], ["taken.part"])


if __name__ == "__main__":
    main()
