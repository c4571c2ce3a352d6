#!/usr/bin/env python3
"""run_tests.py PRESET [CTEST OPTION ...]: runs the tests of a build and prints a line for each suite.

A suite is a program of unit tests, the cases of whole runs, or a whole-program test.
What a test prints is shown only when it fails. A test that can't run here is a skip, with its last line,
which says why and what would help. Ends with "N passed, N failed, N skipped" and status 1 if one failed.
"""
import collections
import json
import os
import pathlib
import re
import signal
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parent.parent
RESULT = re.compile(r" *\d+/\d+ Test +#\d+: (.+?) \.*\s*(Passed|\*\*\*[\w ()]+?)\s+([\d.]+) sec")
SKIPPED, DISABLED = "Skipped", "Not Run (Disabled)"


class Suite:
    def __init__(self):
        self.left, self.passed, self.failed, self.skipped, self.disabled, self.seconds = 0, 0, 0, 0, 0, 0.0

    def line(self, name):
        words = ["%d passed" % self.passed]
        words += ["%d FAILED" % self.failed] if self.failed else []
        words += ["%d skipped" % self.skipped] if self.skipped else []
        return "%-24s %7.1f s  %s" % (name, self.seconds, ", ".join(words))


def ctest(preset, *options):
    return ["ctest", "--test-dir", str(ROOT / "build" / preset), *options]


def suite_of(build, tests):
    """Test -> suite: of a unit test the program that holds it, of a case all cases; else the test itself."""
    shown = subprocess.run(ctest(build, "--show-only=json-v1", *tests), capture_output=True, text=True, check=True)
    found = {}
    for test in json.loads(shown.stdout)["tests"]:
        command = [os.path.basename(word) for word in test.get("command", [""])]
        cases = "e2e.cases" if "run_cases.py" in command else test["name"]
        found[test["name"]] = command[0] if command[0].endswith("_tests") else cases
    return found


def output_of(log, name):
    """What the test printed, from ctest's own log."""
    text = log.read_text(errors="replace") if log.exists() else ""
    found = re.search(r"^\d+/\d+ Test: %s\n.*?^Output:\n-+\n(.*?)<end of output>$" % re.escape(name), text, re.M | re.S)
    return found[1].rstrip().splitlines() if found else []


def main():
    preset, options = sys.argv[1], sys.argv[2:]
    log = ROOT / "build" / preset / "Testing" / "Temporary" / "LastTest.log"
    names = suite_of(preset, options)
    suites = collections.defaultdict(Suite)
    for suite in names.values():
        suites[suite].left += 1
    begin, unwell = time.monotonic(), []
    # Whole-program tests wait for half of their time, so more run than there are processors.
    command = ctest(preset, "--no-tests=error", "-j", str(2 * os.cpu_count()), *options)
    with subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True) as run:
        signal.signal(signal.SIGINT, signal.SIG_IGN)  # ctest ends at it, and is waited for
        for line in run.stdout:
            result = RESULT.match(line)
            if not result or result[1] not in names:
                continue
            name, verdict = result[1], result[2].strip("*").strip()
            suite = suites[names[name]]
            suite.left -= 1
            suite.seconds += float(result[3])
            if verdict == "Passed":
                suite.passed += 1
            elif verdict == DISABLED:
                suite.disabled += 1
            elif verdict == SKIPPED:
                suite.skipped += 1
                unwell.append((name, verdict))
            else:
                suite.failed += 1
                unwell.append((name, verdict))
                print("FAILED: %s (%s)" % (name, verdict), flush=True)
            if suite.left == 0:
                print(suite.line(names[name]), flush=True)
    for name, verdict in unwell:
        printed = output_of(log, name)
        if verdict == SKIPPED:
            print("skipped: %s: %s" % (name, printed[-1] if printed else "says nothing"))
        else:
            print("\n== %s (%s)\n%s" % (name, verdict, "\n".join(printed)))
    lost = sum(suite.left for suite in suites.values())
    failed = sum(suite.failed for suite in suites.values()) + lost
    if lost:
        print("%d tests didn't run: %s ended with status %d" % (lost, command[0], run.returncode))
    print("in %d s:" % (time.monotonic() - begin))
    print("%d passed, %d failed, %d skipped" % (sum(suite.passed for suite in suites.values()), failed,
                                                sum(suite.skipped for suite in suites.values())))
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
