#!/usr/bin/env python3
"""pmd_seeds.py FOLDER: writes the seeds of pmd_fuzz: sessions of clients as the library begins them,
and each kind of message."""
import pathlib
import struct
import sys

sys.path.append(str(pathlib.Path(__file__).resolve().parent.parent / "e2e"))

from bus_client import (BOOL, COUNTER, data_message, hello, message, start_message,  # noqa: E402
                        subject_field, text)
from packets import field  # noqa: E402

SKIPS, STARTED, CLOSES = 8, 16, 4
SESSION = "7F000001.U0001.G1"
ANSWER = struct.pack(">III", 0, 4, 1)


def piece(flags, *parts):
    data = b"".join(parts)
    return struct.pack(">BH", flags, len(data)) + data


def interest(kind, subject):
    return message(text("mtype", kind), subject_field(subject))


def control(letter, value):
    return message(text("mtype", "S"), text("control", letter), field("data", BOOL, value))


SEEDS = {
    "handshake": [piece(0, ANSWER, hello(COUNTER), start_message(), start_message(SESSION)),
                  piece(1, ANSWER[:5]), piece(1, ANSWER[5:], hello(2), hello(COUNTER))],
    "routes": [piece(STARTED, interest("L", "A.>"), interest("L", "A.*")),
               piece(STARTED | 1, interest("L", ">"), data_message("A.B", b"x"),
                     data_message("A.B", b"y"), data_message("C", bytes(300))),
               piece(0, interest("C", "A.*"), data_message("A.B", b"z", reply="_INBOX.X.1")),
               piece(CLOSES | STARTED | 1, data_message("A.B"))],
    "sessions": [piece(SKIPS, start_message(SESSION), interest("L", "_INBOX.%s.>" % SESSION)),
                 piece(SKIPS | 1, start_message(SESSION, echo=0, hide=1),
                       data_message("_INBOX.%s.7" % SESSION), data_message("_PM.WARN.X")),
                 piece(SKIPS | 2, start_message("7F000001.U0001"), data_message("A"))],
    "controls": [piece(STARTED, *[control(letter, b"\1") for letter in "CERDHX"],
                       struct.pack(">II", 8, 0x9955eeaa), struct.pack(">II", 0, 0))],
    "parts": [piece(STARTED, interest("L", "A")), piece(0, data_message("A", bytes(5000))[:2000]),
              piece(0, data_message("A", bytes(5000))[2000:], data_message("A"))],
}

if __name__ == "__main__":
    for name, pieces in SEEDS.items():
        (pathlib.Path(sys.argv[1]) / name).write_bytes(b"".join(pieces))
