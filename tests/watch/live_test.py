"""pelmowatch live, on a wire of the test's own."""

import collections
import json
import os
import pathlib
import signal
import socket
import struct
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ProgramCase, binary, main, packets, run, wait_until  # noqa: E402

from live_run import Tool, open_wire, sent_totals  # noqa: E402
from served import Server  # noqa: E402

WATCH = binary("pelmowatch")
WIRE = None
NO_RIGHTS = {"CapInh": 0, "CapPrm": 0, "CapEff": 0, "CapAmb": 0, "NoNewPrivs": 1}
if os.getuid() == 0:  # what root becomes; sanitizers need calls that the filter refuses
    NO_RIGHTS["Seccomp"] = 0 if b"__asan_init" in WATCH.read_bytes() else 2
BIG_BURST = 400000


class Live(ProgramCase):
    def watch(self, name, *arguments, interface=None, **more):
        return self.started(Tool(WATCH, self.folder / name, "json", "-i", interface or WIRE.interface, "-u", "1",
                                 *arguments, **more))

    def snapshots(self, watch):
        whole = watch.text().rpartition("\n")[0]  # a long line is written in pieces
        return [json.loads(line) for line in whole.splitlines()]

    def await_first(self, watch):
        wait_until(lambda: self.snapshots(watch) or not watch.running(), "a snapshot")

    def send(self, *options):
        return sent_totals(run(binary("pelmogen"), *WIRE.send, *options).stdout.decode())

    def counted(self, watch):
        total = collections.Counter()
        for snapshot in self.snapshots(watch):
            total.update(frames=snapshot["frames"], lost=snapshot["kernel_dropped_frames"])
            for table, numbers in snapshot["totals"].items():
                total.update({(table, name): number for name, number in numbers.items()})
        return total

    def has_no_rights(self, process):
        """Nor has any of its threads, of which there are some."""
        tasks = os.listdir("/proc/%d/task" % process.popen.pid)
        self.assertGreater(len(tasks), 3)
        for task in tasks:
            text = pathlib.Path("/proc/%d/task/%s/status" % (process.popen.pid, task)).read_text()
            lines = dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)
            self.assertEqual({name: int(lines[name], 16) for name in NO_RIGHTS}, NO_RIGHTS)
            if os.getuid() == 0:
                self.assertEqual([set(lines[name].split()) for name in ("Uid", "Gid", "Groups")], [{"1234"}, {"2345"}, set()])

    def test_counts_what_was_sent_without_any_right_whatever_clients_do(self):
        watch = self.watch("watch", "--since-start")
        server = self.started(Server(WATCH, self.folder / "serve", "-i", WIRE.interface, "-u", "1"))
        self.await_first(watch)
        for process in (watch, server):
            self.has_no_rights(process)
        idle = [socket.create_connection((server.host, server.port)) for _ in range(300)]
        sent = self.send("--mix", "--count", "20000", "--rate", "10000")
        wait_until(lambda: self.counted(watch)["frames"] >= 20000, "all frames")
        wait_until(lambda: server.metrics()["pelmo_frames_total"][()] >= 20000, "all frames")
        total, metrics = self.counted(watch), server.metrics()
        self.assertEqual({"null": total["multicast", "null_packets"],
                          "rreq": total["retransmission", "requests_sent"],
                          "ptp-data": total["point_to_point", "data_packets_received"]},
                         {name: sent[name] for name in ("null", "rreq", "ptp-data")})
        self.assertEqual(sum(metrics["pelmo_multicast_null_packets_total"].values()), sent["null"])
        self.assertEqual((total["lost"], metrics["pelmo_kernel_dropped_frames_total"]), (0, {(): 0}))
        last = self.snapshots(watch)[-1]["since_start"]
        self.assertEqual(last["totals"]["subjects"]["messages"], total["subjects", "messages"])
        for connection in idle:
            connection.close()
        for process in (watch, server):
            self.ends_at_signal(process)
        self.assertEqual(watch.text("stderr"), "")

    def test_frames_that_the_kernel_dropped_are_counted(self):
        """A reader that stalls holds up no capture; a program that is stopped loses frames."""
        watch = self.watch("stopped")
        self.await_first(watch)
        watch.popen.send_signal(signal.SIGSTOP)
        stopped = time.monotonic()
        self.send("--count", str(BIG_BURST), "--rate", "1000000")
        wait_until(lambda: time.monotonic() > stopped + 2.5, "a stall of more than two intervals")
        watch.popen.send_signal(signal.SIGCONT)
        wait_until(lambda: self.counted(watch)["frames"] + self.counted(watch)["lost"] >= BIG_BURST, "all frames")
        self.assertGreater(self.counted(watch)["frames"], 0)
        self.assertGreater(self.counted(watch)["lost"], 0)
        lengths = [one["elapsed_seconds"] for one in self.snapshots(watch)]
        longest = max(self.snapshots(watch), key=lambda one: one["elapsed_seconds"])
        self.assertGreater(longest["elapsed_seconds"], 2.4)
        self.assertGreater(longest["frames"], 0)  # those of the stall are in the interval that has its time
        self.assertGreater(min(lengths), 0.009)  # what the stall left is part of the next one

    def test_a_reader_that_stalls_or_goes_holds_up_no_end(self):
        reader, writer = os.pipe()
        stalled = self.watch("stalled", stdout=writer)
        os.close(writer)
        self.send("--mix", "--count", "20000", "--rate", "10000", "--subjects", "5000")
        self.ends_at_signal(stalled, 1, signal.SIGINT)
        self.assertIn("unable to write a snapshot", stalled.text("stderr"))
        os.close(reader)

        gone = self.watch("gone", stdout=self.without_reader())
        self.assertEqual((gone.status(), gone.text("stderr")), (1, ""))

    def make(self, interface):
        for command in ("link add @ type veth peer name @peer", "link set @ up", "link set @peer up"):
            self.assertEqual(run("ip", *command.replace("@", interface).split()).returncode, 0, command)

    def send_to(self, interface):
        with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as sender:
            sender.bind((interface + "peer", 0))
            sender.send(b"\x01\x00\x5e" + bytes(9) + b"\x08\x00\x45" + bytes(8) + b"\x11" + bytes(50))

    def test_a_capture_that_fails_says_so(self):
        """Without anybody to see it the program ends, with all that was captured."""
        if os.getuid() != 0 or WIRE.interface == "lo":
            self.skipTest("no interface can be made here")
        for interface in ("gone0", "gone1"):
            self.make(interface)
        watch = self.watch("ends", "-u", "3600", interface="gone0")
        stays = self.started(Server(WATCH, self.folder / "stays", "-i", "gone0", "-u", "1"))
        waits = self.started(Server(WATCH, self.folder / "waits", "-i", "gone1", "-u", "1", "--wait-interface"))
        events = waits.events(kinds=("source",))
        self.assertEqual(json.loads(next(events)[1])["state"], "live")
        for server in (stays, waits):
            self.assertEqual(server.answer("/healthz")[0], 200)
        self.send_to("gone0")
        run("ip", "link", "del", "gone0")
        run("ip", "link", "del", "gone1")
        self.assertEqual((watch.status(), sum(one["frames"] for one in self.snapshots(watch))), (1, 1))
        for server, state in ((stays, "failed"), (waits, "waiting")):
            wait_until(lambda: server.answer("/healthz")[0] == 503, "a bad word on its health")
            health = json.loads(server.answer("/healthz")[2])
            self.assertEqual((health["status"], health["source"]), ("failed", state))
            self.assertIn("The interface disappeared", health["words"])
            self.assertEqual(server.metrics()["pelmo_watch_capturing"], {(): 0})
        self.ends_at_signal(stays, 1)

        self.make("gone1")
        wait_until(lambda: waits.answer("/healthz")[0] == 200, "the interface")
        self.send_to("gone1")
        wait_until(lambda: waits.metrics()["pelmo_frames_total"][()] > 0, "a frame")
        states = [json.loads(next(events)[1])["state"]]
        while states[-1] != "live":
            states.append(json.loads(next(events)[1])["state"])
        self.assertIn("waiting", states)
        self.ends_at_signal(waits)

    def test_tunnels_pass_the_filter_and_a_blind_run_says_what_it_had(self):
        if WIRE.interface == "lo":
            self.skipTest("the loopback has traffic of others")
        plain = packets.frame_of("data {<A.B>}")
        macs, ip = plain[:12], plain[14:]
        v6 = lambda protocol, inside: macs + b"\x86\xdd\x60\0\0\0" + struct.pack(">HBB", len(inside), protocol, 64) + \
            bytes(32) + inside
        others = [v6(6, bytes(40)), macs + b"\x08\x06" + bytes(28)]
        tunnels = [plain, macs + b"\x81\0\0\7\x08\0" + ip, macs + b"\x88\xa8\0\7\x81\0\0\x08\x08\0" + ip,
                   macs + b"\x88\x47\0\2\1\x40" + ip, v6(47, b"\0\0\x08\0" + ip)]
        foreign = plain[:42] + b"DNS." + plain[46:]
        blind = "1 frame of link type EN10MB, none of the bus: 1 UDP but not of the bus"
        for frames, seen, log in ((others + tunnels, {"data_packets": 1, "repeated_packets": 4}, ""),
                                  (others + [foreign], {}, blind)):
            watch, everywhere = self.watch("tunnels%d" % len(seen)), self.watch("all%d" % len(seen), interface="any")
            for one in (watch, everywhere):
                self.await_first(one)
            with socket.socket(socket.AF_PACKET, socket.SOCK_RAW) as wire:
                wire.bind((WIRE.send[1], 0))
                for frame in frames:
                    wire.send(frame)
            wait_until(lambda: self.counted(watch)["frames"] >= len(frames) - len(others), "all that was sent")
            self.assertEqual(watch.stop()[0], 0)
            found = self.counted(watch)
            self.assertEqual(found["frames"], len(frames) - len(others))
            for name, number in seen.items():
                self.assertEqual(found["multicast", name], number)
            self.assertIn(log, watch.text("stderr"))
            self.assertEqual("none of the bus" in watch.text("stderr"), bool(log))
            # All interfaces may have a packet twice: as it leaves, and as it comes.
            wait_until(lambda: all(self.counted(everywhere)["multicast", name] >= number for name, number in seen.items()),
                       "all frames of all interfaces")

    def test_an_interface_that_is_not_there_is_an_error(self):
        watch = self.watch("nosuch", interface="nosuch0")
        self.assertEqual((watch.status(), watch.text()), (1, ""))
        self.assertIn("nosuch0", watch.text("stderr"))


if __name__ == "__main__":
    os.environ.update(SUDO_UID="1234", SUDO_GID="2345")
    WIRE = open_wire()
    main()
