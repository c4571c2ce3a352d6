#!/usr/bin/env python3
"""Random lives of a whole bus: bus_lives.py PELMOBUS PMD [--seeds FIRST-LAST] [--at-once COUNT] [--keep].

A seed gives a life: a daemon, programs that send, listen, ask, answer and hold circuits, and what befalls them.
Each leaves records; lives_check.py says what must hold of them, whatever befell. Then the daemon must be at
rest: as many descriptors as at its start, little memory, no work. A seed that fails prints the line that lives
it again.
"""
import argparse
import concurrent.futures
import os
import pathlib
import random
import resource
import signal
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from bus_client import Daemon  # noqa: E402
from lives_check import Asking, Circuit, Listener, Sender, check  # noqa: E402
from lives_relay import Line, Relay  # noqa: E402
from live_run import Tool, cpu_seconds, descriptors, environment, resident_bytes, wait_until  # noqa: E402

STUCK_SECONDS = 120  # of a busy machine; what takes longer waits for something that won't come
REST_BYTES = 100 << 20
MEGA = 1000 * 1000


def settles(test, what):
    wait_until(test, what, STUCK_SECONDS)


class Program(Tool):
    """A pelmobus whose output lies in files, so that it never waits for its reader."""

    def __init__(self, life, name, port, *words, lines=(), settings=(), limits=()):
        self.name, self.port, self.troubled = name, port, False
        given = life.folder / (name + ".in")
        given.write_text("".join(line + "\n" for line in lines))
        with open(given) as stdin:
            super().__init__(life.pelmobus, life.folder / name, *settings, "--daemon", "127.0.0.1:%d" % port, *words,
                             stdin=stdin)
        for limit, value in limits:
            resource.prlimit(self.popen.pid, limit, (value, value))
        life.programs.append(self)

    def said(self):
        return self.text("stderr")

    def lines(self):
        text = self.text()
        return text[:text.rfind("\n") + 1].splitlines()

    def await_words(self, words):
        settles(lambda: words in self.said() or not self.running(), "%s waits for \"%s\"" % (self.name, words))

    def end(self, number=None):
        """Its status; a signal that is given asks for the end."""
        if number and self.running():
            self.troubled = True
            self.popen.send_signal(number)
        try:
            return self.status(STUCK_SECONDS)
        except subprocess.TimeoutExpired:
            raise AssertionError("%s doesn't end: %s" % (self.name, self.said()[-300:])) from None


