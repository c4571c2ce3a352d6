#!/usr/bin/env python3
"""Messages from process to process over UDP, side by side: reliable endpoints, ENet's reliable packets
and usrsctp, behind a relay with a round trip of 10 ms and a share of datagrams lost each way; and what
a packet costs beside a bare pair of sendto and recvfrom.

Goodput is what arrived in some seconds, from a moment after the first message on, at 32 packets
under way. Where packets are lost, flows wait much of the time, and four run beside each other.

Processor time is that of both ends, user and system, for each packet that the sender sent, on loopback
without a relay. "in step" keeps the sender 32 messages ahead of the receiver at most, so that each
message is a packet, as a rule; "flooded" lets it do what it can, and messages share packets. The bare
pair sends as many datagrams of the same size, in step. Both ends keep to one core, or to one each:
there a good part is what it takes to wake the other one.

Figures are medians of their rounds, ratios medians of those within a round; the roads take turns
within it, with the same loss. Everything runs on this machine, over loopback, and ends with the script.
"""
import argparse
import os
import socket
import statistics
import subprocess
import sys

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
sys.path.insert(0, os.path.join(ROOT, "bench"))
import machine  # noqa: E402
PATIENCE_SECONDS = 60
DELAY_US = 5000  # each way
MOST_LATE_US = 250  # of a relay that doesn't hold its flow up
HEADER_BYTES = 32

SIZES = [1400, 65536]
# (percent lost, seconds, flows beside each other)
LOSSES = [(0, 3, 1), (1, 2.5, 4), (5, 2.5, 4), (10, 2.5, 4)]
# (bytes, messages, messages ahead)
COSTS = [(1400, 200000, 32), (100, 200000, 32), (1400, 200000, 0), (100, 2000000, 0)]
BARE_AHEAD = 32


def free_port():
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Bench:
    def __init__(self, build):
        self.programs = os.path.join(build, "bin")
        self.running = []

    def start(self, program, *words):
        process = subprocess.Popen([os.path.join(self.programs, program)] + [str(w) for w in words],
                                   stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.running.append(process)
        return process

    def ready(self, process):
        if process.stdout.readline() != "ready\n":
            sys.exit("%s isn't ready" % process.args[0])

    def finish(self, process):
        """The numbers that a process leaves when its input ends."""
        out, _ = process.communicate(timeout=PATIENCE_SECONDS)
        self.running.remove(process)
        if process.returncode != 0:
            sys.exit("%s failed" % " ".join(process.args))
        return [float(word) for word in out.split()]

    def roads(self):
        program = os.path.join(self.programs, "direct_bench")
        return subprocess.run([program, "roads"], check=True, capture_output=True,
                              text=True).stdout.split()

    def close(self):
        for process in self.running:
            process.kill()
            process.communicate()

    def open_flow(self, road, size, loss, seconds, seed):
        port, relay_port = free_port(), free_port()
        receiver = self.start("direct_bench", "receive", road, port, seconds)
        self.ready(receiver)
        relay = self.start("udp_relay", relay_port, port, DELAY_US, loss, seed)
        self.ready(relay)
        return receiver, relay, self.start("direct_bench", "send", road, relay_port, size)

    def close_flow(self, flow):
        receiver, relay, sender = flow
        rate = self.finish(receiver)[0]
        self.finish(sender)
        return rate, self.finish(relay)[2]

    def goodput(self, road, size, loss, seconds, flows, round_number):
        """(bytes a second, the relay's mean lateness in us)"""
        seeds = range(round_number * flows, (round_number + 1) * flows)
        opened = [self.open_flow(road, size, loss, seconds, seed + 1) for seed in seeds]
        rates, late = zip(*[self.close_flow(flow) for flow in opened])
        return statistics.mean(rates), statistics.mean(late)

    def cost(self, road, size, count, ahead, cores):
        """(ns a packet, packets)"""
        return self.finish(self.start("direct_bench", "cpu", road, size, count, ahead, cores))


def show_goodput(bench, roads, rounds):
    print("goodput, KB/s; ratio to the better of the others")
    for size in SIZES:
        for loss, seconds, flows in LOSSES:
            rows = {road: [] for road in roads}
            for i in range(rounds):
                for road in roads:
                    rows[road].append(bench.goodput(road, size, loss, seconds, flows, i))
            show_goodput_rows("%6d bytes  %2d%% lost" % (size, loss), rows)


def show_goodput_rows(title, rows):
    line = title
    middle = {road: statistics.median(rate for rate, _ in own) for road, own in rows.items()}
    for road, rate in middle.items():
        line += "  %s %7.1f" % (road, rate / 1000)
    others = [road for road in rows if road != "pelmo"]
    late = max(late for own in rows.values() for _, late in own)
    if late > MOST_LATE_US:
        line += "  no ratio: the relay was %.0f us late" % late
    elif "pelmo" in rows and others:
        best = max(others, key=middle.get)
        pairs = zip(rows["pelmo"], rows[best])
        line += "  %5.2f of %s" % (statistics.median(own[0] / other[0] for own, other in pairs), best)
    print(line, flush=True)


def show_costs(bench, rounds, scale):
    print("processor time of both ends, ns a packet; beside a bare sendto and recvfrom")
    for cores in (1, 2):
        for size, count, ahead in COSTS:
            count = int(count * scale)
            rows = []
            for _ in range(rounds):
                own, packets = bench.cost("pelmo", size, count, ahead, cores)
                datagram = round(size * count / packets) + HEADER_BYTES
                bare, _ = bench.cost("bare", datagram, int(packets), BARE_AHEAD, cores)
                rows.append((own, bare, own / bare, count / packets, own * packets / count))
            title = "%5d bytes  %s  %d core%s" % (
                size, "in step" if ahead else "flooded", cores, "s" if cores > 1 else " ")
            own, bare, ratio, sharing, each = (statistics.median(column) for column in zip(*rows))
            steady = machine.Steadiness()
            steady.values = [row[1] for row in rows]
            print("%s  %5.0f, bare %5.0f  %s  %5.2f messages a packet, %5.0f ns each" % (
                title, own, bare, steady.ratio("%5.2f" % ratio), sharing, each), flush=True)


def main():
    parser = argparse.ArgumentParser(prog="bench/direct.sh", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "release"))
    parser.add_argument("--roads", default="pelmo,enet,sctp",
                        help="those that aren't built are left out")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--scale", type=float, default=1.0, help="of the packets that are timed")
    parser.add_argument("parts", nargs="*", default=["goodput", "cost"],
                        help="goodput, cost; both by default")
    options = parser.parse_args()
    bench = Bench(options.build)
    roads = [road for road in options.roads.split(",") if road in bench.roads()]
    print(machine.describe())
    try:
        if "goodput" in options.parts:
            show_goodput(bench, roads, options.rounds)
        if "cost" in options.parts and "pelmo" in roads:
            show_costs(bench, options.rounds, options.scale)
    finally:
        bench.close()


if __name__ == "__main__":
    main()
