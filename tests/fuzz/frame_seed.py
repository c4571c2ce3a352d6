#!/usr/bin/env python3
"""frame_seed.py CAPTURE SEED: makes a seed of frame_fuzz from a capture of pelmogen's.

It has the shortest frame of each kind: type, fragment, whether the capture cut it, and whether its
headers tell of more than there is. The target takes bytes from the front of its input and numbers,
in single bytes, from the end: so the frames lie one behind the other, and behind them, backwards, what
is asked for each.
"""
import struct
import sys

OSKA_MAGIC = b"\x88\xfa\x69\x23"
DATA = b"\0\1"


def frames(path):
    with open(path, "rb") as file:
        data = file.read()
    at = 24
    while at < len(data):
        kept, wire = struct.unpack("<II", data[at + 8:at + 16])
        yield data[at + 16:at + 16 + kept], wire
        at += 16 + kept


def kind(frame, wire):
    if len(frame) < 74 or frame[42:46] != OSKA_MAGIC:
        return "other"
    udp_bytes, = struct.unpack(">H", frame[38:40])
    fragment = frame[72:74] if frame[58:60] == DATA else b""
    return frame[58:60], fragment, len(frame) < wire, udp_bytes + 34 - len(frame) > 0


def main(capture, seed):
    shortest = {}
    for frame, wire in frames(capture):
        key = kind(frame, wire)
        if key not in shortest or len(frame) < len(shortest[key]):
            shortest[key] = frame
    chosen = sorted(shortest.values(), key=len)
    numbers = b"\0"  # no rates
    for frame in chosen:
        numbers += b"\1" + struct.pack(">H", len(frame))  # raw, its length
        numbers += b"\0\0\0\0"  # no report behind it
    with open(seed, "wb") as file:
        file.write(b"".join(chosen) + numbers[::-1])


if __name__ == "__main__":
    main(*sys.argv[1:])
