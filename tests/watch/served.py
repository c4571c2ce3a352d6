#!/usr/bin/env python3
"""served.py PELMOSCOPE PELMOWATCH FOLDER: holds the metrics of pelmowatch serve against the tool's tables.

Each capture below the folder is read by both. Every number of the tool's tables over the whole capture must
be that of /metrics, and promtool must find the metrics sound. Prints what differs, and a count.

For other tests: the server as a process, its answers, and metrics read strictly.
"""
import collections
import contextlib
import http.client
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

from compare import raw  # noqa: E402
from live_run import Process, environment, wait_until  # noqa: E402

LISTENING = re.compile(r"listening on http://(.*):(\d+)/\.")
SAMPLE = re.compile(r'([a-z_]+)(?:\{((?:[a-z]+="(?:[^"\\\n]|\\[\\"n])*",?)*)\})? (\S+)$')
LABEL = re.compile(r'([a-z]+)="((?:[^"\\]|\\.)*)"')
SUBJECT = re.compile(rb" *\d+ \* [\d.]+ +\d+ +\d+  (.*)", re.S)
ESCAPES = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}
MULTICAST = ("data_packets", "payload_bytes", "null_packets", "repeated_packets", "repeated_bytes",
             "missed_packets", "bad_packets")
TWO_SIDED = {
    "retransmission": ("requests", "requested_packets", "rejects", "bad_packets"),
    "point_to_point": ("data_packets", "payload_bytes", "acknowledgement_requests", "acknowledgements",
                       "loss_reports", "bad_packets")}
TITLES = {b"Multicast Packet Statistics": "multicast", b"Multicast Retrans Packet Statistics": "retransmission",
          b"PTP Packet Statistics": "point_to_point", b"Multicast Subject Statistics": "subject"}


class Server(Process):
    """pelmowatch serve on a port that the system chose; a saved capture is read once it is made."""

    def __init__(self, watch, folder, *arguments, awaits_end=True, within=()):
        folder.mkdir(exist_ok=True)
        self.log = folder / "stderr"
        with open(self.log, "wb") as log:
            super().__init__(*within, watch, "serve", "--listen", "127.0.0.1:0", *arguments,
                             stdout=subprocess.DEVNULL, stderr=log, env=environment())
        found = wait_until(lambda: LISTENING.search(self.log.read_text()) or not self.running(), "a port")
        if found is True:
            raise AssertionError("the server ended: " + self.log.read_text())
        self.host, self.port = found[1], int(found[2])
        if awaits_end:
            wait_until(lambda: self.json("/healthz")["source"] != "reading", "the capture's end", 60)

    def answer(self, path, method="GET", body=None, timeout=30, **headers):
        """Status, headers, bytes."""
        connection = http.client.HTTPConnection(self.host, self.port, timeout=timeout)
        try:
            connection.request(method, path, body, {name.replace("_", "-"): value for name, value in headers.items()})
            answer = connection.getresponse()
            return answer.status, answer.headers, answer.read()
        finally:
            connection.close()

    def get(self, path):
        status, _, body = self.answer(path)
        if status != 200:
            raise AssertionError("%s: %d %r" % (path, status, body))
        return body

    def json(self, path):
        return json.loads(self.get(path))

    def metrics(self):
        return read_metrics(self.get("/metrics"))

    def events(self, timeout=30):
        """The stream's events as they come: (name, data)."""
        connection = http.client.HTTPConnection(self.host, self.port, timeout=timeout)
        connection.request("GET", "/events")
        event = {}
        with contextlib.closing(connection), connection.getresponse() as stream:
            while line := stream.readline():
                name, _, value = line.decode().rstrip("\n").partition(": ")
                if name in ("event", "data"):
                    event[name] = value
                elif not name and event:
                    yield event["event"], event["data"]
                    event = {}


def read_metrics(text):
    """name -> {labels, sorted pairs: value}. Whatever isn't of the format is an error."""
    found = collections.defaultdict(dict)
    for line in text.decode("utf-8").split("\n")[:-1]:
        if line.startswith("# "):
            continue
        match = SAMPLE.match(line)
        if not match:
            raise AssertionError("no sample: %r" % line)
        labels = tuple(sorted((name, re.sub(r'\\.', lambda escape: ESCAPES[escape[0]], value))
                              for name, value in LABEL.findall(match[2] or "")))
        if labels in found[match[1]]:
            raise AssertionError("twice: %r" % line)
        found[match[1]][labels] = float(match[3])
    return found


