"""pelmowatch live: live_test.py PELMOWATCH PELMOGEN [TEST ...]."""

import collections
import json
import os
import pathlib
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

from live_run import Tool, open_wire, sent_totals, wait_until  # noqa: E402
from served import Server  # noqa: E402

WATCH, PELMOGEN = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
WIRE = None
NO_RIGHTS = {"CapInh": 0, "CapPrm": 0, "CapEff": 0, "CapAmb": 0, "NoNewPrivs": 1}
if os.getuid() == 0:  # what root becomes; sanitizers need calls that the filter refuses
    NO_RIGHTS["Seccomp"] = 0 if b"__asan_init" in WATCH.read_bytes() else 2
BIG_BURST = 400000


def rights(process):
    """What each thread of it has: name -> number."""
    found = []
    for task in os.listdir("/proc/%d/task" % process.popen.pid):
        text = pathlib.Path("/proc/%d/task/%s/status" % (process.popen.pid, task)).read_text()
        lines = dict(line.split(":\t", 1) for line in text.splitlines() if ":\t" in line)
        found.append({name: int(lines[name], 16) for name in NO_RIGHTS})
        if os.getuid() == 0:
            ids = {name: set(lines[name].split()) for name in ("Uid", "Gid", "Groups")}
            assert ids == {"Uid": {"1234"}, "Gid": {"2345"}, "Groups": set()}, ids
    return found


class Live(unittest.TestCase):
    def setUp(self):
        scratch = tempfile.TemporaryDirectory()
        self.addCleanup(scratch.cleanup)
        self.folder = pathlib.Path(scratch.name)

    def start(self, name, *arguments, interface=None, **more):
        watch = Tool(WATCH, self.folder / name, "json", "-i", interface or WIRE.interface, "-u", "1", *arguments,
                     **more)
        self.addCleanup(watch.close)
        return watch

    def snapshots(self, watch):
        return [json.loads(line) for line in watch.text().splitlines()]

    def wait_for(self, watch, count):
        wait_until(lambda: len(self.snapshots(watch)) >= count or not watch.running(), "%d snapshots" % count)

    def send(self, *options):
        run = subprocess.run([PELMOGEN, *WIRE.send, *options], check=True, timeout=60, stdout=subprocess.PIPE,
                             text=True)
        return sent_totals(run.stdout)

    def counted(self, watch):
        total = collections.Counter()
        for snapshot in self.snapshots(watch):
            total.update(frames=snapshot["frames"], lost=snapshot["kernel_dropped_frames"])
            for table, numbers in snapshot["totals"].items():
                total.update({(table, name): number for name, number in numbers.items()})
        return total

    def test_counts_what_was_sent_without_any_right(self):
        watch = self.start("watch", "--since-start")
        self.wait_for(watch, 1)
        self.assertEqual(rights(watch), [NO_RIGHTS] * len(rights(watch)))
        self.assertGreater(len(rights(watch)), 3)
        sent = self.send("--mix", "--count", "5000", "--rate", "4000")
        wait_until(lambda: self.counted(watch)["frames"] >= 5000, "all frames")
        total = self.counted(watch)
        self.assertEqual({"null": total["multicast", "null_packets"],
                          "rreq": total["retransmission", "requests_sent"],
                          "ptp-data": total["point_to_point", "data_packets_received"]},
                         {name: sent[name] for name in ("null", "rreq", "ptp-data")})
        self.assertEqual(total["lost"], 0)
        last = self.snapshots(watch)[-1]["since_start"]
        self.assertEqual(last["totals"]["subjects"]["messages"], total["subjects", "messages"])

        status, seconds = watch.stop(signal.SIGTERM)
        self.assertEqual((status, watch.text("stderr")), (0, ""))
        self.assertLess(seconds, 1)

    def test_what_the_kernel_dropped_is_told(self):
        """A reader that stalls holds up no capture; a program that is stopped loses frames."""
        watch = self.start("watch")
        self.wait_for(watch, 1)
        watch.popen.send_signal(signal.SIGSTOP)
        self.send("--count", str(BIG_BURST), "--rate", "1000000")
        watch.popen.send_signal(signal.SIGCONT)
        wait_until(lambda: self.counted(watch)["frames"] > 0, "frames")
        wait_until(lambda: self.counted(watch)["frames"] + self.counted(watch)["lost"] >= BIG_BURST, "all frames")
        self.assertGreater(self.counted(watch)["lost"], 0)

    def test_a_reader_that_stalls_or_goes_holds_up_no_end(self):
        reader, writer = os.pipe()
        stalled = self.start("stalled", stdout=writer)
        os.close(writer)
        self.send("--mix", "--count", "20000", "--rate", "10000", "--subjects", "5000")
        status, seconds = stalled.stop(signal.SIGINT)
        self.assertEqual(status, 1)
        self.assertIn("unable to write a snapshot", stalled.text("stderr"))
        self.assertLess(seconds, 1)
        os.close(reader)

        reader, writer = os.pipe()
        os.close(reader)
        gone = self.start("gone", stdout=writer)
        os.close(writer)
        self.assertEqual((gone.status(), gone.text("stderr")), (1, ""))

    def test_serve_counts_without_any_right_whatever_its_clients_do(self):
        server = Server(WATCH, self.folder / "serve", "-i", WIRE.interface, "-u", "1")
        self.addCleanup(server.close)
        self.assertEqual(rights(server), [NO_RIGHTS] * len(rights(server)))
        idle = [socket.create_connection((server.host, server.port)) for _ in range(300)]
        sent = self.send("--mix", "--count", "20000", "--rate", "10000")
        wait_until(lambda: server.metrics()["pelmo_frames_total"][()] >= 20000, "all frames")
        metrics = server.metrics()
        self.assertEqual(sum(metrics["pelmo_multicast_null_packets_total"].values()), sent["null"])
        self.assertEqual(metrics["pelmo_kernel_dropped_frames_total"], {(): 0})
        self.assertLess(time.time() - metrics["pelmo_watch_snapshot_timestamp_seconds"][()], 5)
        for connection in idle:
            connection.close()
        server.popen.send_signal(signal.SIGTERM)
        self.assertEqual(server.status(), 0)

    def test_a_source_that_cannot_be_had_is_told(self):
        watch = self.start("nosuch", interface="nosuch0")
        self.assertEqual((watch.status(), watch.text()), (1, ""))
        self.assertIn("nosuch0", watch.text("stderr"))


if __name__ == "__main__":
    os.environ.update(SUDO_UID="1234", SUDO_GID="2345")
    WIRE = open_wire()
    del sys.argv[1:3]
    unittest.main()
