"""A client of NATS, line by line, and servers of it: what tests of the bridge look from the other side with."""
import json
import pathlib
import socket
import subprocess

from bus_client import free_port
from live_run import PATIENCE_SECONDS, Process, wait_until

SERVER = "/usr/sbin/nats-server"


class NatsClient:
    def __init__(self, port, seconds=PATIENCE_SECONDS):
        self.socket = socket.create_connection(("127.0.0.1", port), seconds)
        self.file = self.socket.makefile("rb")
        self.file.readline()  # INFO
        self.write("CONNECT " + json.dumps({"verbose": False, "headers": True, "no_responders": True}))
        self.last = 0
        self.flush()

    def write(self, line, body=b""):
        self.socket.sendall(line.encode() + b"\r\n" + body)

    def close(self):
        self.file.close()
        self.socket.close()

    def flush(self):
        """All that was written has reached the server."""
        self.write("PING")
        self.waiting = []
        while (line := self.line()) != b"PONG":
            self.waiting += self.taken(line)

    def line(self):
        line = self.file.readline()
        assert line, "the server hung up"
        return line.strip()

    def subscribe(self, subject):
        self.last += 1
        self.write("SUB %s %d" % (subject, self.last))
        self.flush()

    def publish(self, subject, body, headers=None, reply=""):
        if headers:
            head = "NATS/1.0\r\n" + "".join("%s: %s\r\n" % row for row in headers.items()) + "\r\n"
            self.write("HPUB %s %s %d %d" % (subject, reply, len(head), len(head) + len(body)),
                       head.encode() + body + b"\r\n")
        else:
            self.write("PUB %s %s %d" % (subject, reply, len(body)), body + b"\r\n")

    def taken(self, line):
        words = line.decode().split()
        if words and words[0] == "PING":
            self.write("PONG")
        if not words or words[0] not in ("MSG", "HMSG"):
            return []
        bytes_ = self.file.read(int(words[-1]) + 2)[:-2]
        head_size = int(words[-2]) if words[0] == "HMSG" else 0
        sizes = 2 if words[0] == "HMSG" else 1
        reply = words[3] if len(words) > 3 + sizes else ""
        head = bytes_[:head_size].decode().split("\r\n")[1:]
        headers = dict(row.split(": ", 1) for row in head if ": " in row)
        return [(words[1], reply, headers, bytes_[head_size:])]

    def receive(self):
        while not self.waiting:
            self.waiting += self.taken(self.line())
        return self.waiting.pop(0)

    def ask(self, subject, request):
        self.subscribe("TEST.ANSWERS.%d" % self.last)
        self.publish(subject, json.dumps(request).encode(), reply="TEST.ANSWERS.%d" % (self.last - 1))
        while True:
            to, _, _, body = self.receive()
            if to.startswith("TEST.ANSWERS."):
                return json.loads(body) if body else {"error": "no answer"}


class NatsServer(Process):
    """One server, on a port of its own; `settings` are lines of its configuration."""

    def __init__(self, folder, name="n1", port=0, settings=""):
        self.folder, self.name, self.port = pathlib.Path(folder) / name, name, port or free_port()
        self.folder.mkdir(exist_ok=True)
        self.conf = self.folder / "conf"
        self.conf.write_text('server_name: %s\nlisten: "127.0.0.1:%d"\njetstream { store_dir: "%s" }\n%s\n' %
                             (name, self.port, self.folder, settings))
        self.begin()

    def begin(self):
        with open(self.folder / "log", "ab") as log:
            super().__init__(SERVER, "-c", self.conf, stdout=log, stderr=log)
        wait_until(self.answers, "nats-server")

    def answers(self):
        assert self.running(), (self.folder / "log").read_text()[-1000:]
        try:
            socket.create_connection(("127.0.0.1", self.port), 1).close()
            return True
        except OSError:
            return False


def cluster(folder, count=3):
    """Servers that replicate streams, once they have a leader."""
    ports = [(free_port(), free_port()) for _ in range(count)]
    routes = ", ".join('"nats://127.0.0.1:%d"' % route for _, route in ports)
    servers = [NatsServer(folder, "n%d" % at, port, 'cluster { name: c, listen: "127.0.0.1:%d", routes: [%s] }' %
                          (route, routes)) for at, (port, route) in enumerate(ports)]

    def has_leader():
        client = NatsClient(ports[0][0], seconds=1)
        try:
            return "streams" in client.ask("$JS.API.INFO", {})
        except TimeoutError:
            return False
        finally:
            client.close()
    wait_until(has_leader, "a leader of the cluster")
    return servers


def have_server():
    return pathlib.Path(SERVER).exists() and \
        subprocess.run([SERVER, "--version"], capture_output=True, check=False).returncode == 0