def check_by_promtool(text):
    """What promtool finds wrong with the text, or nothing; without promtool too."""
    if shutil.which("promtool") is None:
        return ""
    done = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, check=False)
    return (done.stdout + done.stderr).decode() if done.returncode or done.stderr else ""


def numbers_of_tool(tool, capture):
    """(table, key, number's name) -> what the tool's tables show over the whole capture. Hosts of the two-sided
    tables stand without their port, which the tool replaces by another's."""
    text = subprocess.run([tool, "-r", capture, "-u", "100000000", "-addrinfo", "-ptp"], capture_output=True,
                          stdin=subprocess.DEVNULL, check=False).stdout
    numbers = collections.Counter()
    table, group, host = None, None, None
    for line in text.split(b"\n"):
        words = line.split()
        if line.strip() in TITLES:
            table = TITLES[line.strip()]
        elif not words or words[0] in (b"Port", b"-----", b"Snapshot"):
            pass
        elif table == "multicast" or table == "subject":
            if words[1:2] == [b"*"]:
                group = words[0].decode(), words[2].decode()
                if table == "subject":
                    subject = SUBJECT.match(line)[1]
                    add(numbers, table, (*group, subject), ("messages", "message_bytes"), words[3:5])
                else:
                    add(numbers, table, group, MULTICAST, words[3:])
            elif words[0] != b"Totals" and table == "multicast":
                add(numbers, table, (*group, *place(words[0], words[1])), MULTICAST, words[2:])
        elif words[0] == b"*":
            host = place(words[1], words[2])
            add(numbers, table, host, [name + "_received" for name in TWO_SIDED[table]], words[3:])
        elif table and len(words) == len(TWO_SIDED[table]):
            add(numbers, table, host, [name + "_sent" for name in TWO_SIDED[table]], words)
        elif words[0] == b"Totals":
            add(numbers, table, (), [name + "_sent" for name in TWO_SIDED[table]], words[1:])
    return numbers


def place(address, scid):
    return address.decode(), "" if scid == b"-" else scid.decode()


def add(numbers, table, key, names, words):
    for name, word in zip(names, words):
        numbers[table, key, name] += int(word)


def numbers_of_metrics(metrics):
    """The same of the metrics, as far as the tool shows it."""
    numbers = collections.Counter()
    for metric, samples in metrics.items():
        match = re.match(r"pelmo_(multicast|retransmission|point_to_point|subject)_(host_)?(.*)_total$", metric)
        for labels, value in samples.items() if match else ():
            table, is_host, name = match[1], match[2], match[3]
            labels = dict(labels)
            key = (labels["host"], labels["scid"]) if is_host else ()
            if table in ("multicast", "subject"):
                key = (labels["port"], labels["group"], *key)
            if table == "subject":
                key = (*key, raw(labels["subject"]))
            if not (table == "multicast" and name.startswith("message")):
                numbers[table, key, name] += int(value)
    return numbers


def differences(tool, server, capture):
    """All numbers of the tool that the metrics don't have, and the other way round."""
    told, shown = numbers_of_tool(tool, capture), numbers_of_metrics(server.metrics())
    # The tool shows what was sent alone in a table's totals, and no totals of it for tables without.
    for table, names in TWO_SIDED.items():
        for name in names:
            shown.pop((table, (), name + "_received"), None)
    return {key: (told[key], shown[key]) for key in {**told, **shown} if told[key] != shown[key]}


def main():
    tool, watch, folder = map(os.path.abspath, sys.argv[1:4])
    captures = sorted(os.path.join(where, name) for where, _, names in os.walk(folder)
                      for name in names if ".pcap" in name)
    failed = numbers = 0
    with tempfile.TemporaryDirectory() as scratch:
        for capture in captures:
            try:
                server = Server(watch, pathlib.Path(scratch), "-r", capture, "--hosts", "--subjects", ">",
                                "--max-series", "100000")
            except AssertionError as error:
                print("%s: %s" % (capture, str(error).strip()))
                continue
            odd = differences(tool, server, capture)
            unsound = check_by_promtool(server.get("/metrics"))
            numbers += len(numbers_of_metrics(server.metrics()))
            server.close()
            if odd or unsound:
                failed += 1
                print("%s: %s %s" % (capture, dict(list(odd.items())[:3]), unsound))
    print("%d captures, %d numbers, %d runs differ" % (len(captures), numbers, failed))
    return 1 if failed or not numbers else 0


if __name__ == "__main__":
    sys.exit(main())
