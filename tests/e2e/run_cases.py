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
    env       changes to the environment, one to a line: NAME=VALUE, or -NAME to take one out
    before/   what stands in the scratch folder ahead of the run
    links     links in it, one to a line: "NAME -> TARGET", or "NAME = TARGET" for a hard one
    stdout, stderr, status
              what is expected, of all runs; a missing one is empty, a missing status 0 for each
    files/    what stands in the scratch folder afterwards, all of it

The time zone is UTC unless `env` says otherwise. Made equal before comparing: the scratch folder's
path reads @OUT@ and the capture's @IN@; the time stamp of a log line reads TIME, if it is of this day
or the one before. In text that is expected, a line that ends in "<any>" accepts any end: for words
that are another program's.
"""
import argparse
import datetime
import difflib
import os
import re
import shutil
import subprocess
import sys
import tempfile

import live_run
import packets

CASES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "cases")
STAMP = re.compile(rb"^(\d{4}-\d\d-\d\d) \d\d:\d\d:\d\d(?= pelmoscope: )", re.MULTILINE)
ANY = b"<any>"
TIMEOUT_SECONDS = 60


def read(path, missing=b""):
    if not os.path.isfile(path):
        return missing
    with open(path, "rb") as f:
        return f.read()


def write(path, data):
    """Nothing is kept of what is empty."""
    if not data:
        if os.path.exists(path):
            os.remove(path)
        return
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def lines_of(case, name):
    return read(os.path.join(CASES, case, name)).decode().splitlines()


def files_below(folder):
    """Path from the folder -> bytes."""
    found = {}
    for where, _, names in os.walk(folder):
        for name in names:
            path = os.path.join(where, name)
            found[os.path.relpath(path, folder)] = read(path)
    return found


def capture_of(case, folder):
    """The path of the case's capture, made in that folder where it is text."""
    text = read(os.path.join(CASES, case, "packets")).decode()
    if not text:
        return os.path.join(CASES, case, "in.pcap")
    path = os.path.join(folder, "in.pcap")
    write(path, packets.capture(text))
    return path


def fill(text, capture, scratch):
    return text.replace("@IN@", capture).replace("@OUT@", scratch)


def environment(case, capture, scratch):
    env = live_run.environment()
    for line in lines_of(case, "env"):
        if line.startswith("-"):
            env.pop(line[1:], None)
        else:
            name, value = line.split("=", 1)
            env[name] = fill(value, capture, scratch)
    return env


def normalised(data, capture, scratch):
    now = datetime.datetime.now(datetime.timezone.utc)
    days = {(now + datetime.timedelta(days=d)).strftime("%Y-%m-%d").encode() for d in (-1, 0, 1)}
    data = STAMP.sub(lambda m: b"TIME" if m.group(1) in days else m.group(0), data)
    return data.replace(capture.encode(), b"@IN@").replace(scratch.encode(), b"@OUT@")


def run(binary, case):
    """What came out: name -> bytes."""
    scratch, made = tempfile.mkdtemp(), tempfile.mkdtemp()
    try:
        capture = capture_of(case, made)
        before = os.path.join(CASES, case, "before")
        if os.path.isdir(before):
            shutil.copytree(before, scratch, dirs_exist_ok=True)
        for name, kind, target in map(str.split, lines_of(case, "links")):
            link = os.symlink if kind == "->" else os.link
            link(os.path.join(scratch, target), os.path.join(scratch, name))
        out = {"stdout": b"", "stderr": b"", "status": b""}
        for args in "\n".join(lines_of(case, "args")).split("\n--\n"):
            done = subprocess.run([binary] + fill(args, capture, scratch).split("\n"), cwd=scratch,
                                  env=environment(case, capture, scratch),
                                  stdin=subprocess.DEVNULL, capture_output=True,
                                  timeout=TIMEOUT_SECONDS)
            out["stdout"] += normalised(done.stdout, capture, scratch)
            out["stderr"] += normalised(done.stderr, capture, scratch)
            out["status"] += b"%d\n" % done.returncode
        for path, data in files_below(scratch).items():
            is_text = ".pcap" not in path
            out["files/" + path] = normalised(data, capture, scratch) if is_text else data
        return out
    finally:
        shutil.rmtree(scratch)
        shutil.rmtree(made)


def expected_of(case):
    folder = os.path.join(CASES, case)
    expected = {name: read(os.path.join(folder, name)) for name in ("stdout", "stderr")}
    runs = lines_of(case, "args").count("--") + 1
    expected["status"] = read(os.path.join(folder, "status"), b"0\n" * runs)
    for path, data in files_below(os.path.join(folder, "files")).items():
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
        return
    if b"\0" in expected + actual:
        print("  %s: the bytes differ (%d expected, %d came)" % (name, len(expected), len(actual)))
        return
    text = [data.decode("utf-8", "backslashreplace").split("\n") for data in (expected, actual)]
    for line in list(difflib.unified_diff(*text, "expected " + name, "came", lineterm="", n=2))[:60]:
        print("  " + line)


def compare(case, expected, actual):
    same = True
    for name in sorted(expected.keys() | actual.keys()):
        if expected.get(name) != actual.get(name):
            if same:
                print("%s:" % case)
            same = False
            show_difference(name, expected.get(name), actual.get(name))
    return same


def renew(case, actual):
    folder = os.path.join(CASES, case)
    shutil.rmtree(os.path.join(folder, "files"), ignore_errors=True)
    for name, data in actual.items():
        if name.startswith("files/"):
            os.makedirs(os.path.dirname(os.path.join(folder, name)), exist_ok=True)
            with open(os.path.join(folder, name), "wb") as f:
                f.write(data)
        else:
            usual = name == "status" and set(data.split()) == {b"0"}
            write(os.path.join(folder, name), b"" if usual else data)


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("binary", type=os.path.abspath)
    parser.add_argument("--renew", action="store_true")
    parser.add_argument("cases", nargs="*", metavar="CASE")
    options = parser.parse_args()

    counts = {True: 0, False: 0}
    for case in options.cases or sorted(os.listdir(CASES)):
        if not os.path.isfile(os.path.join(CASES, case, "args")):
            sys.exit("%s is no case: it has no args" % case)
        expected, actual = expected_of(case), run(options.binary, case)
        for name in expected.keys() & actual.keys():
            actual[name] = accept_any(expected[name], actual[name])
        if options.renew:
            renew(case, actual)
        counts[options.renew or compare(case, expected, actual)] += 1
    print("%d passed, %d failed" % (counts[True], counts[False]))
    return 1 if counts[False] else 0


if __name__ == "__main__":
    sys.exit(main())
