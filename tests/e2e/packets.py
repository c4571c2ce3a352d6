"""Captures written as text, a packet to a line. Nothing here calls the code under test: checksums and
lengths are made in the plainest way.

    data from=10.0.0.1:7001 to=239.1.1.1:7500 seq=7 {<A.B>}     # comment
    null r=0.5
    at 1700000005.25

Kinds: data, null, rreq, rrej, ptp (data between two hosts), ackme, ack, nak, "type" with a number, and
"frame" with the bytes of a whole frame. "at" sets the time of what follows, in seconds.

Words, all optional; what the first three leave out is as above:

    from=ADDRESS[:PORT]  to=ADDRESS[:PORT]  epoch=HEX seq=NUMBER
    src=ADDRESS dst=ADDRESS      of the bus's own header, where they aren't those of the IP header
    fragment=NUMBER              of data
    r=NUMBER                     the reliability of a null, which has none otherwise
    items=NUMBER                 of an rreq, 1 otherwise

Damage, done in the order of its words. Offsets are in bytes, negative ones from the end:

    ip@OFFSET=HEX     stored from the IP header on; the checksum stays as it was
    bus@OFFSET=HEX    stored from the bus's header on; the checksum is made again
    says=BYTES        IP and UDP lengths and checksum of so many bytes from the bus's header on
    cut=BYTES pad=BYTES   what was captured of the IP packet

A payload is a row of: hex digits; {...}, a message of what is in it; <A.B>, the field of a subject;
(NAME:TYPE:...), a field with the shortest prefix that fits; "..." text; *BYTES, so many bytes.
Without one, data holds a message without fields.
"""
import ipaddress
import re
import struct

TYPES = {"data": 1, "rreq": 3, "null": 4, "rrej": 5, "ptp": 6, "ackme": 7, "ack": 8, "nak": 9}
BUS, UDP, ETHERNET = 28, 20, bytes.fromhex("01005e010101 020000000001 0800")
DAMAGE = re.compile(r"(ip|bus)@(-?\d+)=([0-9a-f]+)|(says|cut|pad)=(-?\d+)")


def packed_subject(text):
    elements = b"".join(struct.pack("B%dsB" % len(e), len(e) + 2, e.encode(), 0)
                        for e in text.split("."))
    return struct.pack(">HB", len(elements) + 3, text.count(".") + 1) + elements


def field(name, kind, value):
    prefix = struct.pack("B", len(value)) if len(value) < 120 else \
        struct.pack(">BH", 121, len(value) + 2) if len(value) < 30000 else \
        struct.pack(">BI", 122, len(value) + 4)
    area = name.encode() + b"\0" if name else b""
    return struct.pack("B", len(area)) + area + struct.pack("B", kind) + prefix + value


class Payload:
    """Reads a payload's text; each part gives its bytes."""

    def __init__(self, text):
        self.text, self.at = text, 0

    def take(self, pattern):
        match = re.compile(pattern).match(self.text, self.at)
        if match is None:
            raise ValueError("no payload: %s" % self.text[self.at:])
        self.at = match.end()
        return match

    def parts(self, end=""):
        made = b""
        while self.text[self.at:self.at + 1] != end:
            made += self.part()
        self.at += len(end)
        return made

    def part(self):
        start = self.take(r'[{(<"*]|(?:[0-9a-f]{2})+')[0]
        if start == "{":
            body = self.parts("}")
            return struct.pack(">II", 8 + len(body), 0x9955eeaa) + body
        if start == "(":
            name, kind = self.take(r"(\w*):(\d+):").groups()
            return field(name, int(kind), self.parts(")"))
        if start == "<":
            return b"\4sub\0\2\x79" + packed_subject(self.take("([^>]*)>")[1])
        if start == '"':
            return self.take('([^"]*)"')[1].encode()
        if start == "*":
            return b"\x77" * int(self.take(r"\d+")[0])
        return bytes.fromhex(start)


def address(text):
    return ipaddress.ip_address(text).packed


def endpoint(text, port):
    host, _, number = text.partition(":")
    return address(host), int(number or port)


def stored(packet, offset, data):
    offset %= len(packet)
    return packet[:offset] + data + packet[offset + len(data):]


