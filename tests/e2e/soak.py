"""A live run for many minutes: soak.py PELMOSCOPE PELMOGEN [--seconds N].

Steady traffic in phases. Each phase brings new subjects and new epochs, from another number of
hosts to another set of ports, out of few that come again and again; the capture file goes round in
its ring. Once all have been there, the tool's memory and descriptors must stay as they are. No
report may be missing, and no packet.
"""

import argparse
import contextlib
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time

from live_run import (Process, Tool, descriptors, open_wire, read_reports, resident_bytes, sent_totals, total_of,
                      wait_until)

TOOL_WORDS = "-u 1 -addrinfo -ptp -hostmsgs -w w.pcap -w-max-size 1 -w-max-rotations 2".split()
TRAFFIC = """--rate 3000 --count 12000 --nets 2 --subjects 1500 --publishers 2 --messages 1-3 --nulls 0.05
    --rreqs 0.02 --ptp-data 0.05 --restarts 0.01 --repeats 0.02 --host-status 0.02 --payload 100-1000""".split()
POPULATIONS = ((50, 1, 7500), (400, 2, 7510), (100, 3, 7520), (200, 1, 7530))
# The heap is in huge pages of 2 MB, and resident memory moves by these. Subjects that stayed
# would come to 7 MB a minute.
SLACK_KB = 4096


class Reader(threading.Thread):
    """Takes the reports from the pipe as they come, and keeps their figures alone."""

    def __init__(self, pipe):
        super().__init__(daemon=True)
        self.pipe, self.elapsed, self.packets = pipe, [], 0
        self.start()

    def run(self):
        text = ""
        for line in self.pipe:
            if line.startswith("Snapshot"):
                self.take(text)
                text = ""
            if "Totals" in line or "Statistics" in line or "Snapshot" in line:
                text += line
        self.take(text)

    def take(self, text):
        for report in read_reports(text):
            self.elapsed.append(report.elapsed)
            self.packets += total_of([report]) + total_of([report], column=3)


def phase(number, pelmogen, wire):
    hosts, ports, first_port = POPULATIONS[number % len(POPULATIONS)]
    return Process(pelmogen, *wire.send, *TRAFFIC, "--seed", number + 1, "--hosts", hosts, "--ports", ports,
                   "--first-port", first_port, stdout=subprocess.PIPE, text=True)


def soak(options, wire, folder):
    """Prints what was seen; answers what was wrong with it."""
    pipe_out, pipe_in = os.pipe()
    samples = []  # kilobytes and descriptors after each phase
    with contextlib.ExitStack() as ends:
        tool = Tool(options.binary, folder / "tool", *TOOL_WORDS, "-i", wire.interface, stdout=pipe_in)
        ends.callback(tool.close)
        os.close(pipe_in)
        reader = Reader(os.fdopen(pipe_out, errors="replace"))
        wait_until(lambda: len(reader.elapsed) >= 1, "a report")
        began, sent, first_reports = time.monotonic(), 0, len(reader.elapsed)
        while time.monotonic() - began < options.seconds:
            sender = phase(len(samples), options.pelmogen, wire)
            ends.callback(sender.close)
            sent += sent_totals(sender.popen.communicate(timeout=60)[0])["data"]
            samples.append((resident_bytes(tool.popen.pid) >> 10, descriptors(tool)))
        seconds, reports = time.monotonic() - began, len(reader.elapsed) - first_reports
        wait_until(lambda: reader.packets >= sent, "the last packets")
        status, stopped_in = tool.stop()
        reader.join(10)

    settled = 2 * len(POPULATIONS)
    before, after = (max(kilobytes for kilobytes, _ in part)
                     for part in (samples[settled:2 * settled], samples[-settled:]))
    counts = sorted({count for _, count in samples})
    print("%.0f seconds, %d reports, %d of %d packets counted; %d KB at first, %d KB in the end; %s descriptors"
          % (seconds, reports, reader.packets, sent, before, after, counts))
    wrong = {
        "memory grows": after > before + SLACK_KB,
        "descriptors change": len(counts) > 1,
        "reports are missing": abs(reports - seconds) > 2,
        "an interval is odd": not all(0.5 <= elapsed <= 1.5 for elapsed in reader.elapsed),
        "packets are missing": reader.packets != sent,
        "the end isn't orderly": status != 0 or stopped_in > 1,
    }
    return [what for what, is_so in wrong.items() if is_so]


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n", maxsplit=1)[0])
    for name in ("binary", "pelmogen"):
        parser.add_argument(name, type=lambda path: pathlib.Path(path).resolve())
    parser.add_argument("--seconds", type=int, default=600, help="at least 100")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as folder:
        wrong = soak(options, open_wire(), pathlib.Path(folder))
    if wrong:
        sys.exit("soak: " + ", ".join(wrong))


if __name__ == "__main__":
    main()
