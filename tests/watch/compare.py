"""Holds the numbers of pelmowatch json against the tool's tables.

From the lines of JSON alone the tool's tables are set again, all rows of all tables, and must be the tool's to the
byte, but for headings, empty lines and reliabilities that no number of JSON can hold.
"""
import datetime
import functools
import json
import os
import re

from program_case import binary, run

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
            seconds = row["reliability_seconds"]
            yield host_lead("", row["sender"], row["scid"]) + columns(row, MULTICAST) + \
                (" %4.0f" % seconds if seconds is not None else ANY_END.decode())


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


def same(wanted, made):
    """Answers the first pair of lines that differ, None where there is none."""
    for i in range(max(len(wanted), len(made))):
        left, right = (lines[i] if i < len(lines) else b"(none)" for lines in (wanted, made))
        if left != right and not (right.endswith(ANY_END) and left.startswith(right[:-len(ANY_END)])):
            return left, right
    return None


def compare(capture, interval, *options):
    """Answers what differs in words, or None; and how many Snapshots there were."""
    env = {**os.environ, "TZ": "UTC"}
    tool = run(binary("pelmoscope"), "-r", capture, "-u", interval, "-addrinfo", "-ptp", *options, env=env)
    watch = run(binary("pelmowatch"), "json", "-r", capture, "-u", interval, "--senders", *options, env=env)
    if tool.returncode != watch.returncode:
        return "status %d of the tool, %d of json" % (tool.returncode, watch.returncode), 0
    snapshots = [json.loads(line) for line in watch.stdout.splitlines()]
    made = without_headings(b"\n".join(line for snapshot in snapshots for line in report(snapshot)).split(b"\n"))
    odd = same(without_headings(tool.stdout.split(b"\n")), made)
    return odd and "the tool has %r, json %r" % odd, len(snapshots)
