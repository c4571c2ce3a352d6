#!/usr/bin/env python3
"""The bridge between real daemons and real servers of NATS, alone and as a cluster, while each comes and goes."""
import collections
import contextlib
import datetime
import json
import os
import pathlib
import re
import shlex
import signal
import socket
import subprocess
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
from program_case import ROOT, ProgramCase, binary, main, run, wait_until  # noqa: E402

from bus_client import free_port  # noqa: E402
from live_run import Process  # noqa: E402
from nats_client import NatsClient, NatsServer, cluster, have_server  # noqa: E402


class Bridge(Process):
    """A bridge that is connected on both sides, unless that can't be."""

    def __init__(self, folder, name, servers, daemon, *options, in_url="", waits=True):
        self.log_path = pathlib.Path(folder) / (name + ".log")
        urls = ",".join("nats://%s127.0.0.1:%d" % (in_url, server.port) for server in servers)
        self.command = (binary("pelmobridge"), "--nats", urls, "--daemon", "127.0.0.1:%d" % daemon.port,
                        "--name", name, *options)
        self.begin(waits)

    def begin(self, waits=True):
        begun = self.log().count("both sides") if self.log_path.exists() else 0
        with open(self.log_path, "ab") as log:
            super().__init__(*self.command, stdout=log, stderr=log)
        if waits:
            self.wait_for(lambda: self.log().count("both sides") > begun)

    def wait_for(self, test):
        try:
            wait_until(lambda: test() or not self.running(), "a bridge")
            assert self.running(), "it has ended"
        except AssertionError as fault:
            raise AssertionError("%s: %s" % (fault, self.log())) from None

    def log(self):
        return self.log_path.read_text()

    def counts(self):
        """Those of its last line of them."""
        lines = re.findall(r"pelmobridge: ((?:[a-z_]+ \d+(?:, |$))+|nothing crossed)$", self.log(), re.MULTILINE)
        return collections.Counter({name: int(count) for name, count in re.findall(r"(\w+) (\d+)", lines[-1])})

    def ended(self):
        """Its counts at its end, by a signal."""
        self.popen.send_signal(signal.SIGTERM)
        self.end_status = self.status()
        return self.counts()


class BridgeCase(ProgramCase):
    def server(self, name="n1", **more):
        return self.started(NatsServer(self.folder / self._testMethodName, name, **more))

    def bridge(self, name, server, daemon, *options, **more):
        servers = server if isinstance(server, list) else [server]
        return self.started(Bridge(self.folder / self._testMethodName, name, servers, daemon, *options, **more))

    def setUp(self):
        (self.folder / self._testMethodName).mkdir(exist_ok=True)

    def client(self, server, *subjects):
        client = NatsClient(server.port)
        self.addCleanup(client.close)
        for subject in subjects:
            client.subscribe(subject)
        return client

    def bus(self, daemon, *words, **more):
        return run(binary("pelmobus"), "--daemon", "127.0.0.1:%d" % daemon.port, *words, **more)

    def listener(self, daemon, *subjects):
        """Its lines, as they come, are read by lines()."""
        path = self.folder / self._testMethodName / ("listener%d" % len(list(self.folder.glob("*/listener*"))))
        with open(path, "wb") as out, open(str(path) + ".err", "wb") as err:
            listener = self.start(binary("pelmobus"), "--daemon", "127.0.0.1:%d" % daemon.port, "listen", *subjects,
                                  "--json", stdout=out, stderr=err)
        wait_until(lambda: "listening" in pathlib.Path(str(path) + ".err").read_text(), "the listener")
        listener.path, listener.file, listener.rest = path, open(path, "rb"), b""
        self.addCleanup(listener.file.close)
        listener.counts, listener.last = collections.defaultdict(collections.Counter), collections.Counter()
        return listener

    @staticmethod
    def lines(listener):
        whole = listener.path.read_text().rpartition("\n")[0]
        return [json.loads(line) for line in whole.splitlines()]

    @staticmethod
    def fields(line):
        return {field["name"]: field["value"] for field in line["fields"]}

    def mark(self, line):
        return self.fields(self.fields(line)["_bridge"])

    def arrived(self, listener, subject):
        """How often each number of a subject came. Those that aren't marked as repeats came in order."""
        lines = (listener.rest + listener.file.read()).split(b"\n")
        listener.rest = lines.pop()
        for line in map(json.loads, lines):
            of, number = line["subject"], self.fields(line)["seq"]
            if "repeat" not in self.mark(line):
                self.assertGreater(number, listener.last[of])
                listener.last[of] = number
            listener.counts[of][number] += 1
        return listener.counts[subject]

    def all_arrive(self, listener, subject, count, seconds=120):
        try:
            wait_until(lambda: len(self.arrived(listener, subject)) >= count, "each of them", seconds)
        except AssertionError as fault:
            missing = sorted(set(range(1, count + 1)) - set(listener.counts[subject]))
            self.fail("%s: %d are missing: %s" % (fault, len(missing), missing[:20]))


