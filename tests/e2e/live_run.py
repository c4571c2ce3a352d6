"""What the live tests share: a wire of their own, the tool and the generator as processes, reports.

The wire is a veth pair in a network namespace that lives as long as the test. Where namespaces
aren't permitted it's the loopback, and the output says so; where live capture isn't permitted at
all the test says that and ends with status 77. Run as a program it says which of these it will be.
"""

import collections
import contextlib
import ctypes
import os
import re
import signal
import socket
import subprocess
import sys
import time

NAMESPACE_MARK = "PELMO_LIVE_NAMESPACE"
SKIPPED = 77
PATIENCE_SECONDS = 20
PR_SET_PDEATHSIG = 1
TITLES = {"Multicast Packet Statistics": "mcast", "Multicast Retrans Packet Statistics": "retrans",
          "PTP Packet Statistics": "ptp", "Multicast Subject Statistics": "subject"}
LIBC = ctypes.CDLL(None)

Wire = collections.namedtuple("Wire", "interface send")
Report = collections.namedtuple("Report", "time elapsed rows")


def run_quietly(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False)


def veth_pair():
    """Makes it; answers what went wrong."""
    for command in ("link set lo up", "link add sender type veth peer name listener",
                    "link set sender up", "link set listener up"):
        run = run_quietly("ip", *command.split())
        if run.returncode != 0:
            return run.stderr.strip()
    return ""


def open_wire():
    """Starts the program again in a namespace of its own, unless it runs in one already."""
    if NAMESPACE_MARK not in os.environ:
        tried = run_quietly("unshare", "--net", "true")
        if tried.returncode == 0:
            os.environ[NAMESPACE_MARK] = "1"
            sys.stdout.flush()
            os.execvp("unshare", ["unshare", "--net", sys.executable, *sys.argv])
        reason = tried.stderr.strip()
    else:
        reason = veth_pair()
        if not reason:
            return Wire("listener", ("--interface", "sender"))
    try:
        socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0).close()
    except PermissionError:
        print("NOT TESTED: no live capture is permitted here, and no network namespace:", reason)
        sys.exit(SKIPPED)
    print("no network namespace here (%s): the loopback replaces it" % reason, flush=True)
    return Wire("lo", ("--loopback",))


def wait_until(test, what, seconds=PATIENCE_SECONDS):
    """Answers the first result of `test` that is true."""
    deadline = time.monotonic() + seconds
    while not (result := test()):
        assert time.monotonic() < deadline, "waited in vain for " + what
        time.sleep(0.02)
    return result


def environment(**changes):
    env = {name: value for name, value in os.environ.items()
           if not name.startswith(("PELMO_", "PM_", "_PM_"))}
    return {**env, "TZ": "UTC", **changes}


class Process:
    """One that the test started. It ends with the test, however that ends."""

    def __init__(self, *command, **more):
        self.popen = subprocess.Popen([str(word) for word in command],
                                      **{"stdin": subprocess.DEVNULL, **more},
                                      preexec_fn=self.before_start)

    @staticmethod
    def before_start():
        """These are no longer ignored, though the tests may run where they are."""
        for number in (signal.SIGHUP, signal.SIGINT, signal.SIGQUIT):
            signal.signal(number, signal.SIG_DFL)
        LIBC.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)

    def status(self, seconds=PATIENCE_SECONDS):
        return self.popen.wait(seconds)

    def running(self):
        return self.popen.poll() is None

    def close(self):
        if self.running():
            self.popen.kill()
        self.popen.wait()
        for stream in filter(None, (self.popen.stdin, self.popen.stdout, self.popen.stderr)):
            with contextlib.suppress(BrokenPipeError):  # what was written and not read
                stream.close()


def descriptors(process):
    return len(os.listdir("/proc/%d/fd" % process.popen.pid))


def resident_bytes(pid):
    with open("/proc/%d/statm" % pid) as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as stat:
        fields = stat.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


class Tool(Process):
    """A program, such as the tool; what it prints goes to files of `folder`, its working directory."""

    def __init__(self, binary, folder, *arguments, stdin=subprocess.DEVNULL, stdout=None, stderr=None, **env):
        self.folder = folder
        folder.mkdir(exist_ok=True)
        with open(folder / "stdout", "wb") as out, open(folder / "stderr", "wb") as err:
            super().__init__(binary, *arguments, cwd=folder, env=environment(**env), stdin=stdin,
                             stdout=stdout or out, stderr=stderr or err)

    def text(self, name="stdout"):
        path = self.folder / name
        return path.read_text(errors="replace") if path.exists() else ""

    def reports(self, name="stdout"):
        return read_reports(self.text(name))

    def wait_for_reports(self, count, name="stdout"):
        def test():
            assert self.running(), "the tool ended: " + self.text("stderr")
            return len(self.reports(name)) >= count
        wait_until(test, "%d reports" % count)

    def stop(self, number=signal.SIGTERM):
        """Answers the exit status and how many seconds it took."""
        asked = time.monotonic()
        self.popen.send_signal(number)
        status = self.status()
        return status, time.monotonic() - asked


def sent_totals(text):
    """What the generator reports: kind -> packets, "KIND bytes" -> bytes, messages, subjects."""
    totals = {}
    for line in text.splitlines():
        _, what, count, *rest = line.split()
        totals[what] = float(count) if what == "seconds" else int(count)
        if rest:
            totals[what + " bytes"] = int(rest[0])
    return totals


def read_reports(text):
    """All reports in a text, other lines in between allowed. An unfinished line is left out."""
    reports, table, host = [], None, None
    for line in text[:text.rfind("\n") + 1].splitlines():
        head = re.match(r"Snapshot  (\S+ \S+)  \((\S+) elapsed seconds\)$", line)
        if head:
            reports.append(Report(head.group(1), float(head.group(2)), collections.Counter()))
            table = None
        elif line.strip() in TITLES:
            table = TITLES[line.strip()]
        elif reports and table:
            host = read_row(reports[-1].rows, table, host, line.split())
    return reports


def read_row(rows, table, host, words):
    """Adds a row's numbers under (table, row, column). The host that a second line belongs to is
    handed from line to line; ports of the retransmission table are left out, since they depend on
    what earlier reports have shown; so is what isn't a counter."""
    if not words or words[0].startswith("-") or words[0] == "Port":
        return host
    address = next((word for word in words if word.count(".") == 3 and word[0].isdigit()), None)
    if words[0] == "Totals":
        key, numbers = "totals", words[1:]
    elif table in ("mcast", "subject") and words[1:2] == ["*"]:
        name = words[5:6] if table == "subject" else []
        key, numbers = " ".join([words[0], words[2], *name]), words[3:5] if name else words[3:]
    elif address:
        scid = words[words.index(address) + 1]
        host = "%s %s" % (address, scid)
        columns = {"mcast": 7, "subject": 2}.get(table, len(words))
        key = host + (" received" if words[0] == "*" else "")
        numbers = words[words.index(address) + 2:][:columns]
    elif table in ("retrans", "ptp") and host and len(words) == {"retrans": 4, "ptp": 6}[table]:
        key, numbers = host + " sent", words
    else:
        return host
    for column, number in enumerate(numbers):
        if number != "-":
            rows[table, key, column] += int(number)
    return host


def added_up(reports):
    total = collections.Counter()
    for report in reports:
        total.update(report.rows)
    return {row: count for row, count in total.items() if count}


def total_of(reports, table="mcast", column=0):
    return sum(report.rows[table, "totals", column] for report in reports)


if __name__ == "__main__":
    if open_wire().interface != "lo":
        print("a network namespace and its veth pair carry the live tests")
