"""What clients of `pelmowatch serve` may do to the others and to capture: the half of attacks.py for
the server. It captures live on a wire of the test's own, which carries a steady bus, or reads a saved
capture at its own pace where no namespace is permitted. An uninvolved scraper asks for /metrics
meanwhile. Its answers, the memory that the server grows by, its time of CPU and the frames that capture
lost are compared with the bounds that SECURITY.md has."""
import contextlib
import pathlib
import socket
import subprocess
import sys
import tempfile
import threading
import time

from live_run import Process, Wire, cpu_seconds, resident_bytes

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


    def keep(self, count):
        """Closes all but the newest."""
        while len(self.held) > count:
            self.held.pop(0).close()


# Each attack is a function of its crowd, which is called over and over.

def opens(text, count, pause, addresses=("",)):
    def run(crowd):
        for i in range(count):
            crowd.connect(text, addresses[i % len(addresses)])
        time.sleep(pause)
    return run


def dripping_readers(crowd):
    """Each takes some bytes a second, so that none ever is silent."""
    if len(crowd.held) < 190:
        for i in range(38):
            crowd.connect(request("/snapshot.json"), ADDRESSES[i % len(ADDRESSES)])
    for connection in crowd.held:
        with contextlib.suppress(OSError):
            connection.setblocking(False)
            connection.recv(200)
    time.sleep(0.3)


def half_requests(crowd):
    for _ in range(200):
        crowd.connect(b"GET /metrics HTTP/1.1\r\nHost: local")
    crowd.keep(1000)
    time.sleep(0.1)


def crowd_of(addresses):
    """Mute connections and those that read events, of each address as many as it may have."""
    def run(crowd):
        for address in addresses:
            for text in (b"", request("/events"), request("/metrics")) * 20:
                crowd.connect(text, address)
        crowd.keep(2000)
        time.sleep(0.1)
    return run


def asks(text, status):
    """One after another, as fast as they are answered, and each answer has this status."""
    def run(crowd):
        connection = crowd.connect(text, reads_little=False)
        if connection is None:
            return
        connection.settimeout(10)
        answer = b""
        with contextlib.suppress(OSError):
            while b"\r\n\r\n" not in answer and (piece := connection.recv(1 << 16)):
                answer += piece
        connection.close()
        crowd.held.remove(connection)
        assert not answer or b" %d " % status in answer[:20], (text[:60], answer[:200])
        time.sleep(0.002)
    return run


def floods(crowd):
    """Each connection asks for what costs most, over and over, and takes all of it."""
    text = request("/snapshot.json") * 8
    while len(crowd.held) < 20 and crowd.connect(text, reads_little=False):
        pass
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


ATTACKS = [
    ("nobody", lambda crowd: time.sleep(0.1)),
    ("slow /snapshot.json", opens(request("/snapshot.json"), 40, 0.5)),
    ("slow /metrics", opens(request("/metrics"), 40, 0.5)),
    ("dripping readers", dripping_readers),
    ("followers of events", opens(request("/events"), 40, 0.5, ADDRESSES[:3])),
    ("half requests", half_requests),
    ("one address", crowd_of(ADDRESSES[:1])),
    ("eight addresses", crowd_of(ADDRESSES)),
    ("5,000 parts", asks(request("/metrics?" + "&".join("a" * 5000)), 414)),
    ("another site's page", asks(
        request("/snapshot.json", "Origin: http://evil.example", "Sec-Fetch-Site: cross-site"), 403)),
    ("another name", asks(request("/snapshot.json", host="evil.example"), 403)),
    ("floods", floods),
]


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


def lost_frames(server):
    return sum(server.metrics()["pelmo_kernel_dropped_frames_total"].values())


def attack(server, name, run):
    pid = server.popen.pid
    lost, cpu, before = lost_frames(server), cpu_seconds(pid), resident_bytes(pid)
    crowd, scraper = Crowd(server), Scraper(server)
    begin, most = time.monotonic(), before
    while time.monotonic() - begin < SECONDS:
        run(crowd)
        most = max(most, resident_bytes(pid))
    scraper.close()
    load = (cpu_seconds(pid) - cpu) / (time.monotonic() - begin)
    crowd.keep(0)
    lost = lost_frames(server) - lost
    holds = (scraper.failed == 0 and scraper.answered > 0 and most - before <= MOST_BYTES and
             load <= MOST_LOAD and lost == 0)
    print("%-20s latency %7.1f ms  %3d answered, %d not  memory %+6.1f MB of %d  cpu %3.0f %%  %d lost  %s" %
          (name, scraper.worst * 1000, scraper.answered, scraper.failed, (most - before) / MB, MOST_BYTES / MB,
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
