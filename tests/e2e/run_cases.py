#!/usr/bin/env python3
"""run_cases.py BINARY [--renew] [CASE ...]: whole-program cases of the tool.

Runs BINARY in an empty scratch folder for each folder of cases/, or for those named, and compares to
the byte what it printed, its status and the files that it left. The two modules must lie beside
BINARY. --renew writes what came out as what is expected: look at the difference before you keep it.

A case:

    args      the arguments, one to a line; @IN@ is the case's capture, @OUT@ the scratch folder. A
              line of "--" ends them and begins those of a further run, in the same folder
    in.pcap   the capture, where there is one; or
    packets   the capture as text, which packets.py explains
    before/   what is in the scratch folder before the run
    links     links in it, one to a line: "NAME -> TARGET", or "NAME = TARGET" for a hard one
    stdout, stderr, status
              what is expected, of all runs; a missing one is empty, a missing status 0 for each
    files/    what is in the scratch folder afterwards, all of it

The time zone is UTC. Made equal before comparing: the scratch folder's
path reads @OUT@ and the capture's @IN@; the time stamp of a log line reads TIME, if it is of this day
or the one before. In text that is expected, a line that ends in "<any>" accepts any end: for words
that are another program's.
"""
import argparse
import datetime
import difflib
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

import live_run
import packets

CASES = pathlib.Path(__file__).resolve().parent / "cases"
STAMP = re.compile(rb"^(\d{4}-\d\d-\d\d) \d\d:\d\d:\d\d(?= pelmoscope: )", re.MULTILINE)
ANY = b"<any>"
TIMEOUT_SECONDS = 60


def read(path, missing=b""):
    return path.read_bytes() if path.is_file() else missing


def lines_of(case, name):
    return read(CASES / case / name).decode().splitlines()


def files_below(folder):
    """Path from the folder -> bytes, none of a link that leads nowhere."""
    return {str(path.relative_to(folder)): read(path) for path in folder.rglob("*") if not path.is_dir()}


def normalised(data, capture, scratch):
    now = datetime.datetime.now(datetime.timezone.utc)
    days = {(now + datetime.timedelta(days=d)).strftime("%Y-%m-%d").encode() for d in (-1, 0, 1)}
    data = STAMP.sub(lambda m: b"TIME" if m.group(1) in days else m.group(0), data)
    return data.replace(capture.encode(), b"@IN@").replace(scratch.encode(), b"@OUT@")


def run(binary, case, scratch, made):
    """What came out: name -> bytes. The scratch folder is empty; in the other one a capture is made."""
    capture = CASES / case / "in.pcap"
    if text := read(CASES / case / "packets").decode():
        capture = made / "in.pcap"
        capture.write_bytes(packets.capture(text))
    paths = str(capture), str(scratch)

    def fill(text):
        return text.replace("@IN@", paths[0]).replace("@OUT@", paths[1])
    if (CASES / case / "before").is_dir():
        shutil.copytree(CASES / case / "before", scratch, dirs_exist_ok=True)
    for name, kind, target in map(str.split, lines_of(case, "links")):
        (os.symlink if kind == "->" else os.link)(scratch / target, scratch / name)
    out = {"stdout": b"", "stderr": b"", "status": b""}
    for args in "\n".join(lines_of(case, "args")).split("\n--\n"):
        done = subprocess.run([binary] + fill(args).split("\n"), cwd=scratch, env=live_run.environment(),
                              stdin=subprocess.DEVNULL, capture_output=True, timeout=TIMEOUT_SECONDS)
        out["stdout"] += normalised(done.stdout, *paths)
        out["stderr"] += normalised(done.stderr, *paths)
        out["status"] += b"%d\n" % done.returncode
    for path, data in files_below(scratch).items():
        out["files/" + path] = data if ".pcap" in path else normalised(data, *paths)
    return out


def expected_of(case):
    folder = CASES / case
    runs = lines_of(case, "args").count("--") + 1
    expected = {name: read(folder / name) for name in ("stdout", "stderr")}
    expected["status"] = read(folder / "status", b"0\n" * runs)
    for path, data in files_below(folder / "files").items():
        expected["files/" + path] = data
    return expected


def accept_any(expected, actual):
    """`actual` with each line that an "<any>" line accepts replaced by it."""
    wanted, got = expected.split(b"\n"), actual.split(b"\n")
    for i, line in enumerate(wanted[:len(got)]):
        if line.endswith(ANY) and got[i].startswith(line[:-len(ANY)]):
            got[i] = line
    return b"\n".join(got)


def show_difference(name, expected, actual):
    if expected is None or actual is None:
        print("  %s: %s" % (name, "wasn't expected" if expected is None else "is missing"))
    elif b"\0" in expected + actual:
        print("  %s: the bytes differ (%d expected, %d came)" % (name, len(expected), len(actual)))
    else:
        text = [data.decode("utf-8", "backslashreplace").split("\n") for data in (expected, actual)]
        lines = difflib.unified_diff(*text, "expected " + name, "came", lineterm="", n=2)
        print("\n".join("  " + line for line in list(lines)[:60]))


def renew(case, actual):
    """Nothing is kept of what is empty or usual."""
    folder = CASES / case
    shutil.rmtree(folder / "files", ignore_errors=True)
    for name, data in actual.items():
        (folder / name).unlink(missing_ok=True)
        if name.startswith("files/") or (data and not (name == "status" and set(data.split()) == {b"0"})):
            (folder / name).parent.mkdir(parents=True, exist_ok=True)
            (folder / name).write_bytes(data)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("binary", type=os.path.abspath)
    parser.add_argument("--renew", action="store_true")
    parser.add_argument("cases", nargs="*", metavar="CASE")
    options = parser.parse_args()

    cases = options.cases or sorted(os.listdir(CASES))
    failed = 0
    for case in cases:
        if not (CASES / case / "args").is_file():
            sys.exit("%s is no case: it has no args" % case)
        with tempfile.TemporaryDirectory() as scratch, tempfile.TemporaryDirectory() as made:
            actual = run(options.binary, case, pathlib.Path(scratch), pathlib.Path(made))
        expected = expected_of(case)
        for name in expected.keys() & actual.keys():
            actual[name] = accept_any(expected[name], actual[name])
        odd = [name for name in sorted(expected.keys() | actual.keys()) if expected.get(name) != actual.get(name)]
        if options.renew:
            renew(case, actual)
        elif odd:
            failed += 1
            print("%s:" % case)
            for name in odd:
                show_difference(name, expected.get(name), actual.get(name))
    print("%d passed, %d failed" % (len(cases) - failed, failed))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
