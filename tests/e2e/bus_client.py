"""A client of the bus, byte by byte: what tests of the daemon speak with it. Nothing here calls the
code under test.

    client = Client(port)                 # shaken hands and started, as the library does it
    client.listen("A.>")
    client.send("A.B", b"payload")
    subject, message = client.receive()
"""
import pathlib
import socket
import struct
import tempfile

from live_run import PATIENCE_SECONDS, Process, wait_until
from packets import field, packed_subject

MAGIC = 0x9955eeaa
SUBJECT, STRING, OPAQUE, BOOL, INT, MESSAGE = 2, 8, 7, 9, 11, 1
HELLO_BYTES, LIMIT = 64, 0x4000000
OFFER, COUNTER, AGREED = 2, 3, 1


def message(*fields):
    body = b"".join(fields)
    return struct.pack(">II", 8 + len(body), MAGIC) + body


def text(name, value):
    return field(name, STRING, value.encode() + b"\0")


def number(name, value):
    return field(name, INT, struct.pack(">i", value))


def subject_field(value):
    return b"\4sub\0" + bytes([SUBJECT, 121]) + packed_subject(value)


def data_message(subject, payload=b"", reply=None):
    inner = message(field("pad", OPAQUE, payload))
    fields = [subject_field(subject), text("mtype", "D"), b"\5data\0" + bytes([MESSAGE, 122]) + inner]
    if reply:
        fields.insert(1, text("return", reply))
    return message(*fields)


def start_message(session="", service="", **more):
    fields = [text("mtype", "I"), text("userid", "tester")]
    fields += [text("session", session)] if session else []
    fields += [text("service", service), text("network", "")]
    fields += [number(name, 8) for name in ("vmaj", "vmin", "vupd", "pid")]
    fields += [field("rc", BOOL, b"\0")]
    fields += [field(name, BOOL, bytes([value])) for name, value in more.items()]
    return message(*fields)


def subject_of(image):
    """The send subject of a message, or its kind where it has none."""
    at = image.find(b"\4sub\0\2\x79")
    if at < 0:
        return image[image.find(b"\6mtype\0") + 9:][:1].decode()
    count, at, elements = image[at + 9], at + 10, []
    for _ in range(count):
        elements.append(image[at + 1:at + image[at] - 1].decode())
        at += image[at]
    return ".".join(elements)


def value_of(image, name):
    """Of the first field of that name, a short one."""
    at = image.index(bytes([len(name) + 1]) + name.encode() + b"\0") + len(name) + 3
    return image[at + 1:at + 1 + image[at]]


def hello(kind):
    return struct.pack(">II4xHHxxxxII", kind, 2, 0, 1, LIMIT, LIMIT).ljust(HELLO_BYTES, b"\0")


class Closed(Exception):
    pass


class Client:
    def __init__(self, port, start=True, timeout=PATIENCE_SECONDS, receive_bytes=None, **more):
        self.socket = socket.socket()
        if receive_bytes:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        self.socket.settimeout(timeout)
        self.socket.connect(("127.0.0.1", port))
        self.socket.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.session, self.client_id, self.left = more.pop("session", ""), 0, b""
        if start:
            try:
                self.shake_hands()
                self.start(**more)
            except BaseException:
                self.close()
                raise

    def exactly(self, size):
        while len(self.left) < size:
            try:
                got = self.socket.recv(1 << 20)
            except ConnectionResetError:
                got = b""
            if not got:
                raise Closed()
            self.left += got
        taken, self.left = self.left[:size], self.left[size:]
        return taken

    def shake_hands(self):
        assert self.exactly(12) == struct.pack(">III", 0, 4, 0)
        self.socket.sendall(struct.pack(">III", 0, 4, 1))
        assert self.exactly(HELLO_BYTES) == hello(OFFER)
        self.socket.sendall(hello(COUNTER))
        assert self.exactly(HELLO_BYTES) == hello(AGREED)

    def start(self, **more):
        self.more = more
        self.socket.sendall(start_message(self.session, **more))
        reply = self.message()
        assert subject_of(reply) == "R", reply
        if b"\6error\0" in reply:
            raise Closed()
        self.client_id = struct.unpack(">H", value_of(reply, "cid"))[0]
        gob = value_of(reply, "gob").rstrip(b"\0").decode()
        self.session = self.session or "7F000001.U%04X.%s" % (self.client_id, gob)
        self.socket.sendall(start_message(self.session, **more))

    def message(self):
        head = self.exactly(8)
        size, magic = struct.unpack(">II", head)
        assert magic == MAGIC, head
        return self.message() if size == 8 else head + self.exactly(size - 8)

    def receive(self):
        image = self.message()
        return subject_of(image), image

    def listen(self, *subjects, kind="L"):
        for subject in subjects:
            self.socket.sendall(message(text("mtype", kind), subject_field(subject)))
        self.settle()

    def settle(self):
        """Until the daemon has taken all that was sent: it answers a third start message, in order."""
        self.socket.sendall(start_message(self.session, **self.more))
        while subject_of(self.message()) != "R":
            pass

    def send(self, subject, payload=b"", reply=None):
        image = data_message(subject, payload, reply)
        self.socket.sendall(image)
        return image

    def hears(self, sender, subject, payload=b""):
        """Does the next message that comes here equal the one that is sent there now?"""
        sent = sender.send(subject, payload)
        return self.message() == sent

    def is_cut_off(self):
        try:
            while True:
                self.exactly(1)
        except Closed:
            return True
        except socket.timeout:
            return False

    def close(self):
        self.socket.close()


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Daemon(Process):
    """The daemon on a port of its own, which listens once this is made."""

    def __init__(self, binary, *arguments, port=None, wrapper=(), **more):
        self.port = port or free_port()
        self.log_file = tempfile.NamedTemporaryFile(mode="r", suffix=".log")
        self.path = pathlib.Path(self.log_file.name)
        with open(self.path, "wb") as log:
            super().__init__(*wrapper, binary, "-listen", "127.0.0.1:%d" % self.port, *arguments, stdout=log,
                             stderr=log, **more)
        wait_until(lambda: "listening on" in self.log() or not self.running(), "the daemon")

    def log(self):
        return self.path.read_text()

    def close(self):
        super().close()
        self.log_file.close()
