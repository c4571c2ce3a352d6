"""Reads captures of the bus and checks each packet down to the values of its fields.

Written from the layouts on the wire alone: whatever generator and tool have in common can't hide
from it. A fault is a Fault with its reason.
"""

import struct
import zlib
from collections import namedtuple

MESSAGE_MAGIC = 0x9955EEAA
OSKA_MAGIC = 0x88FA6923
ALL_ONES = 0xFFFFFFFF
KINDS = {1: "data", 3: "rreq", 4: "null", 5: "rrej",
         6: "ptp-data", 7: "ptp-ackme", 8: "ptp-ack", 9: "ptp-nak"}

Record = namedtuple("Record", "nanoseconds wire_bytes frame")
Packet = namedtuple("Packet", "kind src dst port dst_port epoch seq fragment payload messages")
Message = namedtuple("Message", "subject fields")
Field = namedtuple("Field", "name id code value")


class Fault(Exception):
    pass


def need(condition, reason):
    if not condition:
        raise Fault(reason)


def read_capture(path):
    data = path.read_bytes()
    order, scale = {b"\xd4\xc3\xb2\xa1": ("<", 1000), b"\xa1\xb2\xc3\xd4": (">", 1000),
                    b"\x4d\x3c\xb2\xa1": ("<", 1), b"\xa1\xb2\x3c\x4d": (">", 1)}[data[:4]]
    major, minor, _, _, snap, link = struct.unpack(order + "HHiIII", data[4:24])
    assert (major, minor, link) == (2, 4, 1)
    records, at = [], 24
    while at < len(data):
        seconds, fraction, kept, wire = struct.unpack(order + "IIII", data[at:at + 16])
        assert fraction * scale < 10**9 and kept <= min(wire, snap)
        frame = data[at + 16:at + 16 + kept]
        assert len(frame) == kept
        records.append(Record(seconds * 10**9 + fraction * scale, wire, frame))
        at += 16 + kept
    return records


