#!/usr/bin/env python3
"""bridge.py [--rounds N] [--count N] [--bytes N]: the bridge beside libnats alone.

Four roads, each once over the bridge and once by bare clients of libnats with the same headers: plain
from the bus, from the bus into a stream, plain to the bus, from a stream to the bus. A rate is of messages from
the first to the last that arrived, or that the stream has; CPU is the bridge's, for each message. Figures are
medians of the rounds. Everything runs on this machine, over loopback, and ends with the script.
"""
import argparse
import pathlib
import re
import signal
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(ROOT / "bench"), str(ROOT / "tests" / "bridge"), str(ROOT / "tests" / "e2e")]
import machine  # noqa: E402
from live_run import Process, cpu_seconds  # noqa: E402
from bus_client import OPAQUE, Daemon, message  # noqa: E402
from nats_client import NatsClient, NatsServer  # noqa: E402
from packets import field  # noqa: E402

BIN = ROOT / "build" / "release" / "bin"


class Round:
    def __init__(self, folder, count, size, body):
        self.count, self.size, self.body = count, size, body
        self.server, self.daemon = NatsServer(folder), Daemon(BIN / "pmd", "--client-backlog", "1024")
        self.client, self.started = NatsClient(self.server.port), [self.server, self.daemon]
        self.client.ask("$JS.API.STREAM.CREATE.S", {"name": "S", "subjects": ["S.>"], "storage": "memory"})

    def close(self):
        for process in reversed(self.started):
            process.close()

    def bridge(self, *options):
        log = open(self.server.folder / "bridge.log", "w+")
        bridge = Process(BIN / "pelmobridge", "--nats", "nats://127.0.0.1:%d" % self.server.port, "--daemon",
                         "127.0.0.1:%d" % self.daemon.port, *options, stdout=log, stderr=log)
        self.started.append(bridge)
        while "both sides" not in open(log.name).read():
            time.sleep(0.05)
        return bridge

    def peer(self, *words, **more):
        return subprocess.Popen([str(word) for word in (BIN / "nats_peer", *words)], text=True, **more)

    def counted(self, subject, send):
        """Seconds that a plain subscriber took for all."""
        taker = self.peer("listen", self.server.port, subject, self.count, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        taker.stderr.readline()
        send()
        return float(taker.communicate(timeout=300)[0])

    def stored(self, send):
        """Seconds until the stream has all."""
        self.client.ask("$JS.API.STREAM.PURGE.S", {})
        begin = time.monotonic()
        send()
        while self.client.ask("$JS.API.STREAM.INFO.S", {})["state"]["messages"] < self.count:
            time.sleep(0.005)
        return time.monotonic() - begin

    def bus_send(self, subject):
        subprocess.run([BIN / "pelmobus", "--daemon", "127.0.0.1:%d" % self.daemon.port, "send", subject, "--count",
                        str(self.count), "--size", str(self.size)], check=True, stderr=subprocess.DEVNULL)

    def nats_send(self, subject, *kind):
        self.peer("send", self.server.port, subject, self.count, self.body, *kind).wait()

    def bus_taken(self, subject, send):
        """Seconds from the first to the last on the bus."""
        taker = subprocess.Popen([BIN / "pelmobus", "--daemon", "127.0.0.1:%d" % self.daemon.port, "bench", "listen",
                                  subject, "--count", str(self.count)], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                 text=True)
        time.sleep(0.5)
        send()
        rate = re.search(r"([\d.]+) messages/s", taker.communicate(timeout=300)[0])
        return self.count / float(rate[1])

    def roads(self):
        """(name, bare seconds, the bridge's, its CPU seconds)"""
        yield ("plain, from the bus", self.counted("P.A", lambda: self.nats_send("P.A")),
               *self.by(["--from-bus", "P.>"], lambda: self.counted("P.A", lambda: self.bus_send("P.A"))))
        yield ("from the bus to a stream", self.stored(lambda: self.nats_send("S.A", "stream")),
               *self.by(["--from-bus", "S.>", "--stream", "S"], lambda: self.stored(lambda: self.bus_send("S.A"))))
        yield ("plain, to the bus", self.counted("Q.A", lambda: self.nats_send("Q.A")),
               *self.by(["--to-bus", "Q.>"], lambda: self.bus_taken("Q.A", lambda: self.nats_send("Q.A"))))
        self.stored(lambda: self.nats_send("S.A", "stream"))
        bare = self.peer("listen", self.server.port, "S.A", self.count, "bare", stdout=subprocess.PIPE)
        bare_seconds = float(bare.communicate(timeout=300)[0])
        yield ("from a stream to the bus", bare_seconds,
               *self.by([], lambda: self.bus_taken("S.A", lambda: self.bridge("--to-bus", "S.>", "--durable", "d"))))

    def by(self, options, measure):
        bridge = self.bridge(*options) if options else None
        seconds = measure()
        bridge = bridge or self.started[-1]
        used = cpu_seconds(bridge.popen.pid)
        bridge.popen.send_signal(signal.SIGTERM)
        bridge.status()
        return seconds, used


def image(size):
    """A message of the bus with one field of so many bytes."""
    return message(field("pad", OPAQUE, bytes(size)))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--count", type=int, default=300000)
    parser.add_argument("--bytes", type=int, default=100)
    options = parser.parse_args()
    print(machine.describe())
    figures, steady = {}, machine.Steadiness()
    for _ in range(options.rounds):
        with tempfile.TemporaryDirectory() as folder:
            body = pathlib.Path(folder) / "body"
            body.write_bytes(image(options.bytes))
            round_ = Round(folder, options.count, options.bytes, body)
            try:
                for name, bare, bridged, used in round_.roads():
                    figures.setdefault(name, []).append((bare, bridged, used))
                    if name.startswith("plain, from"):
                        steady.add(options.count / bare / 1000)
            finally:
                round_.close()
    print("%-26s %10s %10s %7s %12s" % ("messages of %d bytes" % options.bytes, "bare", "bridge", "ratio", "CPU of it"))
    for name, rows in figures.items():
        bare, bridged, used = (statistics.median(row[at] for row in rows) for at in range(3))
        ratio = steady.ratio("%.2f" % statistics.median(row[0] / row[1] for row in rows))
        print("%-26s %8.0f/s %8.0f/s %7s %9.2f us" % (name, options.count / bare, options.count / bridged, ratio,
                                                     used / options.count * 1e6))
    print(steady.describe("thousand messages a second"))


if __name__ == "__main__":
    main()
