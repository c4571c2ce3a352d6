"""Captures as people have them, one bus in many forms.

The oracle is pelmowatch json on the plain capture, which json_test.py holds against the tool.
"""

import json
import os
import pathlib
import re
import shutil
import signal
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, binary, catches, main, packets, run, wait_until  # noqa: E402

from served import Server  # noqa: E402

MIX = "--mix --count 3000 --rate 400 --hosts 30 --subjects 100 --nets 3 --publishers 3".split()
ETHERNET, RAW, LOOP, COOKED, COOKED2, NULL = 1, 101, 108, 113, 276, 0
MACS = b"\2" * 6 + b"\4" * 6


def pcap(path, link, frames, order="<", nano=False):
    with open(path, "wb") as out:
        out.write(struct.pack(order + "IHHiIII", 0xa1b23c4d if nano else 0xa1b2c3d4, 2, 4, 0, 0, 262144, link))
        for seconds, part, frame, *wire in frames:
            out.write(struct.pack(order + "IIII", seconds, part * 1000 if nano else part, len(frame),
                                  *wire or [len(frame)]) + frame)
    return path


def ip(protocol, payload):
    return MACS + b"\x08\0" + struct.pack(">BBHHHBBH8s", 0x45, 0, 20 + len(payload), 1, 0, 64, protocol, 0,
                                          b"\x0a\1\1\1\x0a\1\1\2") + payload


def udp(port, payload):
    return struct.pack(">HHHH", 5555, port, 8 + len(payload), 0) + payload


def tagged(*types):
    return lambda frame: frame[:12] + b"".join(struct.pack(">HH", each, 7) for each in types) + frame[12:]


# Name -> link type, and what the frame is in.
WRAPPED = {
    "802.1Q": (ETHERNET, tagged(0x8100)), "802.1ad": (ETHERNET, tagged(0x88a8, 0x8100)),
    "four tags": (ETHERNET, tagged(0x88a8, 0x8100, 0x8100, 0x8100)),
    "VXLAN": (ETHERNET, lambda frame: ip(17, udp(4789, b"\x08\0\0\0\0\0\5\0" + frame))),
    "VXLAN in a tag": (ETHERNET, lambda frame: tagged(0x8100)(ip(17, udp(4789, b"\x08\0\0\0\0\0\5\0" + frame)))),
    "GRE": (ETHERNET, lambda frame: ip(47, b"\0\0\x08\0" + frame[14:])),
    "NVGRE": (ETHERNET, lambda frame: ip(47, b"\x20\0\x65\x58\0\0\5\0" + frame)),
    "ERSPAN I": (ETHERNET, lambda frame: ip(47, b"\0\0\x88\xbe" + frame)),
    "ERSPAN II": (ETHERNET, lambda frame: ip(47, b"\x10\0\x88\xbe\0\0\0\1\x10\1\0\1\0\0\0\0" + frame)),
    "ERSPAN III": (ETHERNET, lambda frame: ip(47, b"\x10\0\x22\xeb\0\0\0\1\x20\1\0\1" + bytes(7) + b"\1" + bytes(8) + frame)),
    "MPLS": (ETHERNET, lambda frame: MACS + b"\x88\x47\0\1\0\x40\0\2\1\x40" + frame[14:]),
    "MPLS with Ethernet": (ETHERNET, lambda frame: MACS + b"\x88\x47\0\2\1\x40\0\0\0\0" + frame),
    "raw": (RAW, lambda frame: frame[14:]), "loop": (LOOP, lambda frame: b"\0\0\0\2" + frame[14:]),
    "null": (NULL, lambda frame: b"\2\0\0\0" + frame[14:]), "null, swapped": (NULL, lambda frame: b"\0\0\0\2" + frame[14:]),
    "cooked": (COOKED, lambda frame: b"\0\0\0\1\0\6" + b"\2" * 8 + frame[12:]),
    "cooked v2": (COOKED2, lambda frame: frame[12:14] + b"\0\0\0\0\0\2\0\1\0\6" + b"\2" * 8 + frame[14:]),
}
# Interfaces of a pcapng file: the encapsulation, the resolution of the clock as its option has it (10^-6 without one,
# 2^-20 at the end), and what the clock leaves out, in seconds.
INTERFACES = (("802.1Q", None, 0), ("raw", 9, 0), ("cooked v2", 0x94, 0), ("VXLAN", 7, 1600000000), ("null", 6, -5000))
PACKERS = (("gzip", "-c"), ("zstd", "-qc"), ("xz", "-c"), ("bzip2", "-c"), ("lz4", "-qc"))