class Crossing(BridgeCase):
    def test_subjects_cross_and_come_back_as_they_were(self):
        server, first, second = self.server(), self.daemon(), self.daemon()
        self.bridge("one", server, first, "--from-bus", "A.>", "--prefix-nats", "SITE.")
        two = self.bridge("two", server, second, "--to-bus", "A.>", "--prefix-nats", "SITE.", "--prefix-bus", "FAR.")
        client, listener = self.client(server, "SITE.>"), self.listener(second, ">")
        rows = [("A.B", "A.B"), ("A.a b", "A.a%20b"), ("A.50%", "A.50%25"), ("A.$x.y$", "A.%24x.y$"), ("A.ü", "A.ü"),
                ("A.x*.y>", "A.x%2A.y%3E"), ("A." + "x" * 127, "A." + "x" * 127)]
        for on_bus, on_nats in rows:
            self.assertEqual(self.bus(first, "send", on_bus, "x:i32=1").returncode, 0)
            self.assertEqual(client.receive()[0], "SITE." + on_nats)
        for hostile in ("SITE.A." + "x" * 128, "SITE.A.b%00"):
            client.publish(hostile, b"{}")
        client.flush()
        wait_until(lambda: len(self.lines(listener)) >= len(rows), "all subjects")
        self.assertEqual([line["subject"] for line in self.lines(listener)], ["FAR." + row[0] for row in rows])
        self.assertEqual(two.ended()["to_bus"], len(rows))

    def test_bodies_are_the_bus_s_own_or_lines_of_json(self):
        server, daemon = self.server(), self.daemon()
        bridge = self.bridge("one", server, daemon, "--from-bus", "A", "--to-bus", "B", "--format", "json")
        self.bridge("two", server, daemon, "--from-bus", "A2", "--to-bus", "B2")
        client, listener = self.client(server, "A", "A2"), self.listener(daemon, "B", "B2")
        self.bus(daemon, "send", "A", "x:f64=1.5", "--reply", "R")
        _, reply, headers, body = client.receive()
        self.assertEqual([{"name": "x", "type": "f64", "value": 1.5}], json.loads(body)["fields"])
        self.assertEqual((headers["Pelmo-Origin"], headers["Pelmo-Sequence"]), ("one", "1"))
        self.assertTrue(reply.startswith("_INBOX."))
        self.bus(daemon, "send", "A2", "x:f64=1.5")
        image = client.receive()[3]
        for subject, good in (("B", body), ("B", image), ("B2", body)):
            client.publish(subject, good)
        hostile = (b"", b"{", b"text", image[:-1], image + b"x", image[:8], image[:12] + b"\xff" * (len(image) - 12),
                   b'{"fields":[{"type":"i32","value":99999999999}]}', b"\xff" * 8)
        for bad in hostile:
            client.publish("B", bad)
        for origin, number in (("a,,b", "x"), ("x" * 33, "-1"), (",".join("g%d" % at for at in range(16)), "1")):
            client.publish("B", body, {"Pelmo-Origin": origin, "Pelmo-Sequence": number, "Pelmo-Repeat": "\x01"})
        client.flush()
        self.bus(daemon, "send", "A", "--size", "2000000")
        wait_until(lambda: len(self.lines(listener)) == 5, "good bodies")
        for line in self.lines(listener):
            self.assertEqual(self.fields(line)["x"], 1.5)
        self.assertEqual([self.mark(line)["path"] for line in self.lines(listener)
                          if line["subject"] == "B"], ["one"] * 4)
        bridge.wait_for(lambda: "too large" in bridge.log())
        counts = bridge.ended()
        self.assertEqual([counts[what] for what in ("bad_bodies", "too_large", "loops")], [len(hostile), 1, 1])

    def test_no_message_comes_back_by_its_bridge_or_group(self):
        server, first, second = self.server(), self.daemon(), self.daemon()
        both = ("--from-bus", "A.>", "--to-bus", "A.>")
        bridges = [self.bridge("one", server, first, *both), self.bridge("two", server, second, *both, "--group", "g"),
                   self.bridge("three", server, second, *both, "--group", "g")]
        wait_until(lambda: any("takes messages" in bridge.log() for bridge in bridges[1:]), "a leader")
        listeners = [self.listener(daemon, "A.>") for daemon in (first, second)]
        for daemon in (first, second):
            self.bus(daemon, "send", "A.B", "--count", "20")
        for listener in listeners:
            wait_until(lambda: len(self.lines(listener)) >= 40, "what both sent")
        counts = [bridge.ended() for bridge in bridges]
        self.assertEqual([len(self.lines(listener)) for listener in listeners], [40, 40])
        self.assertEqual(sum(count["to_bus"] for count in counts), 40)

    def test_requests_cross_with_their_answers_or_end_in_time(self):
        server, first, second = self.server(), self.daemon(), self.daemon()
        one = self.bridge("one", server, first, "--from-bus", "ASK.>", "--to-bus", "NATS.>", "--request-timeout", "1")
        self.bridge("two", server, second, "--to-bus", "ASK.>")
        for daemon, words in ((second, ("ASK.ME", "x=yes")), (first, ("NATS.ME", "x=no"))):
            self.start(binary("pelmobus"), "--daemon", "127.0.0.1:%d" % daemon.port, "answer", *words,
                       stderr=subprocess.DEVNULL, stdout=subprocess.DEVNULL)
        heard = self.listener(first, "NATS.>")
        wait_until(lambda: b'"yes"' in self.bus(first, "request", "ASK.ME", "--seconds", "1").stdout, "an answer")
        self.assertEqual(self.bus(first, "request", "ASK.NONE", "--seconds", "1").returncode, 3)
        client = self.client(server, "ANSWERS")
        client.publish("NATS.ME", b'{"fields":[]}', reply="ANSWERS")
        self.assertIn(b"no\0", client.receive()[3])
        client.publish("NATS.NONE", b'{"fields":[]}', reply="ANSWERS")
        client.flush()
        wait_until(lambda: len(self.lines(heard)) == 2, "the request of NATS")
        time.sleep(1.5)  # longer than any answer may take
        counts = one.ended()
        self.assertEqual(counts["requests_late"], 2)


