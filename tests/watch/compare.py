#!/usr/bin/env python3
"""compare.py PELMOSCOPE PELMOWATCH FOLDER: holds the numbers of pelmowatch json against the tool's tables.

Each capture below the folder is read by both, with a few update intervals. From the lines of JSON alone
the tool's tables are set again, all rows of all tables, and must be the tool's to the byte, but for
headings, empty lines and reliabilities that no number of JSON can hold. Prints what differs, and a count.
"""
import datetime
import functools
import json
import os
import re
import subprocess
import sys

INTERVALS = (10, 2, 0, 100000000)
HEADING = re.compile(rb"^ +(Multicast|PTP) .*Statistics$|^  Port   Address .*|^ -----   ---.*|^$|^Using filter .*")
MULTICAST = (("data_packets", 7), ("payload_bytes", 9), ("null_packets", 5), ("repeated_packets", 7),
             ("repeated_bytes", 9), ("missed_packets", 6), ("bad_packets", 5))
RETRANSMISSION = (("requests", 7), ("requested_packets", 9), ("rejects", 5), ("bad_packets", 7))
POINT_TO_POINT = (("data_packets", 7), ("payload_bytes", 9), ("acknowledgement_requests", 5),
                  ("acknowledgements", 7), ("loss_reports", 9), ("bad_packets", 6))
SUBJECTS = (("messages", 7), ("message_bytes", 9))
ANY_END = b"<any>"


def columns(row, table, suffix=""):
    return "".join(" %*d" % (width, row[name + suffix]) for name, width in table)


def host_lead(mark, address, scid):
    return "%9s%-15s %-5s" % (mark, address, "-" if scid is None else "%5d" % scid)


def added(rows, table, *suffixes):
    names = [name + suffix for name, _ in table for suffix in suffixes]
    return {name: sum(row[name] for row in rows) for name in names}


def grouped(rows, *keys):
    groups = {}
    for row in rows:
        groups.setdefault(tuple(row[key] for key in keys), []).append(row)
    return groups.items()


def raw(text):
    """The bytes that the tool prints for a subject's text: an element ends at its first NUL."""
    def byte(match):
        return b"\\" if match[0] == b"\\\\" else bytes([int(match[0][2:], 16)])
    unescape = functools.partial(re.sub, rb"\\\\|\\x..", byte)
    return b".".join(unescape(element).split(b"\0")[0] for element in text.encode().split(b"."))


def multicast(snapshot):
    yield " " * 9 + "%-21s" % "Totals" + columns(snapshot["totals"]["multicast"], MULTICAST) + "    -"
    for (port, group), rows in grouped(snapshot["multicast"], "port", "group"):
        yield " %5d * %-15s      " % (port, group) + columns(added(rows, MULTICAST, ""), MULTICAST) + "    -"
        for row in rows:
            told = row["reliability_seconds"]
            yield host_lead("", row["sender"], row["scid"]) + columns(row, MULTICAST) + \
                (" %4.0f" % told if told is not None else ANY_END.decode())


def two_sided(snapshot, table, fields, port_name, shows):
    totals = snapshot["totals"][table]
    if not any(totals[name + "_sent"] for name, _ in fields):
        return
    yield " " * 9 + "%-21s" % "Totals" + columns(totals, fields, "_sent")
    for (port, _), rows in grouped(snapshot[table], port_name, "port"):
        sum_of = added(rows, fields, "_sent", "_received")
        if not shows(sum_of, fields):
            continue
        yield " %5d" % port + " " * 24 + columns(sum_of, fields, "_sent")
        for row in rows:
            yield host_lead("* ", row["host"], row["scid"]) + columns(row, fields, "_received")
            yield " " * 30 + columns(row, fields, "_sent")


def sent_any(row, fields):
    return any(row[name + "_sent"] for name, _ in fields)


def subjects(snapshot):
    yield (" " * 9 + "%-21s" % "Totals" + columns(snapshot["totals"]["subjects"], SUBJECTS)).encode()
    for row in snapshot["subjects"]:
        yield (" %5d * %-15s      " % (row["port"], row["group"]) + columns(row, SUBJECTS) + "  ").encode() + \
            raw(row["subject"])
        for sender in row["senders"]:
            yield (host_lead("", sender["sender"], sender["scid"]) + columns(sender, SUBJECTS)).encode()


def report(snapshot):
    """The lines of the tool's report, as bytes."""
    end = datetime.datetime.fromisoformat(snapshot["time"][:19] + "+00:00")
    yield ("Snapshot  %s  (%.1f elapsed seconds)" %
           (end.strftime("%Y-%m-%d %H:%M:%S"), snapshot["elapsed_seconds"])).encode()
    for line in multicast(snapshot):
        yield line.encode()
    for line in two_sided(snapshot, "retransmission", RETRANSMISSION, "service_port",
                          lambda row, fields: sent_any(row, fields) or row["bad_packets_received"]):
        yield line.encode()
    for line in two_sided(snapshot, "point_to_point", POINT_TO_POINT, "port", sent_any):
        yield line.encode()
    yield from subjects(snapshot)


def without_headings(lines):
    return [line.replace(b"-nan", b" nan") for line in lines if not HEADING.match(line)]


def output_of(*command):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, check=False,
                          env={**os.environ, "TZ": "UTC"})
    return done.returncode, done.stdout


def same(told, shown):
    """Answers the first pair of lines that differ, None where there is none."""
    for i in range(max(len(told), len(shown))):
        left, right = (lines[i] if i < len(lines) else b"(none)" for lines in (told, shown))
        if left != right and not (right.endswith(ANY_END) and left.startswith(right[:-len(ANY_END)])):
            return left, right
    return None


def compare(tool, watch, capture, interval, *options):
    """Answers what differs in words, or None; and how many Snapshots there were."""
    status, text = output_of(tool, "-r", capture, "-u", str(interval), "-addrinfo", "-ptp", *options)
    watched, lines = output_of(watch, "json", "-r", capture, "-u", str(interval), "--senders", *options)
    if status != watched:
        return "status %d of the tool, %d of json" % (status, watched), 0
    snapshots = [json.loads(line) for line in lines.splitlines()]
    shown = without_headings(b"\n".join(line for snapshot in snapshots for line in report(snapshot)).split(b"\n"))
    odd = same(without_headings(text.split(b"\n")), shown)
    return odd and "the tool has %r, json %r" % odd, len(snapshots)


def main():
    tool, watch, folder = map(os.path.abspath, sys.argv[1:4])
    captures = sorted(os.path.join(where, name) for where, _, names in os.walk(folder)
                      for name in names if ".pcap" in name)
    count, failed = 0, 0
    for capture in captures:
        for interval in INTERVALS:
            odd, snapshots = compare(tool, watch, capture, interval)
            count += snapshots
            failed += odd is not None
            if odd:
                print("%s, every %d seconds: %s" % (capture, interval, odd))
    print("%d captures, %d snapshots, %d runs differ" % (len(captures), count, failed))
    return 1 if failed or not count else 0


if __name__ == "__main__":
    sys.exit(main())