def pcapng(path, sections):
    """Each section is a byte order and frames, which take turns at the interfaces and at two kinds of packet block."""
    with open(path, "wb") as out:
        for order, frames in sections:
            def block(kind, body):
                body += bytes(-len(body) % 4)
                size = struct.pack(order + "I", len(body) + 12)
                out.write(struct.pack(order + "I", kind) + size + body + size)

            block(0x0a0d0d0a, struct.pack(order + "IHHq", 0x1a2b3c4d, 1, 0, -1))
            for name, resolution, offset in INTERFACES:
                options = struct.pack(order + "HHBxxx", 9, 1, resolution) if resolution is not None else b""
                options += struct.pack(order + "HHq", 14, 8, offset) if offset else b""
                block(1, struct.pack(order + "HHI", WRAPPED[name][0], 0, 0) + options)
            block(5, bytes(12))  # statistics, which aren't read
            for at, (seconds, micros, frame) in enumerate(frames):
                number = at % len(INTERFACES)
                name, resolution, offset = INTERFACES[number]
                resolution = 6 if resolution is None else resolution
                ticks = 2 ** (resolution & 0x7f) if resolution & 0x80 else 10 ** resolution
                stamp = -(-((seconds - offset) * 10 ** 6 + micros) * ticks // 10 ** 6)
                inside = WRAPPED[name][1](frame)
                sizes = struct.pack(order + "IIII", stamp >> 32, stamp & 0xffffffff, len(inside), len(inside))
                old = at % 3 == 0
                block(2 if old else 6, struct.pack(order + ("HH" if old else "I"), *(number, 0) if old else (number,)) +
                      sizes + inside)
    return path


class Captures(ProgramCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.plain = cls.generate("plain.pcap", *MIX)
        cls.frames = [(*divmod(time // 1000, 10**6), frame) for time, _, frame in packets.frames_of(cls.plain)]
        cls.wanted = cls.read(cls.plain)[1]

    @staticmethod
    def read(*captures, options=(), **more):
        """Exit status, snapshots without the sizes of files, log without its times."""
        done = run(binary("pelmowatch"), "json", "-r", *captures, *options, **more)
        snapshots = [json.loads(line) for line in done.stdout.splitlines()]
        for snapshot in snapshots:
            for name in ("read_bytes", "file_bytes", "not_read"):
                snapshot.pop(name, None)
            for fault in snapshot["faults"].values():
                for name in ("first_frame", "last_frame", "first_file", "last_file"):
                    fault.pop(name, None)
        return done.returncode, snapshots, re.sub(r"(?m)^[-\d]+ [:\d]+ ", "", done.stderr.decode())

    def assert_same(self, *captures, **more):
        self.assertEqual(self.read(*captures, **more), (0, self.wanted, ""))

    def test_numbers_are_the_same_in_every_encapsulation(self):
        for name, (link, wrap) in WRAPPED.items():
            with self.subTest(name):
                self.assert_same(pcap(self.folder / "wrapped", link, [(s, u, wrap(f)) for s, u, f in self.frames]))
        mixed = [(s, u, tagged(0x8100)(f) if at % 2 else f) for at, (s, u, f) in enumerate(self.frames)]
        self.assert_same(pcap(self.folder / "mixed", ETHERNET, mixed), options=("-filter", "udp and net 10"))

    def test_byte_orders_clocks_and_compression_do_not_matter(self):
        for order in "<>":
            for nano in (False, True):
                self.assert_same(pcap(self.folder / "order", ETHERNET, self.frames, order, nano))
        for packer in PACKERS:
            if shutil.which(packer[0]) is None:
                continue
            packed = self.folder / "packed"
            packed.write_bytes(subprocess.run([*packer, self.plain], check=True, stdout=subprocess.PIPE).stdout)
            with self.subTest(packer[0]), open(packed, "rb") as stream:
                self.assert_same(packed)
                self.assert_same("-", stdin=stream)
                packed.write_bytes(packed.read_bytes()[:-1])
                status, snapshots, log = self.read(packed)
                self.assertEqual((status, "its compressed data ends early" in log), (1, True), log)
                self.assertGreater(sum(each["frames"] for each in snapshots), 2600)  # all but the unpacker's last block

    def test_a_pcapng_file_may_have_many_interfaces_clocks_and_sections(self):
        third = len(self.frames) // 3
        parts = (self.frames[:third], self.frames[third:2 * third], self.frames[2 * third:])
        self.assert_same(pcapng(self.folder / "mixed.pcapng", list(zip("<><", parts))))
        self.assert_same(pcapng(self.folder / "mixed.pcapng", [(">", self.frames)]), options=("-filter", "udp and net 10"))

    def test_a_ring_reads_as_one_capture(self):
        ring = self.folder / "ring"
        ring.mkdir()
        for number in range(20):  # the names don't tell the order
            part = self.frames[number * 150:(number + 1) * 150]
            pcap(ring / ("ring.%d" % ((number + 7) % 20)), ETHERNET, part)
        self.assert_same(ring)
        halves = [pcap(self.folder / name, RAW, [(s, u, f[14:]) for s, u, f in self.frames[start::2]])
                  for name, start in (("odd", 1), ("even", 0))]
        self.assert_same(*halves)
        (ring / "notes.txt").write_text("not a capture")
        status, snapshots, log = self.read(ring)
        self.assertEqual((status, snapshots), (1, self.wanted))
        self.assertRegex(log, r"unable to read '.*notes.txt': it isn't a capture")

    def test_a_span_of_time_is_read_alone(self):
        env = {**os.environ, "TZ": "UTC"}
        first, last = (1700000002, 0), (1700000004, 500000)
        inside = [frame for frame in self.frames if first <= frame[:2] <= last]
        part = self.read(pcap(self.folder / "part", ETHERNET, inside))[1]
        for span in (("2023-11-14T22:13:22", "22:13:24.5"), ("22:13:22", "2023-11-14 22:13:24.5Z"),
                     ("2023-11-14T23:13:22+01:00", "22:13:24.5")):
            found = self.read(self.plain, options=("--from", span[0], "--to", span[1]), env=env)[1]
            self.assertEqual(found, part, span)

    def test_files_outside_the_span_are_not_read_through(self):
        """Each is damaged in its middle, which shows whether it is read."""
        for suffix in ("pcap", "pcapng"):
            parts = []
            for start in range(0, 3000, 1000):
                frames = [(s + start + turn, u, f) for turn in (0, 20) for s, u, f in self.frames]
                part = pcap(self.folder / "part.pcap", ETHERNET, frames)
                parts.append(self.folder / ("%d.%s" % (start, suffix)))
                subprocess.run(["editcap", "-F", suffix, part, parts[-1]], check=True)
                data = bytearray(parts[-1].read_bytes())
                at = data.index(frames[3000][2], len(data) // 3)
                data[at - 12:at] = b"\xff" * 12
                parts[-1].write_bytes(data)
            for number, part in enumerate(parts):
                span = [time.strftime("%Y-%m-%dT%H:%M:%SZ", time.gmtime(1700000000 + 1000 * number + offset))
                        for offset in (-100, 100)]
                found = self.read(*parts, options=("--from", span[0], "--to", span[1]))
                self.assertEqual(found, self.read(part), span)
                self.assertIn("unable to read all of '%s'" % part, found[2])

    def test_a_silent_pipe_holds_neither_signals_nor_requests_up(self):
        fifo = self.folder / "fifo"
        os.mkfifo(fifo)
        pcapng = struct.pack("<IIIHHqI", 0x0a0d0d0a, 28, 0x1a2b3c4d, 1, 0, -1, 28)
        for head in (b"", self.plain.read_bytes()[:24], pcapng, None):  # None: not even a writer
            for options in ((), ("--from", "14:03")):
                source = fifo if head is None else "-"
                watch = self.start(binary("pelmowatch"), "json", "-r", source, *options, stdin=self.fed(head or b""),
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
                wait_until(lambda watch=watch: catches(watch.popen.pid), "its handler")
                watch.popen.send_signal(signal.SIGTERM)
                watch.popen.communicate(timeout=60)
                self.assertEqual(watch.status(), 1)
        reader, writer = os.pipe()
        server = self.started(Server(binary("pelmowatch"), self.folder / "serve", "-r", "-", awaits_end=False,
                                     stdin=reader))
        self.assertEqual(server.json("/healthz")["source"], "reading")
        os.close(reader)
        os.write(writer, b"this isn't a capture")  # as at the start: what can't be read ends the program
        os.close(writer)
        self.assertEqual(server.status(), 1)

    def test_each_command_of_the_operators_table_does_what_it_says(self):
        text = (ROOT / "docs/OPERATING.md").read_text().partition("## What operators ask")[2].partition("\n## ")[0]
        commands = [re.match(r"\| .*? \| `(.*)` \| ", line)[1].replace("\\|", "|")
                    for line in text.splitlines() if line.startswith("| ") and "`" in line]
        folder = self.folder / "operator"
        (folder / "ring").mkdir(parents=True)
        (folder / "archive").mkdir()
        start = 1795010520  # 2026-11-18 14:02:00 UTC
        mix = "--mix --rate 50 --hosts 9 --subjects 40 --services 0 --gaps 0.05 --types i32,f64,string --seed".split()
        for name, seed, count, begin in (("bus", 1, 6000, start), ("monday", 1, 3000, start - 2 * 86400),
                                         *((point, 1, 2000, start) for point in "abcde"),
                                         *(("ring/%d" % part, 1, 4500, start + 90 * part) for part in range(2)),
                                         *(("archive/%d" % day, day, 2000, start + 86400 * (day - 5)) for day in range(9))):
            rate = ("--rate", 25) if name == "monday" else ()
            self.generate(folder / (name + ".pcap"), *mix, str(seed), "--count", str(count), "--start", str(begin),
                          *map(str, rate))
        pcap(folder / "blind.pcap", ETHERNET, [(1, 0, MACS + b"\x86\xdd\x60" + bytes(39))])
        env = {**os.environ, "TZ": "UTC", "PATH": "%s:%s" % (binary(""), os.environ["PATH"])}
        self.assertEqual(len(commands), 10)
        for command in commands:
            command = command.replace("--daemon 127.0.0.1:7600 send --json --pace", "--local send --json --pace --speed 1000")
            command = command.replace("PRICES.>", ">")  # what the generator has
            with self.subTest(command):
                done = run("bash", "-o", "pipefail", "-c", command, cwd=folder, env=env)
                self.assertEqual(done.returncode, 4 if "blind" in command else 0, done.stderr)
                if "-o " in command:
                    self.assertGreater((folder / command.rpartition(" ")[2]).stat().st_size, 100000)
                elif "blind" in command:
                    self.assertIn(b"none of the bus: 1 IPv6", done.stderr)
                elif "pelmobus" in command:
                    self.assertRegex(done.stderr, rb"sent [1-9]\d+\n$")
                else:
                    self.assertGreater(len(done.stdout.splitlines()), 4)
                    for line in done.stdout.splitlines()[:100]:
                        json.loads(line)

    def test_a_blind_capture_says_what_it_has(self):
        arp = MACS + b"\x08\x06" + bytes(28)
        v6 = MACS + b"\x86\xdd\x60" + bytes(39)
        fragment = ip(17, udp(7500, bytes(40)))
        fragment = fragment[:20] + b"\x20\0" + fragment[22:]
        blind = pcap(self.folder / "blind", ETHERNET, [(1, 0, frame) for frame in (
            arp, v6, v6, fragment, ip(6, bytes(20)), ip(17, udp(53, bytes(30))), ip(17, udp(53, bytes(30)))[:40])])
        words = ("7 frames of link type EN10MB, none of the bus: 1 not IP, 2 IPv6, 1 fragments of IPv4 packets, "
                 "1 not UDP, 1 UDP but not of the bus, 1 with headers that contradict themselves")
        for options, status in (((), 0), (("--strict",), 4)):
            found, _, log = self.read(blind, options=options)
            self.assertEqual(found, status)
            self.assertIn(words, log)
        done = run(binary("pelmowatch"), "compare", "-r", self.plain, "--against", blind, "--strict")
        self.assertEqual((done.returncode, words in done.stderr.decode()), (4, True))
        self.assertIn("no frames in the time asked for", self.read(self.plain, options=("--from", "2030-01-01"))[2])
        self.assertIn("link type LINUX_SLL2", self.read(pcap(self.folder / "sll2", COOKED2, [(1, 0, bytes(60))]))[2])


if __name__ == "__main__":
    main()
