#!/usr/bin/env python3
"""attacks.py PMD PELMOWATCH PELMOGEN: what one client of the daemon may do to the others, and clients
of `pelmowatch serve` to theirs (attacks_serve.py). Each attack on the daemon runs against a
daemon of its own on loopback, with a client beside it that has nothing to do with it: its worst
latency, the time of CPU that the daemon takes and the memory that it grows by are compared with the
bounds that SECURITY.md has. Prints a line for each, and ends with 1 where a bound doesn't hold. A busy
machine's latency is its own: only the CPU and the memory are judged."""
import contextlib
import itertools
import os
import sys
import threading
import time

from attacks_serve import attack_serve
from bus_client import Client, Closed, Daemon, data_message, message, subject_field, text
from live_run import cpu_seconds, open_wire, resident_bytes

PACE_SECONDS = 0.02
BLOCK = 500


def listen(attacker, subjects):
    messages = (message(text("mtype", "L"), subject_field(subject)) for subject in subjects)
    while block := b"".join(itertools.islice(messages, BLOCK)):
        attacker.socket.sendall(block)


def drain(attacker):
    """What the daemon answers is read by a thread, so that nothing waits for it."""
    def run():
        with contextlib.suppress(OSError):
            while attacker.socket.recv(1 << 16):
                pass
    threading.Thread(target=run, daemon=True).start()


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


MB = 1 << 20

# Name, what the attacker does, how much the daemon may grow by, and what it may take of the CPU, in
# seconds, until the attacker's interest is half taken down.
PMD_ATTACKS = [
    ("patterns", many_patterns, 64 * MB, 1.0),
    ("deep subjects", deep_subjects, 64 * MB, 2.0),
    ("subjects", many_subjects, 64 * MB, 2.0),
    ("sends on wildcards", wide_sends, 64 * MB, 1.0),
]


class Bystander:
    """Sends to itself at a steady pace and keeps the worst time."""

    def __init__(self, port):
        self.client = Client(port)
        self.client.listen("bystander")
        self.client.settle()
        self.worst, self.count, self.ends = 0.0, 0, False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.ends:
            begin = time.monotonic()
            self.client.send("bystander")
            self.client.receive()
            self.worst = max(self.worst, time.monotonic() - begin)
            self.count += 1
            time.sleep(PACE_SECONDS)

    def close(self):
        self.ends = True
        self.thread.join()
        self.client.close()


def attack(pmd, name, run, most_bytes, most_seconds):
    daemon = Daemon(pmd)
    try:
        bystander = Bystander(daemon.port)
        pid = daemon.popen.pid
        before, cpu = resident_bytes(pid), cpu_seconds(pid)
        attacker = Client(daemon.port)
        drain(attacker)
        cut_off = True
        with contextlib.suppress(Closed, OSError):
            run(attacker)
            cut_off = False
        time.sleep(1)
        grown = resident_bytes(pid) - before
        attacker.socket.close()
        time.sleep(1)
        spent = cpu_seconds(pid) - cpu
        bystander.close()
        holds = grown <= most_bytes and spent <= most_seconds and bystander.count > 0 and not cut_off
        print("%-20s latency %7.1f ms  memory %+7.1f MB of %d  cpu %5.2f s  %s" %
              (name, bystander.worst * 1000, grown / MB, most_bytes / MB, spent,
               "holds" if holds else "FAILS"), flush=True)
        return holds
    finally:
        daemon.close()


def main():
    pmd, watch, pelmogen = map(os.path.abspath, sys.argv[1:4])
    wire = open_wire()
    results = [attack(pmd, *row) for row in PMD_ATTACKS]
    sys.exit(0 if attack_serve(watch, pelmogen, wire) and all(results) else 1)


if __name__ == "__main__":
    main()
