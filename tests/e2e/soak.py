"""A live run for many minutes: soak.py PELMOSCOPE PELMOGEN [--seconds N].

Steady traffic in phases. Each phase brings new subjects and new epochs, from another number of
hosts to another set of ports, out of few that come again and again; the capture file goes round in
its ring. Once all have been there, the tool's memory and descriptors must stay as they are. No
packet may be missing.
"""

import argparse
import contextlib
import pathlib
import subprocess
import sys
import tempfile
import time

from live_run import Process, Tool, descriptors, open_wire, resident_bytes, sent_totals, total_of

TOOL_WORDS = "-u 1 -addrinfo -ptp -hostmsgs -w w.pcap -w-max-size 1 -w-max-rotations 2".split()
TRAFFIC = """--rate 3000 --count 12000 --nets 2 --subjects 1500 --publishers 2 --messages 1-3 --nulls 0.05
    --rreqs 0.02 --ptp-data 0.05 --restarts 0.01 --repeats 0.02 --host-status 0.02 --payload 100-1000""".split()
POPULATIONS = ((50, 1, 7500), (400, 2, 7510), (100, 3, 7520), (200, 1, 7530))
# The heap is in huge pages of 2 MB, and resident memory moves by these. Subjects that stayed
# would come to 7 MB a minute.
SLACK_KB = 4096


def soak(options, wire, folder):
    """Prints what was seen; answers what was wrong with it."""
    samples = []  # kilobytes and descriptors after each phase
    with contextlib.ExitStack() as ends:
        tool = Tool(options.binary, folder / "tool", *TOOL_WORDS, "-i", wire.interface)
        ends.callback(tool.close)
        tool.wait_for_reports(1)
        began, sent = time.monotonic(), 0
        while time.monotonic() - began < options.seconds:
            hosts, ports, first_port = POPULATIONS[len(samples) % len(POPULATIONS)]
            sender = Process(options.pelmogen, *wire.send, *TRAFFIC, "--seed", len(samples) + 1, "--hosts", hosts,
                             "--ports", ports, "--first-port", first_port, stdout=subprocess.PIPE, text=True)
            ends.callback(sender.close)
            sent += sent_totals(sender.popen.communicate(timeout=60)[0])["data"]
            samples.append((resident_bytes(tool.popen.pid) >> 10, descriptors(tool)))
        time.sleep(3)  # for the reports of the last packets
        status, _ = tool.stop()
        reports = tool.reports()[1:]
    packets = total_of(reports) + total_of(reports, column=3)

    settled = 2 * len(POPULATIONS)
    before, after = (max(kilobytes for kilobytes, _ in part)
                     for part in (samples[settled:2 * settled], samples[-settled:]))
    counts = sorted({count for _, count in samples})
    print("%d reports, %d of %d packets counted; %d KB at first, %d KB in the end; %s descriptors"
          % (len(reports), packets, sent, before, after, counts))
    wrong = {
        "memory grows": after > before + SLACK_KB,
        "descriptors change": len(counts) > 1,
        "packets are missing": packets != sent,
        "the end isn't orderly": status != 0,
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
