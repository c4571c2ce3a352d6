#!/usr/bin/env python3
"""plant_faults.py [--list] [--tree REV] [--out FILE] [NAME ...]: checks that the tests notice faults.

Plants the faults of faults.txt one after the other in a copy of the tree, each a change of one line,
and runs the tests that must notice it, those of its folder and the whole-program cases. A NAME selects
faults by their own name or by a part of their source's path; without names all are planted.

A fault is caught where a test fails, crashes or hangs. Ends with status 1 if a fault was missed
that faults.txt doesn't mark as missed, if one so marked was caught, or if the tests of the copy fail
without a fault. A fault whose line is no longer there exactly once is stale: give it a new line that
breaks the same rule.

    --list      only lists the stale faults
    --tree REV  uses the tests and sources of that revision in place of the working tree
    --out FILE  writes a line for each fault: its name, the verdict, and the tests that noticed

The copy and its build stay in build/faults for the next run. A fault takes some five seconds; the
first run builds everything.
"""
import argparse
import io
import os
import pathlib
import re
import resource
import shutil
import subprocess
import sys
import tarfile
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
COPY = ROOT / "build" / "faults" / "tree"
BUILD = ROOT / "build" / "faults" / "build"
TABLE = ROOT / "scripts" / "faults.txt"
MEMORY_BYTES = 8 << 30  # a limit for faults that allocate without end
OUTPUT_BYTES = 5 << 30  # and for those that write; the tests have sparse files of 4 GB
LEAST_SECONDS = 10
TIMES_USUAL = 5  # a test hangs after so many times its usual time
LINE = re.compile(r"(?P<name>\S+)\s+(?P<source>\S+\.(?:cc|h))(?P<missed>\s+missed)?")


class Fault:
    """A row of the table: `old`, which is in the source exactly once, becomes `new`."""

    def __init__(self, name, source, missed):
        self.name, self.source, self.missed = name, source, missed
        self.old = self.new = ""

    def path(self):
        """The source whose path ends in the row's path; None when it is missing or not unique."""
        found = [path for top in ("lib", "programs", "trace", "watch", "bus", "pmd", "tools")
                 for path in (COPY / top).rglob(pathlib.Path(self.source).name)
                 if path.as_posix().endswith("/" + self.source)]
        return found[0] if len(found) == 1 else None

    def planted(self, text):
        """The source with the fault; None when its line isn't there exactly once. Blanks and line
        breaks don't matter, so that formatting makes no row stale."""
        pattern = r"\s+".join(re.escape(word) for word in self.old.split())
        changed, count = re.subn(pattern, lambda _: self.new, text)
        return changed if count == 1 else None


def read_table():
    faults = []
    for number, line in enumerate(TABLE.read_text().splitlines(), 1):
        if not line.strip() or line.startswith("#"):
            continue
        row = LINE.fullmatch(line.strip())
        if row is not None:
            faults.append(Fault(row["name"], row["source"], row["missed"] is not None))
        elif faults and line.startswith("  - "):
            faults[-1].old = line[4:]
        elif faults and line.startswith("  +"):
            faults[-1].new = line[4:]
        else:
            sys.exit("%s:%d: neither a fault nor its lines" % (TABLE.name, number))
    return faults


def chosen(faults, names):
    return [fault for fault in faults
            if not names or any(name == fault.name or name in fault.source for name in names)]


def git(*arguments):
    return subprocess.run(["git", "-C", ROOT, *arguments], check=True, capture_output=True).stdout


def tree_files(revision):
    """Name -> bytes."""
    if revision:
        with tarfile.open(fileobj=io.BytesIO(git("archive", revision))) as archive:
            return {one.name: archive.extractfile(one).read() for one in archive if one.isfile()}
    names = git("ls-files", "-z", "--cached", "--others", "--exclude-standard").decode().split("\0")
    return {name: (ROOT / name).read_bytes() for name in names if (ROOT / name).is_file()}


def copy_tree(revision):
    """Writes only files that differ, so that only these are built again."""
    files = tree_files(revision)
    for name, data in files.items():
        target = COPY / name
        if target.is_file() and target.read_bytes() == data:
            continue
        target.parent.mkdir(parents=True, exist_ok=True)
        target.write_bytes(data)
        target.chmod(0o755 if data.startswith(b"#!") else 0o644)
    for path in COPY.rglob("*"):
        gone = path.relative_to(COPY).as_posix() not in files
        if gone and path.is_file() and "__pycache__" not in path.parts:
            path.unlink()


