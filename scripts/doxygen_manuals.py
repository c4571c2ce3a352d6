#!/usr/bin/env python3
"""doxygen_manuals.py MADE WANTED: takes from the manual pages that Doxygen made those of the public calls,
under names that no other package has.

Doxygen makes a page for each header, event.h.3, and for each name in it a page that points there. Here the
first become pelmo_event.h.3, and only names that begin with "pelmo", and the circuits' calls, point to them.
"""
import pathlib
import re
import sys

CALL = re.compile(r"pelmo|vc[A-Z]")
POINTER = re.compile(r"\.so man3/(\S+\.h)\.3\n?")
# What a program includes, whatever the header includes in turn.
INCLUDES = re.compile(r"(?:\\fC#include .*\\fP\n\.br\n)+")


def own_name(header):
    return header if header.startswith("pelmo") else "pelmo_" + header


def main():
    made, wanted = map(pathlib.Path, sys.argv[1:])
    wanted.mkdir(parents=True, exist_ok=True)
    for page in made.glob("*.3"):
        text = page.read_text(encoding="utf-8")
        pointer = POINTER.fullmatch(text)
        if pointer:
            if CALL.match(page.name):
                (wanted / page.name).write_text(".so man3/%s.3\n" % own_name(pointer[1]), encoding="utf-8")
        elif page.name.endswith(".h.3"):
            text = INCLUDES.sub(r"\\fB#include <pelmo/pelmo.h>\\fP\n.br\n", text, count=1)
            (wanted / own_name(page.name)).write_text(text, encoding="utf-8")


if __name__ == "__main__":
    main()