class Life:
    def __init__(self, pelmobus, pmd, seed, folder):
        self.pelmobus, self.pmd, self.folder = pelmobus, pmd, folder
        self.chance = random.Random(seed)
        self.programs, self.relays, self.daemons, self.said = [], [], [], ""
        self.senders, self.listening, self.circuits, self.askings = [], [], [], []
        self.lived = []  # what befell, in words

    # What there is.

    def start_daemon(self, *options, port=None):
        # A sanitizer keeps freed memory for a while.
        keeps = os.environ.get("ASAN_OPTIONS", "") + ":quarantine_size_mb=1:allocator_release_to_os_interval_ms=500"
        self.daemon = Daemon(self.pmd, *options, port=port, env=environment(ASAN_OPTIONS=keeps))
        self.daemons.append(self.daemon)
        self.base_descriptors = descriptors(self.daemon)
        self.port = self.daemon.port

    def relay(self, **line):
        self.relays.append(Relay(self.port, Line(**line)))
        return self.relays[-1]

    def listen(self, name, *subjects, port=None, early=True, settings=()):
        program = Program(self, name, port or self.port, "listen", *subjects, settings=settings)
        for subject in subjects:
            program.await_words("listening on " + subject)
        self.listening.append((program, subjects, early))
        return program

    def relive(self, listening):
        """A listener is killed and started again, with numbers of its own."""
        program, subjects, _ = listening
        self.lived.append(program.name + " is killed and started again")
        program.end(signal.SIGKILL)
        self.listen(program.name + "-again", *subjects, port=program.port, early=False)

    def send(self, name, subject, count, *words, port=None, settings=(), limits=()):
        program = Program(self, name, port or self.port, "send", subject, "life=" + name, "--sequence", "--count", count,
                          *words, settings=settings, limits=limits)
        self.senders.append((program, subject, count))
        return program

    def ask(self, name, subject, count, settings=()):
        self.askings.append((Program(self, name, self.port, "request", subject, "life=" + name, "--sequence",
                                     "--count", count, "--seconds", 20, settings=settings), count))

    # What befalls.

    def sleep(self, least, most):
        time.sleep(self.chance.uniform(least, most))

    def cut(self, relay):
        self.lived.append("cut %d" % relay.cut())

    def stop_for(self, process, seconds):
        self.lived.append("%s is stopped" % getattr(process, "name", "the daemon"))
        process.popen.send_signal(signal.SIGSTOP)
        time.sleep(seconds)
        process.popen.send_signal(signal.SIGCONT)

    def kill_daemon(self):
        self.lived.append("the daemon is killed")
        self.daemon.popen.kill()
        self.daemon.popen.wait()
        self.said += self.daemon.log()

    def restart_daemon(self, *options):
        self.kill_daemon()
        self.sleep(0, 0.5)
        self.start_daemon(*options, port=self.port)

    # The end.

    def settle(self):
        """All senders have ended: what is still under way arrives, and each listener gets a last message."""
        for program, *_ in self.senders + self.askings:
            program.end()
        for relay in self.relays:
            relay.line.open.set()
            relay.line.rate, relay.line.delay = 0, 0.0
            settles(relay.is_idle, "a relay's bytes")
        for program, subjects, _ in self.listening:
            if program.running():
                self.mark(program, subjects[0].replace("*", "MARK").replace(">", "MARK"))

    def mark(self, program, subject):
        """Twice: what came by another connection before the first is there by the second. The listener's own
        connection may only just be back."""
        for number in (1, 2):
            word = 'mark="%s.%d"' % (program.name, number)

            def arrived():
                sent = subprocess.run([self.pelmobus, "--daemon", "127.0.0.1:%d" % self.port, "send", subject,
                                       word.replace('"', "")], capture_output=True, check=False, env=environment(),
                                      timeout=STUCK_SECONDS)
                time.sleep(0.1)
                return sent.returncode == 0 and word in program.text()
            settles(arrived, "%s gets no more: %s" % (program.name, program.said()[-300:]))

    def records(self):
        senders = [Sender(program.name, subject, count, program.end(), program.said(), program.troubled)
                   for program, subject, count in self.senders]
        listeners = []
        for program, subjects, early in self.listening:
            running = program.running()
            status = program.end(signal.SIGTERM)
            listeners.append(Listener(program.name, subjects, program.lines(), status, program.said(), early and running))
        askings = [Asking(program.name, count, program.lines(), program.end(), program.said())
                   for program, count in self.askings]
        return senders, listeners, self.circuits, askings, self.said + self.daemon.log(), not self.lived

    def check_rest(self):
        """The daemon alone: nothing of its clients stays, but for absent sessions' ten seconds."""
        for program in self.programs:
            if program.running():
                program.end(signal.SIGTERM)
        settles(lambda: descriptors(self.daemon) <= self.base_descriptors, "the daemon's descriptors")
        pid = self.daemon.popen.pid
        settles(lambda: resident_bytes(pid) <= REST_BYTES, "the daemon to give memory back")
        before = cpu_seconds(pid)
        time.sleep(0.5)
        if cpu_seconds(pid) - before > 0.2:
            yield "the daemon works though no client is there: %.2f seconds" % (cpu_seconds(pid) - before)

    def close(self):
        for program in self.programs + self.daemons:
            if program.running():
                program.popen.send_signal(signal.SIGCONT)
            program.close()
        for relay in self.relays:
            relay.close()


# Lives. Each is a function of its Life; what it leaves is judged alike.