class Keeping(BridgeCase):
    """Streams: at least once, whatever breaks."""

    BOTH = (("--from-bus", "N.>", "--stream", "KEPT"), ("--to-bus", "N.>", "--durable", "far"))

    def test_a_late_consumer_gets_all_and_a_full_stream_costs_the_oldest(self):
        server, first, second = self.server(), self.daemon(), self.daemon()
        client = self.client(server)
        made = client.ask("$JS.API.STREAM.CREATE.KEPT", {"name": "KEPT", "subjects": ["N.>"], "max_msgs": 100,
                                                         "discard": "new", "storage": "memory"})
        self.assertNotIn("error", made)
        one = self.bridge("one", server, first, *self.BOTH[0], "--buffer", "1")
        self.bus(first, "send", "N.A", "--count", "500", "--size", "10000", "--sequence")
        wait_until(lambda: "a stream takes nothing" in one.log(), "a full stream")
        client.ask("$JS.API.STREAM.UPDATE.KEPT", {"name": "KEPT", "subjects": ["N.>"], "max_msgs": 100000,
                                                  "discard": "new", "storage": "memory"})
        wait_until(lambda: client.ask("$JS.API.STREAM.INFO.KEPT", {})["state"]["messages"] > 100, "room in the stream")
        counts = one.ended()
        self.assertEqual(one.end_status, 0)
        kept = client.ask("$JS.API.STREAM.INFO.KEPT", {})["state"]["messages"]
        self.assertEqual(counts["stream_acknowledged"], kept)
        self.assertEqual(counts["stream_dropped"] + kept, 500)
        listener = self.listener(second, "N.>")
        self.bridge("two", server, second, *self.BOTH[1])
        self.all_arrive(listener, "N.A", kept)

    def test_all_arrive_though_each_part_of_the_road_is_killed_or_stalled(self):
        servers = cluster(self.folder / self._testMethodName)
        for server in servers:
            self.addCleanup(server.close)
        first, second = self.daemon(), self.daemon()
        wait_until(lambda: self.ask(servers[0], "$JS.API.STREAM.CREATE.KEPT", {
            "name": "KEPT", "subjects": ["N.>"], "num_replicas": 3}), "a replicated stream")
        ones = [self.bridge(name, servers, first, *self.BOTH[0], "--group", "ones") for name in ("one", "uno")]
        wait_until(lambda: any(map(self.leads, ones)), "a leader")
        two, listener = self.bridge("two", servers, second, *self.BOTH[1]), self.listener(second, "N.>")
        leader = next(filter(self.leads, ones))
        # What happens, and whether messages arrive meanwhile.
        troubles = [(killed(server), True) for server in servers] + [
            (stalled(servers[0]), True), (killed(leader), True), (killed(two), False),
            (self.killed_with_what_it_took(second, two, listener), False)]
        total = int(os.environ.get("PELMO_BRIDGE_MESSAGES", "10500"))
        count = total // len(troubles)
        for number, (trouble, goes_on) in enumerate(troubles):
            subject = "N.%d" % number
            sender = self.start(binary("pelmobus"), "--daemon", "127.0.0.1:%d" % first.port, "send", subject, "--count",
                                str(count), "--rate", str(min(total / 7, 6000)), "--sequence", stderr=-3)
            self.all_arrive(listener, subject, 1)
            with trouble:
                self.assertEqual(sender.status(240), 0)
                if goes_on:
                    self.all_arrive(listener, subject, count)
            self.all_arrive(listener, subject, count)
            wait_until(lambda: self.is_whole(servers[0]), "the cluster after " + subject, 60)
        for bridge in (*ones, two):
            self.assertEqual(bridge.ended()["stream_dropped"], 0)

    @staticmethod
    def leads(bridge):
        return bridge.log().rfind("takes messages") > bridge.log().rfind("stands by")

    @staticmethod
    def ask(server, subject, request):
        """None for an error."""
        try:
            with contextlib.closing(NatsClient(server.port, seconds=2)) as client:
                answer = client.ask(subject, request)
            return None if "error" in answer else answer
        except TimeoutError:
            return None

    def is_whole(self, server):
        """Do the stream and its consumer have a leader, and all replicas the same as it?"""
        answers = [self.ask(server, "$JS.API." + what, {}) for what in ("STREAM.INFO.KEPT", "CONSUMER.INFO.KEPT.far")]
        return all(answer and "leader" in answer["cluster"] and
                   all(replica["current"] for replica in answer["cluster"]["replicas"]) for answer in answers)

    @contextlib.contextmanager
    def killed_with_what_it_took(self, daemon, bridge, listener):
        """A daemon that has taken messages in, and delivers none of them. Its listener is back first."""
        daemon.popen.send_signal(signal.SIGSTOP)
        yield
        daemon.close()
        bridge.popen.send_signal(signal.SIGSTOP)
        self.daemon(port=daemon.port)
        back = pathlib.Path(str(listener.path) + ".err")
        wait_until(lambda: "connected to the daemon again" in back.read_text(), "the listener")
        bridge.popen.send_signal(signal.SIGCONT)


