"""What clients of `pelmowatch serve` may do to the others and to capture: the half of attacks.py for
the server. It captures live on a wire of the test's own, which carries a steady bus, or reads a saved
capture at its own pace where no namespace is permitted. An uninvolved scraper asks for /metrics
meanwhile. Its answers, the memory that the server grows by, its time of CPU and the frames that capture
lost are compared with the bounds that SECURITY.md has."""
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import time

from live_run import Process, Wire

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "watch"))

from served import Server  # noqa: E402

MB = 1 << 20
BUS = "--mix --rate 4000 --hosts 300 --subjects 5000".split()
BUS_FRAMES = 2_000_000  # more than the test waits for
CAPTURE_FRAMES = 400_000
SECONDS = 6  # for each attack
SCRAPE_PACE_SECONDS = 0.1
ADDRESSES = ["127.0.0.%d" % last for last in range(2, 10)]
MOST_BYTES = 64 * MB
# Of a core, beside what the server takes without an attack. It is of low priority.
MOST_LOAD = 1.0


def request(path, *headers, host="localhost"):
    return "".join(line + "\r\n" for line in ("GET %s HTTP/1.1" % path, "Host: " + host, *headers, "")).encode()


class Crowd:
    """The attacker's connections. What the server cuts off is opened again at the caller's pace."""

    def __init__(self, server):
        self.server, self.held = server, []

    def connect(self, text, source="", reads_little=True):
        connection = socket.socket()
        try:
            if reads_little:
                connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
            connection.settimeout(1)
            if source:
                connection.bind((source, 0))
            connection.connect((self.server.host, self.server.port))
            connection.sendall(text)
        except OSError:
            connection.close()
            return None
        self.held.append(connection)
        return connection

    def close(self):
        for connection in self.held:
            connection.close()
        self.held = []


def slow_readers(crowd, path):
    def run():
        for _ in range(40):
            crowd.connect(request(path))
        time.sleep(0.5)
    return run


def dripping_readers(crowd):
    """Each takes some bytes a second, so that none ever is silent."""
    def run():
        if len(crowd.held) < 190:
            for i in range(38):
                crowd.connect(request("/snapshot.json"), ADDRESSES[i % len(ADDRESSES)])
        for connection in crowd.held:
            try:
                connection.setblocking(False)
                connection.recv(200)
            except OSError:
                pass
        time.sleep(0.3)
    return run


def followers(crowd):
    def run():
        for i in range(40):
            crowd.connect(request("/events"), ADDRESSES[i % 3])
        time.sleep(0.5)
    return run


def half_requests(crowd):
    def run():
        for _ in range(200):
            crowd.connect(b"GET /metrics HTTP/1.1\r\nHost: local")
        for connection in crowd.held[:-1000]:
            connection.close()
        del crowd.held[:-1000]
        time.sleep(0.1)
    return run


def crowd_of(crowd, addresses):
    """Mute connections and those that read events, of each address as many as it may have."""
    def run():
        for address in addresses:
            for text in (b"", request("/events"), request("/metrics")) * 20:
                crowd.connect(text, address)
        for connection in crowd.held[:-2000]:
            connection.close()
        del crowd.held[:-2000]
        time.sleep(0.1)
    return run


def asks(crowd, text, status):
    """One after another, as fast as they are answered, and each answer has this status."""
    def run():
        connection = crowd.connect(text, reads_little=False)
        if connection is None:
            return
        connection.settimeout(10)
        answer = b""
        try:
            while piece := connection.recv(1 << 16):
                answer += piece
                if b"\r\n\r\n" in answer:
                    break
        except OSError:
            pass
        connection.close()
        crowd.held.remove(connection)
        assert not answer or b" %d " % status in answer[:20], (text[:60], answer[:200])
        time.sleep(0.002)
    return run


def floods(crowd):
    """Each connection asks for what costs most, over and over, and takes all of it."""
    text = request("/snapshot.json") * 8

    def run():
        while len(crowd.held) < 20:
            if crowd.connect(text, reads_little=False) is None:
                break
        for connection in list(crowd.held):
            try:
                connection.setblocking(False)
                connection.send(text)
                while connection.recv(1 << 18):
                    pass
                raise OSError
            except BlockingIOError:
                pass
            except OSError:
                connection.close()
                crowd.held.remove(connection)
        time.sleep(0.01)
    return run