def life_of_bursts(life):
    """More than waits for a connection, sent as fast as it goes, while the connection breaks."""
    life.start_daemon()
    relay = life.relay(rate=life.chance.choice((6, 12, 25)) * MEGA)
    for name, pattern in (("exact", "A.B"), ("wild", "A.>")):
        life.listen(name, pattern)
    size = life.chance.choice((100 * 1000, MEGA))
    sender = life.send("burst", "A.B", 60 * MEGA // size, "--size", size, "--wait", port=relay.port)
    for _ in range(life.chance.randrange(1, 4)):
        life.sleep(0.3, 1.2)
        if sender.running():
            life.cut(relay)


def life_of_slow_ends(life):
    """A sender ends with megabytes before it; the link is slow, or the daemon goes meanwhile."""
    life.start_daemon()
    relay = life.relay(rate=life.chance.choice((1.5, 2.2)) * MEGA)
    life.listen("exact", "A.B")
    size = life.chance.choice((900, 5000))
    sender = life.send("slow", "A.B", 15 * MEGA // size, "--size", size, port=relay.port,
                       settings=life.chance.choice(((), ("--batch",))))
    if life.chance.random() < 0.35:
        life.sleep(1.5, 3)
        life.kill_daemon()
        relay.cut()
        sender.end()
        life.start_daemon(port=life.port)


def circuit_lines(program):
    return [line[len('LINE {line="'):-2] for line in program.lines() if line.startswith("LINE {")]


def lines_to_send(life, count):
    return ["%s %d %s" % (chr(97 + number % 26), number, "x" * life.chance.choice((0, 10, 400)))
            for number in range(count)]


def hold_circuit(life, settings, ports, befall):
    """One end sends lines. The connecting one ends with its own, or with all of the other's."""
    given = lines_to_send(life, life.chance.choice((60, 500, 2000)))
    is_back = life.chance.random() < 0.4
    accept = Program(life, "accept", ports[0], "circuit", "accept", "CIRCUIT.ONE", settings=settings,
                     lines=given if is_back else ())
    accept.await_words("listening on")
    connect = Program(life, "connect", ports[1], "circuit", "connect", "CIRCUIT.ONE",
                      *(("--count", len(given)) if is_back else ()), settings=settings, lines=() if is_back else given)
    befall(accept, connect)
    ends = [connect, accept]
    statuses = [program.end() for program in ends]
    life.circuits.append(Circuit("circuit", given, circuit_lines(connect if is_back else accept), statuses,
                                 [program.said() for program in ends]))


def life_of_a_circuit(life):
    """Over the daemon, with a break of one end that is repaired at once, or without."""
    life.start_daemon()
    relay = life.relay(delay=0.002, piece=life.chance.choice((700, 4000)))
    ports = life.chance.choice(((life.port, relay.port), (relay.port, life.port)))

    def befall(accept, connect):
        connect.await_words("connected")
        if life.chance.random() < 0.8:
            life.sleep(0, 0.06)
            life.cut(relay)
    hold_circuit(life, (), ports, befall)


def life_of_a_direct_circuit(life):
    life.start_daemon()

    def befall(accept, connect):
        if life.chance.random() < 0.3:
            life.stop_for(life.chance.choice((accept, connect)), life.chance.uniform(0.05, 1))
    for number in range(2):
        hold_circuit(life, ("--service", "7500:"), (life.port, life.port), befall)


def life_of_large_messages(life):
    """Messages near the backlog or above it, to one that reads as fast as it can."""
    small = life.chance.random() < 0.5
    life.start_daemon(*(("--client-backlog", "8") if small else ()))
    life.listen("exact", "BIG.*")
    for number in range(1 if small else 2):
        life.send("large%d" % number, "BIG.N%d" % number, life.chance.choice((1, 2)), "--size", (20 if small else 40) * MEGA)


def life_of_many(life):
    """A little of all, and a little of everything that may befall."""
    life.start_daemon()
    relays = [life.relay(piece=life.chance.choice((1 << 16, 900)), delay=life.chance.choice((0, 0.001)))
              for _ in range(2)]
    ports = [life.port, *(relay.port for relay in relays)]
    heard = life.listen("relayed", "MANY.*", port=relays[0].port)
    life.listen("wild", "MANY.>", "OTHER")
    answers = Program(life, "answers", life.port, "answer", "ASK.ME", settings=life.chance.choice(((), ("--service", ""))))
    answers.await_words("listening on")
    direct = Program(life, "direct", life.port, "answer", "ASK.DIRECT", settings=("--service", "7500:"))
    direct.await_words("listening on")
    for number in range(3):
        words = ["--rate", life.chance.choice((0, 300, 2000)), "--size", life.chance.choice((10, 300, 20000))]
        if life.chance.random() < 0.6:
            words.append("--wait")
        few = [(resource.RLIMIT_NOFILE, 24)] if life.chance.random() < 0.3 else []
        if few:
            life.lived.append("s%d has few descriptors" % number)
        life.send("s%d" % number, life.chance.choice(("MANY.A", "MANY.B")), life.chance.choice((50, 600)), *words,
                  port=life.chance.choice(ports), limits=few,
                  settings=life.chance.choice(((), ("--batch",))))
    if life.chance.random() < 0.2:
        life.lived.append("one has little memory")
        life.send("poor", "MANY.B", 300, "--size", 200 * 1000, "--wait", port=ports[1],
                  limits=[(resource.RLIMIT_DATA, life.chance.choice((24, 64, 96)) << 20)])
    life.ask("asks", "ASK.ME", 20)
    life.ask("asks-direct", "ASK.DIRECT", 20, settings=("--service", "7500:"))
    for _ in range(life.chance.randrange(0, 4)):
        life.sleep(0.05, 0.4)
        befall = life.chance.randrange(7)
        if befall == 0:
            life.stop_for(heard, life.chance.uniform(0.1, 0.8))
        elif befall == 1:
            life.stop_for(life.daemon, life.chance.uniform(0.1, 0.8))
        elif befall == 2:
            life.cut(life.chance.choice(relays))
        elif befall == 3:
            life.restart_daemon()
        elif befall == 4:
            relay = life.chance.choice(relays)
            relay.line.open.clear()
            life.sleep(0.1, 0.6)
            relay.line.open.set()
        elif befall == 5:
            life.relive(life.chance.choice([one for one in life.listening if one[0].running()]))
        else:
            victim = life.chance.choice(life.senders)[0]
            life.lived.append(victim.name + " is ended")
            victim.end(life.chance.choice((signal.SIGTERM, signal.SIGKILL)))


LIVES = (life_of_bursts, life_of_a_direct_circuit, life_of_slow_ends, life_of_a_circuit, life_of_large_messages,
         life_of_many)


def live(pelmobus, pmd, seed, folder):
    """All that is wrong with the life of a seed, and what it was."""
    kind = LIVES[seed % len(LIVES)]
    life = Life(pelmobus, pmd, seed, folder)
    try:
        kind(life)
        life.settle()
        faults = check(*life.records())
        faults += life.check_rest()
    except AssertionError as stuck:
        faults = [str(stuck)]
    finally:
        life.close()
    return faults, "%s (%s)" % (kind.__name__, "; ".join(life.lived) or "nothing befell")


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("pelmobus", type=os.path.abspath)
    parser.add_argument("pmd", type=os.path.abspath)
    parser.add_argument("--seeds", default="0-11", help="FIRST-LAST, or one")
    parser.add_argument("--at-once", type=int, default=3)
    parser.add_argument("--keep", action="store_true", help="keep what failing lives left, and say where")
    options = parser.parse_args()
    first, _, last = options.seeds.partition("-")
    seeds = range(int(first), int(last or first) + 1)
    failed = 0

    def run(seed):
        folder = pathlib.Path(tempfile.mkdtemp(prefix="bus-life-"))
        faults, lived = live(options.pelmobus, options.pmd, seed, folder)
        if not (faults and options.keep):
            shutil.rmtree(folder)
        return seed, faults, lived, folder
    with concurrent.futures.ThreadPoolExecutor(options.at_once) as pool:
        for seed, faults, lived, folder in pool.map(run, seeds):
            if not faults:
                continue
            failed += 1
            print("seed %d, %s:" % (seed, lived))
            print("".join("    %s\n" % fault for fault in faults), end="")
            if options.keep:
                print("    records: %s" % folder)
            print("    again: %s %s %s %s --seeds %d" % (sys.executable, sys.argv[0], options.pelmobus, options.pmd, seed),
                  flush=True)
    print("%d lives, %d failed" % (len(seeds), failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