@contextlib.contextmanager
def killed(process):
    process.close()
    yield
    process.begin()


@contextlib.contextmanager
def stalled(process):
    process.popen.send_signal(signal.SIGSTOP)
    yield
    process.popen.send_signal(signal.SIGCONT)


class Documents(BridgeCase):
    def set_up(self, title):
        """The bridges of one of the set-ups: (machine, words)."""
        text = (ROOT / "docs" / "BRIDGE.md").read_text().replace("\\\n", " ")
        part = text.split("**%s.**" % title)[1].split("\n**")[0].split("\n##")[0]
        for machine, words in re.findall(r"^ {4}(\w+)\$ +pelmobridge (.*)$", part, re.MULTILINE):
            yield machine, shlex.split(words)

    def test_the_set_ups_do_what_they_say(self):
        rows = (("Two machines", "PRICES.A", "PRICES.A"), ("A site and a cloud", "ORDERS.A", "ORDERS.A"),
                ("An archive", "ANY.A", "REPLAY.ANY.A"))
        for number, (title, sent, heard) in enumerate(rows):
            server, daemons, bridges = self.server("n%d" % number), {}, []
            for machine, words in self.set_up(title):
                daemon = daemons.setdefault(machine, None) or self.daemon()
                daemons[machine] = daemon
                bridges.append(self.started(Bridge(self.folder / self._testMethodName, "%d%s%d" % (
                    number, machine, len(bridges)), [server], daemon, *words[2:])))
            first, last = list(daemons.values())[0], list(daemons.values())[-1]
            listener = self.listener(last, heard)
            wait_until(lambda: all("connected to" in bridge.log() for bridge in bridges), title)
            for name in re.findall(r"--stream (\w+)", " ".join(map(str, bridges[0].command))):
                client = self.client(server)
                wait_until(lambda: "error" not in client.ask("$JS.API.STREAM.INFO." + name, {}), "the stream")
            self.bus(first, "send", sent, "--count", "4", "--rate", "2", "--sequence")
            self.all_arrive(listener, heard, 4)
            if "--replay" in bridges[-1].command:
                times = [datetime.datetime.fromisoformat(line["time"][:26]) for line in self.lines(listener)]
                self.assertGreater(times[-1] - times[0], datetime.timedelta(seconds=1))


