#!/usr/bin/env python3
"""Messages through pmd, nats-server and mosquitto (quality 0), side by side.

Rates are delivered messages a second, from the first to the last that the listeners got, and the
processor time for each delivered message, of the broker and of all processes together; latencies are
of requests with a small answer, beside a bare ping-pong over two hops of TCP, and the same with pmd in
its middle. Each figure is the median of its rounds; the brokers take turns within a round, so that
whatever else the machine does meets them all. Everything runs on this machine, over loopback, and ends
with the script. A bare request is timed in each round: where it moved by more than a third within a
run, the machine changed, and no ratio is printed.
"""
import argparse
import os
import re
import resource
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import time

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
sys.path.insert(0, os.path.join(ROOT, "bench"))
import machine  # noqa: E402
TICKS = os.sysconf("SC_CLK_TCK")
PATIENCE_SECONDS = 120
FLOOR_REQUESTS = 3000  # of the bare loop between two rounds of a flow, of 100 bytes each

# (listeners, bytes, messages): about a second each on two cores.
FLOWS = [(1, 100, 1000000), (1, 1024, 500000), (1, 16384, 60000),
         (100, 100, 40000), (100, 1024, 20000), (100, 16384, 2000)]


def ended_seconds():
    """Processor time of all processes that this one has started and that have ended."""
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Broker:
    def __init__(self, command, port):
        self.port = port
        self.process = subprocess.Popen(command, stdout=subprocess.DEVNULL,
                                        stderr=subprocess.DEVNULL)
        deadline = time.monotonic() + 10
        while True:
            try:
                socket.create_connection(("127.0.0.1", port)).close()
                return
            except OSError:
                if time.monotonic() > deadline or self.process.poll() is not None:
                    sys.exit("%s doesn't listen" % command[0])
                time.sleep(0.02)

    def cpu_seconds(self):
        with open("/proc/%d/stat" % self.process.pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def resident_kb(self):
        with open("/proc/%d/status" % self.process.pid) as f:
            return int(re.search(r"VmRSS:\s+(\d+)", f.read()).group(1))

    def close(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()


class Bench:
    def __init__(self, options, scratch):
        self.options = options
        self.scratch = scratch
        self.program = os.path.join(options.build, "bin", "bus_bench")

    def broker(self, road):
        port = free_port()
        if road.startswith("pmd"):
            return Broker([os.path.join(self.options.build, "bin", "pmd"), "-listen",
                           "127.0.0.1:%d" % port, "--client-backlog", "2048"], port)
        config = os.path.join(self.scratch, road + ".conf")
        with open(config, "w") as f:
            if road == "nats":
                f.write('host: 127.0.0.1\nport: %d\nmax_pending: 2147483648\n' % port)
            else:
                f.write("listener %d 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n"
                        "set_tcp_nodelay true\nlog_type none\n" % port)
        command = ["/usr/sbin/nats-server"] if road == "nats" else ["/usr/sbin/mosquitto"]
        return Broker(command + ["-c", config], port)

    def start(self, *words):
        return subprocess.Popen([self.program] + [str(word) for word in words],
                                stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def ready(self, process):
        if process.stdout.readline() != "ready\n":
            process.kill()
            raise RuntimeError("not ready")

    def finish(self, process):
        out, _ = process.communicate(timeout=PATIENCE_SECONDS)
        return [float(word) for word in out.split()]

    def flow(self, road, listeners, size, count):
        """(messages a second, microseconds for each of the broker and of all, share that was lost)"""
        count = max(10, int(count * self.options.scale))
        ended = ended_seconds()
        broker = self.broker(road)
        try:
            listen = self.start("listen", road, broker.port, listeners, count)
            self.ready(listen)
            before = broker.cpu_seconds()
            send = self.start("send", road, broker.port, size, count)
            got, seconds = self.finish(listen)
            cpu = broker.cpu_seconds() - before
            send.kill()
            send.communicate()
        finally:
            broker.close()
        spent = ended_seconds() - ended
        return got / seconds, cpu / got * 1e6, spent / got * 1e6, 1 - got / (count * listeners)

    def floor(self, *words):
        program = os.path.join(self.options.build, "bin", "tcp_floor")
        return self.finish(subprocess.Popen([program] + [str(word) for word in words],
                                            stdout=subprocess.PIPE, text=True))

    def bare_us(self):
        """What the machine takes for a bare request now."""
        return self.floor(100, FLOOR_REQUESTS)[0]

    def requests(self, road, size, count):
        count = max(10, int(count * self.options.scale))
        if road == "tcp":
            return self.floor(size, count)
        broker = self.broker(road)
        try:
            if road == "pmd-bare":
                return self.floor(size, count, broker.port)
            answer = self.start("answer", road, broker.port)
            self.ready(answer)
            times = self.finish(self.start("request", road, broker.port, size, count))
            answer.communicate("")
            return times
        finally:
            broker.close()

    def idle(self, road, clients):
        """KB that a client costs the broker, and ms of its time in ten idle seconds."""
        broker = self.broker(road)
        try:
            before = broker.resident_kb()
            # One of the libraries selects, and knows no descriptor above 1,023.
            parts = [self.start("idle", road, broker.port, clients // 4) for _ in range(4)]
            for part in parts:
                self.ready(part)
            cost = (broker.resident_kb() - before) / clients
            cpu = broker.cpu_seconds()
            time.sleep(10)
            cpu = broker.cpu_seconds() - cpu
            for part in parts:
                part.communicate("")
            return cost, cpu * 1000
        finally:
            broker.close()


def median(rows):
    return [statistics.median(column) for column in zip(*rows)]


def in_turns(roads, rounds, measure, before_round=lambda: None):
    rows = {road: [] for road in roads}
    for _ in range(rounds):
        before_round()
        for road in roads:
            rows[road].append(measure(road))
    return rows


def ratio_of_pairs(rows, road, better):
    """The median of the ratios within each round."""
    return statistics.median(own[0] / other[0] for own, other in zip(rows[road], rows[better]))


def show_flows(bench, roads, rounds):
    print("delivered messages a second; broker's us for each, and of all; lost")
    for listeners, size, count in FLOWS:
        bare = machine.Steadiness()
        rows = in_turns(roads, rounds, lambda road: bench.flow(road, listeners, size, count),
                        lambda: bare.add(bench.bare_us()))
        others = [road for road in roads if not road.startswith("pmd")]
        best = max(others, key=lambda road: median(rows[road])[0], default=None)
        for road in roads:
            rate, cpu, spent, lost = median(rows[road])
            line = "1 to %-3d  %5d bytes  %-10s %10.0f  %7.3f us  %7.3f us" % (
                listeners, size, road, rate, cpu, spent)
            if lost > 0:
                line += "  lost %.1f%%" % (lost * 100)
            if best and road.startswith("pmd"):
                line += bare.ratio("  %.2f of %s" % (ratio_of_pairs(rows, road, best), best))
            print(line, flush=True)
        print("          %s" % bare.describe("us a bare request"), flush=True)


def show_requests(bench, roads, rounds):
    print("request and answer: median, 99.9% in us")
    for size in (100, 1024, 16384):
        rows = in_turns(roads, rounds, lambda road: bench.requests(road, size, 20000))
        bare = machine.Steadiness()
        bare.values = [times[0] for times in rows["tcp"]]
        for road in roads:
            ratio = bare.ratio("%.2f of tcp" % ratio_of_pairs(rows, road, "tcp"))
            print("%5d bytes  %-10s %8.1f %8.1f  %s" % (size, road, *median(rows[road]), ratio),
                  flush=True)
        print("             %s" % bare.describe("us"), flush=True)


def show_idle(bench, roads, clients):
    print("%d idle clients: KB each; ms of processor time in 10 s" % clients)
    for road in roads:
        print("%-10s %8.1f %8.0f" % (road, *bench.idle(road, clients)), flush=True)


def main():
    parser = argparse.ArgumentParser(prog="bench/bus.sh", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", default=os.path.join(ROOT, "build", "release"))
    parser.add_argument("--roads", default="pmd,pmd-batch,nats,mosquitto")
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--scale", type=float, default=1.0, help="of the number of messages")
    parser.add_argument("parts", nargs="*", default=["flows", "requests", "idle"],
                        help="flows, requests, idle; all by default")
    options = parser.parse_args()
    # A client may take several descriptors.
    most = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (most, most))
    roads = options.roads.split(",")
    print(machine.describe())
    with tempfile.TemporaryDirectory() as scratch:
        bench = Bench(options, scratch)
        plain = [road for road in roads if road != "pmd-batch"]
        if "flows" in options.parts:
            show_flows(bench, roads, options.rounds)
        if "requests" in options.parts:
            show_requests(bench, ["tcp", "pmd-bare"] + plain, options.rounds)
        if "idle" in options.parts:
            show_idle(bench, plain, 1000)


if __name__ == "__main__":
    main()
