"""pelmowatch serve as a process, its answers, and its metrics read strictly."""

import collections
import contextlib
import http.client
import json
import pathlib
import re
import shutil
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

from live_run import Process, environment, wait_until  # noqa: E402

LISTENING = re.compile(r"listening on http://(.*):(\d+)/\.")
SAMPLE = re.compile(r'([a-z_]+)(?:\{((?:[a-z]+="(?:[^"\\\n]|\\[\\"n])*",?)*)\})? (\S+)$')
LABEL = re.compile(r'([a-z]+)="((?:[^"\\]|\\.)*)"')
ESCAPES = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}


class Server(Process):
    """pelmowatch serve on a port that the system chose; a saved capture is read once it is made."""

    def __init__(self, watch, folder, *arguments, awaits_end=True, within=(), **more):
        folder.mkdir(exist_ok=True)
        self.log = folder / "stderr"
        with open(self.log, "wb") as log:
            super().__init__(*within, watch, "serve", "--listen", "127.0.0.1:0", *arguments,
                             stdout=subprocess.DEVNULL, stderr=log, env=environment(), **more)
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

    def events(self, timeout=30, kinds=("snapshot",)):
        """The stream's events of some kinds as they come: (name, data)."""
        connection = http.client.HTTPConnection(self.host, self.port, timeout=timeout)
        connection.request("GET", "/events")
        event = {}
        with contextlib.closing(connection), connection.getresponse() as stream:
            while line := stream.readline():
                name, _, value = line.decode().rstrip("\n").partition(": ")
                if name in ("event", "data"):
                    event[name] = value
                elif not name and event:
                    if event["event"] in kinds:
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