class Start(BridgeCase):
    def test_a_bad_command_line_says_what_is_wrong(self):
        for words, what in (((), "--nats: missing"), (("--nats", "x"), "--from-bus or --to-bus: missing"),
                            (("--nats", "a,,b"), "--nats a,,b: has an empty URL"),
                            (("--stream", "S"), "--stream S: belongs after a --from-bus"),
                            (("--from-bus", "A..B"), "--from-bus A..B: isn't a subject that can cross"),
                            (("--from-bus", "_INBOX.>"), "--from-bus _INBOX.>: isn't a subject that can cross"),
                            (("--prefix-bus", "A"), "--prefix-bus A: has no dot at its end"),
                            (("--group", "a b"), "--group a b: needs 1 to 32 letters"),
                            (("--nats", "x", "--to-bus", "A.*", "--to-bus", "*.B"), "--to-bus: patterns overlap"),
                            (("--format", "xml"), "--format xml: isn't wire or json"), (("x",), "x: not an option")):
            ended = run(binary("pelmobridge"), *words)
            self.assertEqual(ended.returncode, 2, words)
            self.assertIn(what.encode(), ended.stderr)

    def test_it_waits_for_servers_and_daemons_and_reports_them(self):
        port, daemon = free_port(), self.daemon()
        away = type("Away", (), {"port": port})
        nowhere = self.bridge("nowhere", away, daemon, "--to-bus", "A", in_url="pelmo.invalid:1,nats://", waits=False)
        one = self.bridge("one", away, daemon, "--from-bus", "A", waits=False)
        for bridge in (one, nowhere):
            wait_until(lambda: "NATS isn't reached" in bridge.log(), "a word on NATS")  # noqa: B023
        self.bus(daemon, "send", "A", "--count", "3")
        server = self.server(port=port)
        client = self.client(server, "pelmobridge.status.>")
        wait_until(lambda: "connected to nats://" in one.log(), "the connection")
        daemon.close()
        daemon = self.daemon(port=daemon.port)
        wait_until(lambda: "the bus is back" in one.log(), "the bus")
        listener = self.listener(daemon, "PELMOBRIDGE.STATUS.>")
        nowhere.wait_for(lambda: "connected to nats://" in nowhere.log())
        self.assertEqual(one.ended()["plain_sent"], 3)
        self.assertEqual(json.loads(client.receive()[3])["name"], "one")
        wait_until(lambda: self.lines(listener), "the status on the bus")
        self.assertEqual(self.fields(self.lines(listener)[0])["plain_sent"], 3)

    def test_a_signal_ends_it_though_the_daemon_takes_nothing(self):
        server, daemon = self.server(), self.daemon()
        one, client = self.bridge("one", server, daemon, "--to-bus", "A"), self.client(server)
        daemon.popen.send_signal(signal.SIGSTOP)
        body = json.dumps({"fields": [{"name": "x", "type": "string", "value": "x" * 900000}]}).encode()
        for _ in range(40):  # more than the library and the system hold
            client.publish("A", body)
        client.flush()
        one.ended()
        self.assertEqual(one.end_status, 1)


# A user's key of NATS, as a file of credentials has it: 32 zero bytes.
SEED = "SUAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAEQ"


