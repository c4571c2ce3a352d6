"""A whole bus from two capture points: prometheus_test.py PELMOWATCH PELMOGEN.

Two parts of a network, each a namespace of its own with a wire, a generator and a server. Prometheus scrapes both,
and what its recording rules add up must be what the generators sent. Where namespaces aren't permitted it says so and
ends with 77.
"""

import contextlib
import ctypes
import json
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import urllib.parse
import urllib.request

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

from live_run import SKIPPED, Process, open_wire, sent_totals, wait_until  # noqa: E402
from served import Server  # noqa: E402

RULES = pathlib.Path(__file__).resolve().parents[2] / "docs/prometheus/pelmo_bus.yml"
LIBC = ctypes.CDLL(None, use_errno=True)
PACKETS, RATE = 40000, 4000
TRAFFIC = ("--mix", "--repeats", "0", "--gaps", "0", "--restarts", "0", "--fragments", "0",
           "--count", str(PACKETS), "--rate", str(RATE))
SIDES = {"left": ("--seed", "1"), "right": ("--seed", "2", "--hosts", "500", "--ports", "3")}
DATA_HEADER_BYTES = 32
# What the rules add up -> of what the generator told.
SUMS = {"multicast_data_packets": lambda sent: sent["data"],
        "multicast_payload_bytes": lambda sent: sent["data bytes"] - DATA_HEADER_BYTES * sent["data"],
        "multicast_null_packets": lambda sent: sent["null"], "multicast_messages": lambda sent: sent["messages"],
        "multicast_missed_packets": lambda sent: 0, "retransmission_requests_sent": lambda sent: sent["rreq"],
        "retransmission_rejects_sent": lambda sent: sent["rrej"],
        "point_to_point_data_packets_sent": lambda sent: sent["ptp-data"]}


class Part:
    """A part of the network. It ends with its first process."""

    def __init__(self, cleanup):
        self.holder = Process("unshare", "--net", "sleep", "600")
        cleanup.callback(self.holder.close)
        self.path = "/proc/%d/ns/net" % self.holder.popen.pid
        wait_until(lambda: os.stat(self.path).st_ino != os.stat("/proc/self/ns/net").st_ino, "a namespace")
        self.within = ("nsenter", "--net=" + self.path)
        for command in ("link set lo up", "link add sender type veth peer name listener",
                        "link set sender up", "link set listener up"):
            subprocess.run([*self.within, "ip", *command.split()], check=True)


class Relay(threading.Thread):
    """A port here that leads to one there: no interface may lead out of a part."""

    def __init__(self, part, port):
        super().__init__(daemon=True)
        self.part, self.there = part, port
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.start()

    def run(self):
        with open(self.part.path, "rb") as namespace:
            if LIBC.setns(namespace.fileno(), 0) != 0:  # of this thread, and of those that it starts
                raise OSError(ctypes.get_errno(), "setns")
        while True:
            here, _ = self.listener.accept()
            there = socket.create_connection(("127.0.0.1", self.there))
            for one, other in ((here, there), (there, here)):
                threading.Thread(target=self.pump, args=(one, other), daemon=True).start()

    @staticmethod
    def pump(source, target):
        with contextlib.suppress(OSError):
            while data := source.recv(1 << 16):
                target.sendall(data)
        with contextlib.suppress(OSError):
            target.shutdown(socket.SHUT_WR)


def start_prometheus(folder, targets, cleanup):
    with socket.create_server(("127.0.0.1", 0)) as free:
        port = free.getsockname()[1]
    (folder / "prometheus.yml").write_text(json.dumps({
        "global": {"scrape_interval": "1s", "evaluation_interval": "1s"}, "rule_files": [str(RULES)],
        "scrape_configs": [{"job_name": "pelmo", "static_configs": [
            {"targets": ["127.0.0.1:%d" % target], "labels": {"bus": "x"}} for target in targets]}]}))
    log = open(folder / "prometheus.log", "wb")
    cleanup.enter_context(log)
    process = Process("prometheus", "--config.file=%s" % (folder / "prometheus.yml"), "--storage.tsdb.path=%s" % folder,
                      "--web.listen-address=127.0.0.1:%d" % port, stdout=log, stderr=log)
    cleanup.callback(process.close)
    return port


def ask(port, expression):
    """The values of an instant query; none while Prometheus isn't ready."""
    url = "http://127.0.0.1:%d/api/v1/query?%s" % (port, urllib.parse.urlencode({"query": expression}))
    try:
        with urllib.request.urlopen(url, timeout=10) as answer:
            return [float(sample["value"][1]) for sample in json.load(answer)["data"]["result"]]
    except OSError:
        return []


def main():
    watch, pelmogen = (str(pathlib.Path(argument).resolve()) for argument in sys.argv[1:3])
    if open_wire().interface == "lo":
        print("NOT TESTED: no network namespaces here")
        return SKIPPED
    with contextlib.ExitStack() as cleanup:
        folder = pathlib.Path(cleanup.enter_context(tempfile.TemporaryDirectory()))
        parts = {side: Part(cleanup) for side in SIDES}
        ports = []
        for side, part in parts.items():
            server = Server(watch, folder / side, "-i", "listener", "-u", "1", within=part.within, awaits_end=False)
            cleanup.callback(server.close)
            ports.append(Relay(part, server.port).port)
        prometheus = start_prometheus(folder, ports, cleanup)
        wait_until(lambda: ask(prometheus, "sum(up)") == [2], "both targets", 60)
        generators = [subprocess.Popen([*parts[side].within, pelmogen, "--interface", "sender", *TRAFFIC, *options],
                                       stdout=subprocess.PIPE, text=True)
                      for side, options in SIDES.items()]
        sent = [sent_totals(generator.communicate(timeout=120)[0]) for generator in generators]
        expected = {name: sum(map(count, sent)) for name, count in SUMS.items()}

        def found():
            return {name: sum(ask(prometheus, "bus:pelmo_%s:sum" % name)) for name in SUMS}
        try:
            wait_until(lambda: found() == expected, "the sums", 30)
        except AssertionError:
            print("sent %s\ntold %s" % (expected, found()), sent)
            return 1
        if not ask(prometheus, 'bus:pelmo_multicast_data_packets:rate5m{bus="x"} > 0'):
            print("no rate")
            return 1
        print("two capture points, one bus: %s" % expected)
    return 0


if __name__ == "__main__":
    sys.exit(main())
