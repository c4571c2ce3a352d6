"""Subjects that somebody may put on the bus to break what shows them."""

import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

import packets  # noqa: E402

# Subjects as their elements' bytes -> as text.
SUBJECTS = {
    (b"PLAIN", b"TEXT"): "PLAIN.TEXT",
    (b'"', b"<&>"): '".<&>',
    (b"\\",): "\\\\",
    (b"A.B",): "A\\x2eB",
    (b"", b""): ".",
    (b"A\0B",): "A\\x00B",
    (b"\x01\x1b[2J\x7f\n",): "\\x01\\x1b[2J\\x7f\\x0a",
    ("ü€😀".encode(),): "ü€😀",
    (b"\xff\xc3", b"\xc0\x80\xed\xa0\x80\xf4\x90\x80\x80"):
        "\\xff\\xc3.\\xc0\\x80\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80",
    ("\u0085\u202e\u2066\u200b\ufeff".encode(),):
        "\\xc2\\x85\\xe2\\x80\\xae\\xe2\\x81\\xa6\\xe2\\x80\\x8b\\xef\\xbb\\xbf",
    (b"\x02" * 250,): "\\x02" * 250,
    (b"\\x41", b"x"): "\\\\x41.x",
}


def subject_field(elements):
    body = b"".join(bytes([len(e) + 2]) + e + b"\0" for e in elements)
    return packets.field("sub", 2, b"")[:6] + bytes([121]) + (len(body) + 3).to_bytes(2, "big") + \
        bytes([len(elements)]) + body