def asks_for_credentials(listening, shown):
    """What a server of NATS does that takes any."""
    with listening.accept()[0] as client, client.makefile("rb") as lines:
        info = {"proto": 1, "max_payload": 1000, "headers": True, "auth_required": True, "nonce": "abc"}
        client.sendall(b"INFO %s\r\n" % json.dumps(info).encode())
        for line in lines:
            if line.startswith(b"CONNECT"):
                shown.update(json.loads(line.partition(b" ")[2]))
            elif line == b"PING\r\n":
                client.sendall(b"PONG\r\n")


class Secure(BridgeCase):
    def test_credentials_open_the_way_or_end_it_and_none_is_logged(self):
        file, daemon, shown = self.folder / self._testMethodName / "user", self.daemon(), {}
        by_word = self.server(settings="authorization { user: u, password: good }")
        listening = self.enterContext(socket.create_server(("127.0.0.1", 0)))
        threading.Thread(target=asks_for_credentials, args=(listening, shown), daemon=True).start()
        by_file = type("Asks", (), {"port": listening.getsockname()[1]})
        file.write_text("".join("-----BEGIN %s-----\n%s\n------END %s------\n" % (what, text, what) for what, text in (
            ("NATS USER JWT", "a.b.c"), ("USER NKEY SEED", SEED))))
        rows = ((by_word, "u:bad@", (), "bad", 1), (by_word, "u:good@", (), "good", 0),
                (by_file, "", ("--credentials", file), SEED, 0))
        for number, (server, in_url, words, secret, status) in enumerate(rows):
            bridge = self.bridge("b%d" % number, server, daemon, "--from-bus", "A", *words, in_url=in_url,
                                 waits=False)
            if status == 0:
                bridge.wait_for(lambda: "connected to" in bridge.log() and "both sides" in bridge.log())
                bridge.popen.send_signal(signal.SIGTERM)
            self.assertEqual(bridge.status(), status, bridge.log())
            self.assertNotIn(secret, bridge.log())
        self.assertEqual((shown["jwt"], bool(shown["sig"])), ("a.b.c", True))

    def test_certificates_are_checked_both_ways(self):
        folder = self.folder / self._testMethodName
        own = ["-days", "2", "-nodes", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-batch"]

        def made(*words):
            subprocess.run(["openssl", *words], check=True, capture_output=True, cwd=folder)
        made("req", "-x509", *own, "-keyout", "ca.key", "-out", "ca", "-subj", "/CN=tests")
        for name in ("server", "client"):
            made("req", *own[2:], "-keyout", name + ".key", "-out", name + ".csr", "-subj", "/CN=" + name)
            (folder / "ext").write_text("subjectAltName=IP:127.0.0.1")
            made("x509", "-req", "-in", name + ".csr", "-CA", "ca", "-CAkey", "ca.key", "-CAcreateserial", "-days", "2",
                 "-extfile", "ext", "-out", name)
        tls = "tls { cert_file: %s/server, key_file: %s/server.key, ca_file: %s/ca, verify: true }"
        server, daemon = self.server(settings=tls % ((folder,) * 3)), self.daemon()
        ca, key = ("--tls-ca", folder / "ca"), ("--tls-cert", folder / "client", "--tls-key", folder / "client.key")
        one = self.bridge("one", server, daemon, "--from-bus", "A", *ca, *key)
        two = self.bridge("two", server, daemon, "--to-bus", "A", "--prefix-bus", "B.", *ca, *key)
        heard = self.listener(daemon, "B.A")
        wait_until(lambda: "connected to" in one.log() and "connected to" in two.log(), "both connections")
        self.bus(daemon, "send", "A", "x=1")
        wait_until(lambda: self.lines(heard), "the message")
        three = self.bridge("three", server, daemon, "--from-bus", "A", *ca, waits=False)
        wait_until(lambda: "NATS isn't reached" in three.log() or not three.running(), "a refusal")
        lacking = self.bridge("four", server, daemon, "--from-bus", "A", "--tls-ca", folder / "none", waits=False)
        self.assertEqual(lacking.status(), 1)
        self.assertIn("--tls-ca", lacking.log())
        self.assertNotIn("PRIVATE", one.log() + two.log() + three.log())


if __name__ == "__main__":
    if not have_server():
        print("skipped: nats-server is missing (apt install nats-server)")
        sys.exit(77)
    main()