# Name, what the attacker does over and over.
ATTACKS = [
    ("nobody", lambda crowd: lambda: time.sleep(0.1)),
    ("slow /snapshot.json", lambda crowd: slow_readers(crowd, "/snapshot.json")),
    ("slow /metrics", lambda crowd: slow_readers(crowd, "/metrics")),
    ("dripping readers", dripping_readers),
    ("followers of events", followers),
    ("half requests", half_requests),
    ("one address", lambda crowd: crowd_of(crowd, ADDRESSES[:1])),
    ("eight addresses", lambda crowd: crowd_of(crowd, ADDRESSES)),
    ("5,000 parts", lambda crowd: asks(crowd, request("/metrics?" + "&".join("a" * 5000)), 414)),
    ("another site's page", lambda crowd: asks(
        crowd, request("/snapshot.json", "Origin: http://evil.example", "Sec-Fetch-Site: cross-site"), 403)),
    ("another name", lambda crowd: asks(crowd, request("/snapshot.json", host="evil.example"), 403)),
    ("floods", floods),
]


def resident_bytes(pid):
    with open("/proc/%d/statm" % pid) as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Scraper:
    """Asks for /metrics and /healthz in turn, each on a connection of its own."""

    def __init__(self, server):
        self.server = server
        self.worst, self.answered, self.failed, self.ends = 0.0, 0, 0, False
        self.thread = threading.Thread(target=self.run)
        self.thread.start()

    def run(self):
        while not self.ends:
            path = ("/metrics", "/healthz")[(self.answered + self.failed) % 2]
            begin = time.monotonic()
            try:
                isGood = self.server.answer(path, timeout=10)[0] == 200
            except OSError:
                isGood = False
            self.answered += isGood
            self.failed += not isGood
            self.worst = max(self.worst, time.monotonic() - begin)
            time.sleep(SCRAPE_PACE_SECONDS)

    def close(self):
        self.ends = True
        self.thread.join()


class Memory:
    """The most that the server had while it was looked at."""

    def __init__(self, pid):
        self.pid, self.before = pid, resident_bytes(pid)
        self.most = self.before

    def look(self):
        self.most = max(self.most, resident_bytes(self.pid))

    def grown(self):
        return self.most - self.before


def lost_frames(server):
    return sum(server.metrics()["pelmo_kernel_dropped_frames_total"].values())


def attack(server, name, make):
    pid = server.popen.pid
    lost, cpu, memory = lost_frames(server), cpu_seconds(pid), Memory(pid)
    crowd, scraper = Crowd(server), Scraper(server)
    run = make(crowd)
    begin = time.monotonic()
    while time.monotonic() - begin < SECONDS:
        run()
        memory.look()
    scraper.close()
    load = (cpu_seconds(pid) - cpu) / (time.monotonic() - begin)
    crowd.close()
    lost = lost_frames(server) - lost
    holds = (scraper.failed == 0 and scraper.answered > 0 and memory.grown() <= MOST_BYTES and
             load <= MOST_LOAD and lost == 0)
    print("%-20s latency %7.1f ms  %3d answered, %d not  memory %+6.1f MB of %d  cpu %3.0f %%  %d lost  %s" %
          (name, scraper.worst * 1000, scraper.answered, scraper.failed, memory.grown() / MB, MOST_BYTES / MB,
           load * 100, lost, "holds" if holds else "FAILS"), flush=True)
    time.sleep(1)
    return holds


def start(watch, pelmogen, wire, folder):
    """The server, and what feeds it."""
    if wire.interface != "lo":
        server = Server(watch, folder, "-i", wire.interface, "-u", "1")
        return server, Process(pelmogen, *wire.send, *BUS, "--count", BUS_FRAMES, stdout=subprocess.DEVNULL)
    capture = folder / "bus.pcap"
    subprocess.run([pelmogen, "--out", capture, *BUS, "--count", str(CAPTURE_FRAMES)], check=True,
                   stdout=subprocess.DEVNULL)
    return Server(watch, folder, "-r", capture, "-u", "1", "--pace", awaits_end=False), None


def attack_serve(watch, pelmogen, wire=Wire("lo", ())):
    with tempfile.TemporaryDirectory() as scratch:
        server, bus = start(watch, pelmogen, wire, pathlib.Path(scratch))
        try:
            time.sleep(5)  # all senders and subjects are known
            results = [attack(server, *row) for row in ATTACKS]
            return all(results) and server.running()
        finally:
            server.close()
            if bus:
                bus.close()