def sealed(packet):
    """With its UDP checksum made again (RFC 768); its lengths must hold."""
    size = struct.unpack_from(">H", packet, UDP + 4)[0]
    packet = stored(packet, UDP + 6, b"\0\0")
    summed = packet[12:20] + struct.pack(">HH", 17, size) + packet[UDP:UDP + size] + b"\0" * (size % 2)
    total = sum(struct.unpack(">%dH" % (len(summed) // 2), summed))
    while total > 0xffff:
        total = (total & 0xffff) + (total >> 16)
    return stored(packet, UDP + 6, struct.pack(">H", ~total & 0xffff or 0xffff))


def says(packet, size):
    packet = stored(packet, 2, struct.pack(">H", BUS + size))
    return sealed(stored(packet, UDP + 4, struct.pack(">H", 8 + size)))


def rest_of(kind, words, payload):
    """What follows the 24 bytes that all packets of the bus begin with."""
    if kind in ("data", "ptp"):
        return struct.pack(">IHH", 0, len(payload), int(words.get("fragment", 0))) + payload
    if kind == "null" and "r" in words:
        return struct.pack(">d", float(words["r"]))
    return b"\x5a" * 4 * int(words.get("items", 1)) if kind == "rreq" else payload


def built(kind, words, payload):
    (source, source_port) = endpoint(words.get("from", "10.0.0.1"), 7001)
    (target, target_port) = endpoint(words.get("to", "239.1.1.1"), 7500)
    seq = 4 * int(words.get("items", 1)) if kind == "rreq" else int(words.get("seq", 1))
    bus = struct.pack(">I4sI4shHI", 0x88fa6923, address(words["src"]) if "src" in words else source,
                      int(words.get("epoch", "80000001"), 16),
                      address(words["dst"]) if "dst" in words else target,
                      TYPES.get(kind) or int(kind), 0, seq) + rest_of(kind, words, payload)
    ip = struct.pack(">BxHIBBH4s4s", 0x45, BUS + len(bus), 0, 64, 17, 0, source, target)
    return sealed(ip + struct.pack(">HHHH", source_port, target_port, 8 + len(bus), 0) + bus)


def damaged(packet, word):
    layer, offset, data, verb, size = DAMAGE.fullmatch(word).groups()
    if layer == "ip":
        return stored(packet, int(offset), bytes.fromhex(data))
    if layer == "bus":
        return sealed(stored(packet, BUS + int(offset), bytes.fromhex(data)))
    if verb == "says":
        return says(packet, int(size))
    return packet[:int(size)] if verb == "cut" else packet.ljust(int(size), b"\xee")


def frame_of(line):
    kind, *rest = line.split()
    if kind == "frame":
        return bytes.fromhex("".join(rest))
    if kind == "type":
        kind = rest.pop(0)
    damage = [word for word in rest if DAMAGE.fullmatch(word)]
    words = dict(word.split("=", 1) for word in rest if re.match("[a-z]+=", word))
    text = "".join(word for word in rest if not re.match("[a-z]+[=@]", word))
    packet = built(kind, words, Payload(text or ("{}" if kind == "data" else "")).parts())
    for word in damage:
        packet = damaged(packet, word)
    return ETHERNET + packet


def frames_of(path):
    """(nanoseconds, bytes on the wire, frame) of each record of a capture, of either byte order and clock."""
    data, at = path.read_bytes(), 24
    order, scale = {b"\xd4\xc3\xb2\xa1": ("<", 1000), b"\xa1\xb2\xc3\xd4": (">", 1000),
                    b"\x4d\x3c\xb2\xa1": ("<", 1), b"\xa1\xb2\x3c\x4d": (">", 1)}[data[:4]]
    while at < len(data):
        seconds, fraction, kept, wire = struct.unpack_from(order + "IIII", data, at)
        yield seconds * 10**9 + fraction * scale, wire, data[at + 16:at + 16 + kept]
        at += 16 + kept


def capture(text):
    """The text's capture file."""
    made = struct.pack("<IHHIIII", 0xa1b2c3d4, 2, 4, 0, 0, 65535, 1)
    time = 1700000000.0
    for number, line in enumerate(text.splitlines(), 1):
        line = line.partition("#")[0].strip()
        if line.startswith("at "):
            time = float(line[3:])
        elif line:
            try:
                frame = frame_of(line)
            except (ValueError, AttributeError, struct.error) as error:
                raise ValueError("line %d: %s" % (number, error)) from error
            made += struct.pack("<iIII", int(time // 1), round(time % 1 * 1e6), len(frame), len(frame))
            made += frame
    return made