def internet_sum(data):
    data += b"\0" * (len(data) % 2)
    total = sum(struct.unpack(">%dH" % (len(data) // 2), data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return total


def read_udp(frame):
    """Source, destination, ports and payload."""
    need(frame[12:14] == b"\x08\x00", "no IP")
    ip = frame[14:34]
    need(ip[0] == 0x45 and ip[9] == 17 and internet_sum(ip) == 0xFFFF, "IP header")
    (total,) = struct.unpack(">H", ip[2:4])
    need(len(frame) == max(60, 14 + total), "frame length")
    udp = frame[34:14 + total]
    port, dst_port, length, checksum = struct.unpack(">HHHH", udp[:8])
    need(length == total - 20, "UDP length")
    pseudo = ip[12:20] + struct.pack(">HH", 17, length)
    need(checksum != 0 and internet_sum(pseudo + udp) == 0xFFFF, "UDP checksum")
    src, dst = struct.unpack(">II", ip[12:20])
    return src, dst, port, dst_port, udp[8:]


def read_subject(data):
    (total,), count = struct.unpack(">H", data[:2]), data[2]
    need(3 < total == len(data) <= 255, "subject length")
    elements, at = [], 3
    while at < total:
        size = data[at]
        need(size >= 3 and at + size <= total and data[at + size - 1] == 0, "subject element")
        elements.append(data[at + 1:at + size - 1].decode("ascii"))
        at += size
    need(len(elements) == count, "subject count")
    return ".".join(elements)


def read_prefix(data, at):
    """Size of the prefix and of the value behind it."""
    if data[at] < 120:
        return 1, data[at]
    if data[at] == 121:
        size = struct.unpack(">H", data[at + 1:at + 3])[0] - 2
        return 3, size
    need(data[at] == 122, "size class")
    size = struct.unpack(">I", data[at + 1:at + 5])[0] - 4
    return 5, size


def read_string(value):
    need(value[-1:] == b"\0" and value.count(0) == 1, "string")
    return value[:-1].decode("ascii")


def read_strings(value):
    (count,) = struct.unpack(">I", value[:4])
    need(value[4:].count(0) == count and (count == 0 or value[-1] == 0), "string array")
    return value[4:].split(b"\0")[:-1]


def read_message_array(value):
    (count,) = struct.unpack(">I", value[:4])
    messages, at = [], 4
    while at < len(value):
        (size,) = struct.unpack(">I", value[at:at + 4])
        messages.append(read_message(value[at:at + size]))
        at += size
    need(len(messages) == count, "message array")
    return messages


def read_xml(value):
    prefix, size = read_prefix(value, 0)
    document = zlib.decompress(value[prefix:]) if size else value[prefix:]
    need(size in (0, len(document)) and document.startswith(b"<doc>"), "document")
    return document


def read_numbers(letter):
    width = struct.calcsize(letter)

    def read(value):
        need(len(value) % width == 0, "array size")
        return struct.unpack(">%d%s" % (len(value) // width, letter), value)
    return read


def read_sized(*sizes):
    def read(value):
        need(len(value) in sizes, "value size")
        return value
    return read


READERS = {
    1: lambda value: read_message(value), 2: read_subject,
    3: lambda value: need(len(value) == 8 and value[5:] < b"\x0f\x42\x40", "date-time"),
    7: bytes, 8: read_string, 9: lambda value: need(value in (b"\0", b"\1"), "bool"),
    10: read_sized(2, 4), 11: read_sized(1, 2, 4, 8), 12: read_sized(1, 2, 4, 8),
    13: read_sized(4, 8), 22: read_sized(0), 47: read_xml, 48: read_strings,
    49: read_message_array,
    **{34 + i: read_numbers(letter) for i, letter in enumerate("bBhHiIqQ")},
    44: read_numbers("f"), 45: read_numbers("d"),
}


def read_name(area):
    if len(area) >= 3 and area[-3] == 0:
        return area[:-3].decode("ascii"), struct.unpack(">H", area[-2:])[0]
    need(area == b"" or area[-1] == 0, "name area")
    return (area[:-1].decode("ascii") if area else None), None


def read_message(data):
    """The fields of a message that takes up all of `data`."""
    length, magic = struct.unpack(">II", data[:8])
    need(magic == MESSAGE_MAGIC, "message magic")
    need(length == len(data), "message length")
    fields, at = [], 8
    while at < length:
        name, field_id = read_name(data[at + 1:at + 1 + data[at]])
        at += 1 + data[at]
        code, (prefix, size) = data[at], read_prefix(data, at + 1)
        need(code in READERS, "type code")
        value = data[at + 1 + prefix:at + 1 + prefix + size]
        if code in (1, 2):  # the value is one with its length word
            need(prefix == (5 if code == 1 else 3), "size class")
            value = data[at + 2:at + 1 + prefix + size]
        else:
            need(prefix == 1 if size < 120 else prefix == 3, "size class for the size")
        at += 1 + prefix + size
        need(at <= length, "field beyond message")
        fields.append(Field(name, field_id, code, READERS[code](value)))
    return fields


def read_enveloped(data):
    envelope = read_message(data)
    need(envelope[-1].name == "data" and envelope[-1].code == 1, "envelope")
    subjects = [field.value for field in envelope if field.name == "sub" and field.code == 2]
    return Message(subjects[0] if subjects else None, envelope[-1].value)


def read_messages(data):
    messages, at = [], 0
    while at < len(data):
        need(len(data) - at >= 8, "stray bytes")
        (size,) = struct.unpack(">I", data[at:at + 4])
        need(size >= 8, "message length")
        messages.append(read_enveloped(data[at:at + size]))
        at += size
    return messages


def is_group(address):
    return address >> 28 == 0xE


def read_packet(frame):
    """One sound packet of the bus; None for sound UDP of others."""
    src, dst, port, dst_port, payload = read_udp(frame)
    if len(payload) < 4 or struct.unpack(">I", payload[:4])[0] != OSKA_MAGIC:
        return None
    need(len(payload) >= 24, "OSKA header")
    oska_src, epoch, oska_dst, number, _, seq = struct.unpack(">IIIHHI", payload[4:24])
    kind, fragment, messages = KINDS.get(number, "unknown"), 0, []
    need(oska_src == src, "src")
    need(oska_dst == dst or (oska_dst == 0 and is_group(dst)), "dst")
    need(is_group(dst) == (kind in ("data", "null", "rrej", "unknown")), "destination address")

    body = payload[24:]
    if kind == "rreq":
        need(0 < seq == len(body) and seq % 4 == 0, "list")
    elif kind in ("data", "ptp-data"):
        need(len(payload) > 32, "data header")
        length, fragment = struct.unpack(">hH", payload[28:32])
        body = payload[32:]
        need(length == len(body), "data length")
        if kind == "data" and fragment == 0:
            messages = read_messages(body)
    elif kind == "null":
        need(len(body) in (0, 8), "null length")
    else:
        need(not body, "length")
    return Packet(kind, src, dst, port, dst_port, epoch, seq, fragment, body, messages)