def configure():
    linker = ["-DCMAKE_EXE_LINKER_FLAGS=-fuse-ld=lld"] if shutil.which("ld.lld") else []
    subprocess.run(["cmake", "-S", COPY, "-B", BUILD, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=Debug",
                    "-DCMAKE_CXX_FLAGS=-O0", "-DCMAKE_CXX_FLAGS_DEBUG=", "-DPELMO_BENCH=OFF", *linker],
                   check=True, stdout=subprocess.DEVNULL)


def build(targets):
    done = subprocess.run(["cmake", "--build", BUILD, "-j", str(os.cpu_count()), "--target", *targets],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.returncode == 0, done.stdout.decode(errors="replace")


def limits():
    resource.setrlimit(resource.RLIMIT_AS, (MEMORY_BYTES, MEMORY_BYTES))
    resource.setrlimit(resource.RLIMIT_FSIZE, (OUTPUT_BYTES, OUTPUT_BYTES))
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))


class Judge:
    """A command that fails when its tests notice a fault, and the targets that it needs."""

    def __init__(self, targets, command, failure):
        self.targets, self.command, self.failure = targets, command, failure
        self.seconds = 600.0  # until its usual time was measured on a tree without faults

    def notices(self):
        """What failed, in words; empty when nothing did."""
        with open(BUILD / "judge.log", "w+b") as log:
            process = subprocess.Popen(self.command, cwd=BUILD, env={**os.environ, "PELMO_BIN": "bin"},
                                       stdin=subprocess.DEVNULL, stdout=log,
                                       stderr=subprocess.STDOUT, preexec_fn=limits,
                                       start_new_session=True)
            try:
                status = process.wait(self.seconds)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, 9)
                process.wait()
                return "hangs"
        if status == 0:
            return ""
        with open(BUILD / "judge.log", errors="replace") as log:
            failed = sorted({match[1] for match in map(self.failure.match, log) if match})
        return " ".join(failed[:9]) or "crashes"

    def measure(self):
        begin = time.monotonic()
        noticed = self.notices()
        self.seconds = max(LEAST_SECONDS, TIMES_USUAL * (time.monotonic() - begin))
        return noticed


def make_judges():
    def program(folder):
        return Judge([folder + "_tests"], ["bin/%s_tests" % folder, "--gtest_brief=1"],
                     re.compile(r"\[  FAILED  \] (\S+?)(?:,| \()"))

    tests = COPY / "tests"
    judges = {"lib/" + folder: program(folder) for folder in
              ("base", "containers", "msg", "runtime", "transport", "pelmo")}
    judges["trace"] = program("trace")
    judges["programs"] = program("programs")
    judges["bus"] = program("bus")
    judges["pelmobus"] = Judge(["pelmobus", "pmd"],
                               [sys.executable, tests / "bus" / "pelmobus_test.py"],
                               re.compile(r"^(?:FAIL|ERROR): (\S+)"))
    judges["lives"] = Judge(["pelmobus", "pmd"],
                            [sys.executable, tests / "e2e" / "bus_lives.py", "bin/pelmobus", "bin/pmd",
                             "--seeds", "10-19", "--at-once", "4"], re.compile(r"^(seed \d+)"))
    failed_case = re.compile(r"^(?:FAIL|ERROR): (\S+)")
    judges["pmd"] = program("pmd")
    judges["pmd as a program"] = Judge(
        ["pmd", "pelmobus"],
        [sys.executable, tests / "e2e" / "pmd_test.py"], failed_case)
    judges["pmd on the wire"] = Judge(
        ["pmd", "pelmoscope"],
        [sys.executable, tests / "e2e" / "pmd_wire_test.py"], failed_case)
    judges["watch"] = program("watch")
    for name, programs in (("json", ["pelmoscope", "pelmowatch", "pelmogen"]), ("serve", ["pelmowatch", "pelmogen"]),
                           ("captures", ["pelmowatch", "pelmogen", "pelmobus"]), ("top", ["pelmowatch"]),
                           ("report", ["pelmowatch", "pelmogen"]), ("messages", ["pelmowatch", "pelmogen"])):
        judges[name] = Judge(programs, [sys.executable, tests / "watch" / (name + "_test.py")], failed_case)
    judges["watch live"] = Judge(["pelmowatch", "pelmogen"],
                                 [sys.executable, tests / "watch" / "live_test.py"], failed_case)
    judges["tools"] = Judge(["pelmogen", "pelmoscope"],
                            ["ctest", "-R", "^tools[.]", "--output-on-failure"],
                            re.compile(r"\s+\d+ - (tools\S*) "))
    judges["live"] = Judge(["pelmoscope", "pelmogen", "clock_shift"],
                           [sys.executable, tests / "e2e" / "live_test.py"], failed_case)
    judges["cases"] = Judge(["pelmoscope"],
                            [sys.executable, tests / "e2e" / "run_cases.py", "bin/pelmoscope"],
                            re.compile(r"^(\S+):$"))
    return judges


