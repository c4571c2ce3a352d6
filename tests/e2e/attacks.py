#!/usr/bin/env python3
"""attacks.py PMD PELMOWATCH PELMOGEN: what one client of the daemon may do to the others, and clients
of `pelmowatch serve` to theirs and to capture. The daemon is another one for each attack. The server
captures live on a wire of the test's own, which carries a steady bus, or reads a saved capture at its
own pace where no namespace is permitted. A bystander, who has nothing to do with the attack, asks
meanwhile. The time of CPU, the memory that the program grows by, what the bystander got and the frames
that capture lost are compared with the bounds that SECURITY.md has. Prints a line for each attack, and
ends with 1 where a bound doesn't hold. A busy machine's latency is its own: it is shown, not judged."""
import contextlib
import itertools
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import time

from bus_client import Client, Closed, Daemon, data_message, message, subject_field, text
from live_run import Process, cpu_seconds, open_wire, resident_bytes

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "watch"))

from served import Server  # noqa: E402

MB = 1 << 20


class Bystander(threading.Thread):
    """Asks over and over, and keeps the worst time and how often it was answered."""

    def __init__(self, ask, pause_seconds):
        super().__init__()
        self.ask, self.pause_seconds = ask, pause_seconds
        self.worst, self.answered, self.failed, self.ends = 0.0, 0, 0, False
        self.start()

    def run(self):
        while not self.ends:
            begin = time.monotonic()
            try:
                is_good = self.ask()
            except OSError:
                is_good = False
            self.answered += is_good
            self.failed += not is_good
            self.worst = max(self.worst, time.monotonic() - begin)
            time.sleep(self.pause_seconds)

    def close(self):
        self.ends = True
        self.join()


def show(name, bystander, grown, most_bytes, cpu, rest, holds):
    """A line of the outcome; answers whether all holds."""
    holds = holds and bystander.failed == 0 and bystander.answered > 0 and grown <= most_bytes
    print("%-20s latency %7.1f ms  %3d answered, %d not  memory %+6.1f MB of %d  cpu %s  %s%s" %
          (name, bystander.worst * 1000, bystander.answered, bystander.failed, grown / MB, most_bytes / MB, cpu,
           rest, "holds" if holds else "FAILS"), flush=True)
    return holds


# The daemon. Each attack is a function of the attacker's client.

def listen(attacker, subjects):
    messages = (message(text("mtype", "L"), subject_field(subject)) for subject in subjects)
    while block := b"".join(itertools.islice(messages, 500)):
        attacker.socket.sendall(block)


def many_patterns(attacker):
    listen(attacker, map(".".join, itertools.product("a*", repeat=16)))
    for i in range(200):
        attacker.socket.sendall(data_message(".".join(["a"] * 15 + ["b%d" % i]), b"x" * 100))


def deep_subjects(attacker):
    listen(attacker, ("e%d" % i + ".x" * 79 for i in range(100000)))


def many_subjects(attacker):
    listen(attacker, ("A.item%d" % i for i in range(120000)))


def wide_sends(attacker):
    listen(attacker, ("A.item%d" % i for i in range(50000)))
    attacker.socket.sendall(b"".join(data_message("*.*.c%d" % i) for i in range(500)))


# What the daemon may take of the CPU, in seconds, until the attacker's interest is half taken down.
PMD_ATTACKS = [
    ("patterns", many_patterns, 1.0), ("deep subjects", deep_subjects, 2.0), ("subjects", many_subjects, 2.0),
    ("sends on wildcards", wide_sends, 1.0),
]
MOST_BYTES = 64 * MB


def drain(attacker):
    """What the daemon answers is read, so that nothing waits for it."""
    with contextlib.suppress(OSError):
        while attacker.socket.recv(1 << 16):
            pass


def attack_pmd(pmd, name, run, most_seconds):
    with contextlib.closing(Daemon(pmd)) as daemon, contextlib.closing(Client(daemon.port)) as client:
        client.listen("bystander")
        bystander = Bystander(lambda: client.hears(client, "bystander"), 0.02)
        pid = daemon.popen.pid
        before, cpu = resident_bytes(pid), cpu_seconds(pid)
        attacker = Client(daemon.port)
        threading.Thread(target=drain, args=(attacker,), daemon=True).start()
        cut_off = True
        with contextlib.suppress(Closed, OSError):
            run(attacker)
            cut_off = False
        time.sleep(1)
        grown = resident_bytes(pid) - before
        attacker.close()
        time.sleep(1)
        spent = cpu_seconds(pid) - cpu
        bystander.close()
        return show(name, bystander, grown, MOST_BYTES, "%.2f s" % spent, "", spent <= most_seconds and not cut_off)


# The server. Each attack is a function of the attacker's crowd, which is called over and over.

BUS = "--mix --rate 4000 --hosts 300 --subjects 5000".split()
BUS_FRAMES = 2_000_000  # more than the test waits for
CAPTURE_FRAMES = 400_000
SECONDS = 6  # for each attack
ADDRESSES = ["127.0.0.%d" % last for last in range(2, 10)]
MOST_LOAD = 1.0  # of a core; an attack is of low priority


def request(path, *headers, host="localhost"):
    return "".join(line + "\r\n" for line in ("GET %s HTTP/1.1" % path, "Host: " + host, *headers, "")).encode()


class Crowd:
    """The attacker's connections. What the server cuts off is opened again at the caller's pace."""

    def __init__(self, server):
        self.server, self.held = server, []

    def connect(self, text_sent, source="", reads_little=True):
        connection = socket.socket()
        try:
            if reads_little:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            connection.settimeout(1)
            connection.bind((source, 0))
            connection.connect((self.server.host, self.server.port))
            connection.sendall(text_sent)
        except OSError:
            connection.close()
            return None
        self.held.append(connection)
        return connection

    def end(self, connection):
        connection.close()
        self.held.remove(connection)

    def keep(self, count):
        """Closes all but the newest."""
        while len(self.held) > count:
            self.held.pop(0).close()


