"""Live runs of the built tool."""

import fcntl
import os
import pathlib
import re
import shutil
import signal
import struct
import sys
import tempfile
import termios
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, Tool, binary, main, run, wait_until  # noqa: E402

from live_run import added_up, open_wire, read_reports, sent_totals, total_of  # noqa: E402

BINARY, PELMOGEN = binary("pelmoscope"), binary("pelmogen")
WIRE = None

MIX = """--mix --hosts 20 --nets 2 --ports 3 --subjects 240 --publishers 2 --services 0 --non-bus 0.05
    --host-status 0.1 --damaged 0.02 --damage checksum""".split()
# What the generator reports -> the table and the columns that it's counted in.
COUNTED = {"data": ("mcast", (0, 3)), "data bytes": ("mcast", (1, 4)), "null": ("mcast", (2,)),
           "rreq": ("retrans", (0,)), "rrej": ("retrans", (2,)), "ptp-data": ("ptp", (0,)),
           "ptp-ackme": ("ptp", (2,)), "ptp-ack": ("ptp", (3,)), "ptp-nak": ("ptp", (4,))}
DATA_HEADER_BYTES = 32
# Numbers of files in a ring; the last one has room for all that comes.
RINGS = (0, 1, 3, 12)
LARGE_RING = 12
HOUR = 3600
PIPE_BYTES = 16384
NET_CAPABILITIES = 1 << 12 | 1 << 13  # to administer a network, and raw sockets