def judges_of(judges, path):
    """The tests of the source's folder, those of the floors that use it, and the cases: the ones most
    likely to notice come first."""
    parts = path.relative_to(COPY).parts
    if parts[0] == "tools":
        return [judges["tools"]]
    if parts[0] == "programs":
        return [judges["programs"], judges["bus"], judges["pelmobus"]]
    if parts[0] == "bus":
        return [judges["bus"], judges["pelmobus"], judges["lives"]]
    if parts[0] == "pmd":
        return [judges["pmd"], judges["pmd on the wire" if "oska" in parts[-1] else "pmd as a program"]]
    if parts[0] == "watch":
        programs = {"core": ["json", "captures", "serve", "watch live"], "capture": ["captures"], "compare": ["report"],
                    "serve": ["serve"], "top": ["top"], "report": ["report"], "messages": ["messages"],
                    }.get(parts[1], ["json"])
        return [judges[name] for name in ["watch", *programs]]
    if parts[0] == "trace":
        return [judges[name] for name in ("cases", "trace", "live" if parts[1] == "run" else "json")]
    users = {"base": ["lib/msg", "lib/runtime", "trace"], "containers": ["lib/msg", "lib/runtime"],
             "pelmo": []}.get(parts[1], ["lib/pelmo"])
    return [judges[name] for name in ["/".join(parts[:2]), *users, "cases"]]


def judge(fault, path, judges):
    sound = path.read_text()
    path.write_text(fault.planted(sound))
    try:
        for one in judges:
            built, _ = build(one.targets)
            if not built:
                return "doesn't build", ""
            noticed = one.notices()
            if noticed:
                return "caught", noticed
        return "missed", ""
    finally:
        path.write_text(sound)


def check_sound(judges):
    targets = sorted({target for one in judges for target in one.targets})
    built, output = build(targets)
    if not built:
        sys.exit("the tree doesn't build:\n" + output)
    subprocess.run([COPY / "scripts" / "lay_modules.sh", BUILD / "bin"], check=True)
    for one in judges:
        noticed = one.measure()
        if noticed:
            sys.exit("without a fault, %s: %s; see %s" % (one.command[0], noticed, BUILD / "judge.log"))


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--list", action="store_true")
    parser.add_argument("--tree", metavar="REV")
    parser.add_argument("--out", metavar="FILE", type=argparse.FileType("w"))
    parser.add_argument("names", nargs="*", metavar="NAME")
    options = parser.parse_args()

    copy_tree(options.tree)
    judges, rows, counts = make_judges(), [], {}
    for fault in chosen(read_table(), options.names):
        path = fault.path()
        if path is None or fault.planted(path.read_text()) is None:
            counts["stale"] = counts.get("stale", 0) + 1
            print("%-14s %s (%s)" % ("stale", fault.name, fault.source))
        else:
            rows.append((fault, path, judges_of(judges, path)))
    unexpected = 0
    if not options.list:
        configure()
        check_sound(dict.fromkeys(one for _, _, judging in rows for one in judging))
        for fault, path, judging in rows:
            verdict, noticed = judge(fault, path, judging)
            counts[verdict] = counts.get(verdict, 0) + 1
            unexpected += (verdict == "caught") == fault.missed
            line = "%-14s %s %s" % (verdict, fault.name, noticed)
            print(line.rstrip(), flush=True)
            if options.out:
                print(line.rstrip(), file=options.out, flush=True)
    print(", ".join("%d %s" % (count, word) for word, count in sorted(counts.items())) or "none")
    return 1 if unexpected else 0


if __name__ == "__main__":
    sys.exit(main())