def opens(texts, count, addresses=("",), pause=0.5, keeps=10000):
    """So many connections, of one address after the other, with each text in turn."""
    def run(crowd):
        for i in range(count):
            crowd.connect(texts[i % len(texts)], addresses[i * len(addresses) // count])
        crowd.keep(keeps)
        time.sleep(pause)
    return run


def dripping_readers(crowd):
    """Each takes some bytes a second, so that none ever is silent."""
    if len(crowd.held) < 190:
        opens([request("/snapshot.json")], 38, ADDRESSES, 0)(crowd)
    for connection in crowd.held:
        with contextlib.suppress(OSError):
            connection.setblocking(False)
            connection.recv(200)
    time.sleep(0.3)


def asks(text_sent, status):
    """One after another, as fast as they are answered, and each answer has this status."""
    def run(crowd):
        connection = crowd.connect(text_sent, reads_little=False)
        if connection is None:
            return
        connection.settimeout(10)
        answer = b""
        with contextlib.suppress(OSError):
            while b"\r\n\r\n" not in answer and (piece := connection.recv(1 << 16)):
                answer += piece
        crowd.end(connection)
        assert not answer or b" %d " % status in answer[:20], (text_sent[:60], answer[:200])
        time.sleep(0.002)
    return run


def floods(crowd):
    """Each connection asks for what costs most, over and over, and takes all of it."""
    asked = request("/snapshot.json") * 8
    while len(crowd.held) < 20 and crowd.connect(asked, reads_little=False):
        pass
    for connection in list(crowd.held):
        try:
            connection.setblocking(False)
            connection.send(asked)
            while connection.recv(1 << 18):
                pass
            crowd.end(connection)
        except BlockingIOError:
            pass
        except OSError:
            crowd.end(connection)
    time.sleep(0.01)


# Mute connections and those that read events, of each address as many as it may have.
CROWD_TEXTS = (b"", request("/events"), request("/metrics"))
SERVE_ATTACKS = [
    ("none", lambda crowd: time.sleep(0.1)),
    ("slow /snapshot.json", opens([request("/snapshot.json")], 40)),
    ("slow /metrics", opens([request("/metrics")], 40)),
    ("dripping readers", dripping_readers),
    ("followers of events", opens([request("/events")], 40, ADDRESSES[:3])),
    ("half requests", opens([b"GET /metrics HTTP/1.1\r\nHost: local"], 200, pause=0.1, keeps=1000)),
    ("one address", opens(CROWD_TEXTS, 60, ADDRESSES[:1], 0.1, 2000)),
    ("eight addresses", opens(CROWD_TEXTS, 480, ADDRESSES, 0.1, 2000)),
    ("5,000 parts", asks(request("/metrics?" + "&".join("a" * 5000)), 414)),
    ("another site's page", asks(
        request("/snapshot.json", "Origin: http://evil.example", "Sec-Fetch-Site: cross-site"), 403)),
    ("another name", asks(request("/snapshot.json", host="evil.example"), 403)),
    ("floods", floods),
]


def lost_frames(server):
    return sum(server.metrics()["pelmo_kernel_dropped_frames_total"].values())


def attack_server(server, name, run):
    pid, paths = server.popen.pid, itertools.cycle(("/metrics", "/healthz"))
    lost, cpu, before = lost_frames(server), cpu_seconds(pid), resident_bytes(pid)
    crowd, scraper = Crowd(server), Bystander(lambda: server.answer(next(paths), timeout=10)[0] == 200, 0.1)
    begin, most = time.monotonic(), before
    while time.monotonic() - begin < SECONDS:
        run(crowd)
        most = max(most, resident_bytes(pid))
    scraper.close()
    load = (cpu_seconds(pid) - cpu) / (time.monotonic() - begin)
    crowd.keep(0)
    lost = lost_frames(server) - lost
    holds = show(name, scraper, most - before, MOST_BYTES, "%3.0f %%" % (load * 100), "%d lost  " % lost,
                 load <= MOST_LOAD and lost == 0)
    time.sleep(1)
    return holds


def attack_serve(watch, pelmogen, wire):
    with tempfile.TemporaryDirectory() as scratch, contextlib.ExitStack() as ends:
        folder = pathlib.Path(scratch)
        if wire.interface != "lo":
            server = ends.enter_context(contextlib.closing(Server(watch, folder, "-i", wire.interface, "-u", "1")))
            ends.enter_context(contextlib.closing(Process(pelmogen, *wire.send, *BUS, "--count", BUS_FRAMES,
                                                          stdout=subprocess.DEVNULL)))
        else:
            capture = folder / "bus.pcap"
            subprocess.run([pelmogen, "--out", capture, *BUS, "--count", str(CAPTURE_FRAMES)], check=True,
                           stdout=subprocess.DEVNULL)
            server = ends.enter_context(contextlib.closing(
                Server(watch, folder, "-r", capture, "-u", "1", "--pace", awaits_end=False)))
        time.sleep(5)  # all senders and subjects are known
        results = [attack_server(server, *row) for row in SERVE_ATTACKS]
        return all(results) and server.running()


def main():
    pmd, watch, pelmogen = map(os.path.abspath, sys.argv[1:4])
    wire = open_wire()
    results = [attack_pmd(pmd, *row) for row in PMD_ATTACKS]
    sys.exit(0 if attack_serve(watch, pelmogen, wire) and all(results) else 1)


if __name__ == "__main__":
    main()