class Live(ProgramCase):
    def run_tool(self, name, *arguments, **more):
        """In a folder of that name, below one of the test's own."""
        folder = self.folder / self.id()
        folder.mkdir(exist_ok=True)
        return self.started(Tool(BINARY, folder / name, *arguments, **more))

    def start_live(self, name, *arguments, interface=None, **more):
        return self.run_tool(name, "-i", interface or WIRE.interface, "-u", "1", *arguments, **more)

    def ended_well(self, *command, **more):
        done = run(*command, text=True, **more)
        self.assertEqual(done.returncode, 0, done.stderr)
        return done.stdout

    def send_all(self, *options):
        return sent_totals(self.ended_well(PELMOGEN, *WIRE.send, *options))

    def read_back(self, path, *arguments):
        """What an offline run makes of a capture, in one report."""
        return read_reports(self.ended_well(BINARY, "-r", path, "-u", "100000000", *arguments))

    def link(self, *commands):
        for command in commands:
            self.ended_well("ip", "link", *command.split())

    def stop_in_order(self, tool, log="stderr", number=signal.SIGTERM):
        self.ends_at_signal(tool, number=number)
        # A wake-up pair over a loopback that was taken down may be found broken at the end.
        lines = [line for line in tool.text(log).splitlines() if "creating new pair" not in line]
        self.assertRegex(lines[-1], r" pelmoscope: Shutting down \.\.\.$")

    def same_rows(self, rows, wanted):
        odd = {row: (rows.get(row, 0), wanted.get(row, 0)) for row in rows.keys() | wanted.keys()
               if rows.get(row, 0) != wanted.get(row, 0)}
        self.assertFalse(odd, "what came and what was wanted of %d rows" % len(wanted))

    def as_on_the_wire(self, rows):
        """The loopback moves addresses to 127/8."""
        if WIRE.interface != "lo":
            return rows
        return {(table, re.sub(r"\b(10|239)(\.\d+\.\d+\.\d+)", r"127\2", key), column): count
                for (table, key, column), count in rows.items()}

    def test_reports_and_saved_capture_add_up_to_what_was_sent(self):
        options = [*MIX, "--count", "7000", "--rate", "2000", "--seed", "3"]
        sent = self.generate("sent.pcap", *options)
        wanted = self.as_on_the_wire(added_up(self.read_back(sent, "-addrinfo", "-ptp")))

        tool = self.start_live("tool", "-addrinfo", "-ptp", "-w", "saved.pcap", "-foreground")
        tool.wait_for_reports(1)
        self.assertEqual(os.readlink("/proc/%d/cwd" % tool.popen.pid), str(tool.folder))
        status = pathlib.Path("/proc/%d/status" % tool.popen.pid).read_text()
        self.assertEqual(int(re.search(r"CapPrm:\s*(\w+)", status)[1], 16) & ~NET_CAPABILITIES, 0)
        totals = self.send_all(*options)
        wait_until(lambda: added_up(tool.reports()) == wanted or len(tool.reports()) > 8,
                   "the reports' end")
        # A report has the frames before it on the disk, whatever becomes of the tool.
        saved = self.read_back(tool.folder / "saved.pcap", "-addrinfo", "-ptp")
        self.stop_in_order(tool)

        self.same_rows(added_up(tool.reports()), wanted)
        self.same_rows(added_up(saved), wanted)
        self.assertGreaterEqual(sum(total_of([report]) > 0 for report in tool.reports()), 3)
        counted = {name: sum(wanted.get((table, "totals", column), 0) for column in columns)
                   for name, (table, columns) in COUNTED.items()}
        counted["data bytes"] += DATA_HEADER_BYTES * totals["data"]
        self.assertEqual(counted, {name: totals[name] for name in COUNTED})

    def test_no_loopback_interface_is_needed(self):
        if WIRE.interface == "lo":
            self.skipTest("without a namespace loopback can't be taken down")
        self.addCleanup(self.link, "set lo up")
        for name in ("before", "after"):
            tool = self.start_live(name)
            tool.wait_for_reports(1)
            self.link("set lo down")
            self.stop_in_order(tool)

    def test_a_tool_with_file_capabilities_loads_only_what_root_laid(self):
        if os.getuid() != 0:
            self.skipTest("only root gives capabilities to a file")
        folder = pathlib.Path(tempfile.mkdtemp(dir=BINARY.parent))
        self.addCleanup(shutil.rmtree, folder)
        for source in (BINARY, *BINARY.parent.glob("lib*.so.1.1")):
            shutil.copy(source, folder)
        tool = folder / BINARY.name
        revision_2, effective = 0x02000000, 1
        os.setxattr(tool, "security.capability",
                    struct.pack("<5I", revision_2 | effective, NET_CAPABILITIES, 0, 0, 0))
        for mode, owner, status in ((0o755, 0, 0), (0o775, 0, 1), (0o777, 0, 1), (0o755, 65534, 1)):
            os.chmod(folder, mode)
            os.chown(folder, owner, 0)
            try:
                done = run("elsewhere/pelmoscope", "-r", ROOT / "samples/bus.pcap", "-no-display",
                           executable=tool, cwd="/", user=65534, group=65534, extra_groups=[], text=True,
                           env={"PELMO_REXEC": "1", "PM_BIN": str(self.folder)})
            except PermissionError:
                done = None
            if done is None or "Permission denied" in done.stderr:
                self.skipTest("nobody may not enter " + str(folder))
            self.assertEqual(done.returncode, status, (oct(mode), owner, done.stderr))
            self.assertEqual("Failed to set module path" in done.stderr, bool(status))

    def test_rings_of_capture_and_log_files(self):
        """Names are relative, and the tool leaves its directory."""
        options = "-addrinfo -w w.pcap -w-max-size 1 -logfile log -log-max-size 100"
        tools = {count: self.start_live("ring%d" % count, *options.split(), "-w-max-rotations", count,
                                   "-log-max-rotations", count) for count in RINGS}
        for tool in tools.values():
            tool.wait_for_reports(1, "log")
        # Each second brings more than a capture file and a log file may hold.
        totals = self.send_all("--count", "20000", "--rate", "4000", "--hosts", "400",
                               "--subjects", "2000", "--round-robin")

        def all_counted():
            large = tools[LARGE_RING]
            written = [large.text("log%s" % (n or "")) for n in range(LARGE_RING + 1)]
            return total_of(read_reports("".join(written))) == totals["data"]
        wait_until(all_counted, "all packets in the logs")
        for tool, number in zip(tools.values(), (signal.SIGINT, signal.SIGHUP, signal.SIGTERM, signal.SIGTERM)):
            self.stop_in_order(tool, "log", number)

        for count, tool in tools.items():
            files = {path.name for path in tool.folder.iterdir()} - {"stdout", "stderr"}
            wanted = {"%s%s" % (name, n or "") for name in ("log", "w.pcap") for n in range(count + 1)}
            saved = {path.name: total_of(self.read_back(path)) for path in tool.folder.glob("w.pcap*")}
            self.assertTrue(all(saved[name] > 0 for name in saved if name != "w.pcap"), saved)
            if count == LARGE_RING:  # not gone round
                self.assertLess(files, wanted)
                self.assertEqual(sum(saved.values()), totals["data"])
            else:
                self.assertEqual(files, wanted)
            for path in tool.folder.glob("log*"):
                self.assertIn("Pelmo trace program", path.read_text()[:200])

    def test_an_interface_that_goes_leaves_the_reports_running(self):
        if WIRE.interface == "lo":
            self.skipTest("without a namespace no interface can be taken away")
        self.link("add sender2 type veth peer name listener2", "set sender2 up", "set listener2 up")
        tool = self.start_live("tool", interface="listener2")
        tool.wait_for_reports(1)
        self.link(*("set listener2 " + change for change in ("down", "up", "down")))

        def changes():
            return re.findall(r" pelmoscope: interface listener2 is (.*)\.$", tool.text("stderr"), re.MULTILINE)
        wait_until(lambda: len(changes()) >= 3, "the interface's lines")
        self.assertEqual(changes(), ["down", "up again", "down"])
        tool.wait_for_reports(len(tool.reports()) + 1)
        self.link("delete listener2")
        wait_until(lambda: " pelmoscope: pcap_loop: " in tool.text("stderr"), "the loop's error")
        tool.wait_for_reports(len(tool.reports()) + 2)
        self.stop_in_order(tool)

    def test_readers_that_stall_hold_up_no_end(self):
        """Of reports, of the log, or of a saved capture. What goes to a file instead gets there, and so do all
        packets to a reader of reports that goes on."""
        readers, tools = {}, {}
        for name in ("stdout", "stderr", "log", "saved.pcap", "traced", "goes on"):
            pipe = self.folder / self.id() / name / {"traced": "stderr", "goes on": "stdout"}.get(name, name)
            pipe.parent.mkdir(parents=True)
            os.mkfifo(pipe)
            readers[name] = os.open(pipe, os.O_RDONLY | os.O_NONBLOCK)
            self.addCleanup(os.close, readers[name])
            fcntl.fcntl(readers[name], fcntl.F_SETPIPE_SZ, PIPE_BYTES)
            log = ["-logfile", "log"] if name == "log" else []
            traced = {"_PM_TRACING_MODULES": "EVENTS"} if name == "traced" else {}
            tools[name] = self.start_live(name, "-complain", "-addrinfo", "-w", "saved.pcap", *log, **traced)
        for name, tool in tools.items():
            wait_until(lambda: os.readlink("/proc/%d/cwd" % tool.popen.pid) == "/", "a start of " + name)
        first = self.send_all("--count", "2000", "--rate", "10000", "--subjects", "1000",
                              "--damaged", "0.5", "--damage", "checksum")
        for reader in readers.values():
            wait_until(lambda: int.from_bytes(fcntl.ioctl(reader, termios.FIONREAD, bytes(4)), sys.byteorder)
                       > PIPE_BYTES // 2, "a pipe that is full")
        # 42 MB: more than the buffer of the capture holds.
        second = self.send_all("--count", "30000", "--rate", "10000", "--payload", "1400", "--first-port", "7600")
        pieces, reader = [], readers["goes on"]
        os.set_blocking(reader, True)
        threading.Thread(target=lambda: pieces.extend(iter(lambda: os.read(reader, 65536), b"")), daemon=True).start()
        wait_until(lambda: total_of(read_reports(b"".join(pieces).decode())) == first["data"] + second["data"],
                   "all packets in the reports")
        for name, tool in tools.items():
            with self.subTest(stalled=name):
                self.ends_at_signal(tool)
                if name != "saved.pcap":
                    self.assertGreater(total_of(self.read_back(tool.folder / "saved.pcap")), 0)

    def test_an_offline_run_that_loses_output_says_so(self):
        capture = self.generate("capture", "--count", "100")
        full = os.open("/dev/full", os.O_WRONLY)
        self.addCleanup(os.close, full)
        for name, arguments, streams, words in (
                ("stdout", (), {"stdout": full}, "reports can't be written to the standard output"),
                ("stderr", (), {"stderr": full}, ""),
                ("log", ("-logfile", "/dev/full"), {}, "failed to write log file '/dev/full'")):
            tool = self.run_tool(name, "-r", capture, "-u", "0", *arguments, **streams)
            self.assertEqual(tool.status(), 1, name)
            if words:
                self.assertEqual(tool.text("stderr").count(words), 1, name)

    def test_a_wall_clock_that_steps_neither_hangs_nor_floods(self):
        paths = {shift: self.folder / ("shift%d" % shift) for shift in (HOUR, -HOUR)}
        asan = os.environ.get("ASAN_OPTIONS", "") + ":verify_asan_link_order=0"
        tools = {shift: self.start_live("tool%d" % shift, LD_PRELOAD=str(binary("clock_shift.so")),
                                        CLOCK_SHIFT_FILE=str(path), ASAN_OPTIONS=asan)
                 for shift, path in paths.items()}
        for tool in tools.values():
            tool.wait_for_reports(2)
        before = {shift: len(tool.reports()) for shift, tool in tools.items()}
        stepped = time.monotonic()
        for shift, path in paths.items():
            path.with_suffix(".new").write_text(str(shift))
            path.with_suffix(".new").rename(path)
        for shift, tool in tools.items():
            tool.wait_for_reports(before[shift] + 4)
        seconds = time.monotonic() - stepped
        for shift, tool in tools.items():
            elapsed = [report.elapsed for report in tool.reports()]
            self.assertLessEqual(len(elapsed) - before[shift], seconds + 2)
            odd = [value for value in elapsed if abs(value) > HOUR / 2]
            self.assertEqual(len(odd), 1, elapsed)
            self.assertAlmostEqual(odd[0], shift, delta=HOUR / 4)
            self.stop_in_order(tool)

    def test_the_generator_sends_nothing_where_a_frame_could_leave(self):
        if WIRE.interface == "lo":
            self.skipTest("without a namespace nothing can lead out of one")
        other = self.start("unshare", "--net", "sleep", "60")
        here = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink("/proc/%d/ns/net" % other.popen.pid) != here, "a namespace")
        self.link("add out type veth peer name away netns %d" % other.popen.pid)
        self.addCleanup(self.link, "delete out")
        self.send_all("--count", "1")
        self.link("set out up")
        for interface in ("out", "sender", "lo", "none"):
            done = run(PELMOGEN, "--interface", interface, "--count", "1")
            self.assertEqual((done.returncode, done.stdout), (1, b""), interface)


if __name__ == "__main__":
    WIRE = open_wire()
    main()
