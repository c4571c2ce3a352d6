"""pelmowatch serve on saved captures: serve_test.py PELMOSCOPE PELMOWATCH PELMOGEN [--fuzz SECONDS] [TEST ...]."""

import concurrent.futures
import json
import os
import pathlib
import random
import resource
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.parse

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "e2e"))

import packets  # noqa: E402
from hostile import SUBJECTS, subject_field  # noqa: E402
from live_run import wait_until  # noqa: E402
from served import Server, check_by_promtool, differences  # noqa: E402

ROOT = HERE.parents[1]
TOOL, WATCH, PELMOGEN = (str(pathlib.Path(argument).resolve()) for argument in sys.argv[1:4])
FUZZ_SECONDS = 2
MIX = """--mix --count 4000 --rate 400 --hosts 30 --nets 3 --ports 4 --subjects 300 --publishers 3 --scids 0.5
    --repeats 0.05 --gaps 0.05 --restarts 0.01 --damaged 0.1""".split()
PACED = "--mix --count 6000 --rate 200 --hosts 200 --subjects 1000".split()
POLICY = "default-src 'none'"
SAFE = {"X-Content-Type-Options": "nosniff", "X-Frame-Options": "DENY", "Referrer-Policy": "no-referrer",
        "Cross-Origin-Resource-Policy": "same-origin"}
# Sanitizers keep memory that was freed.
TELLS_MEMORY = not any(mark in pathlib.Path(WATCH).read_bytes() for mark in (b"__asan_init", b"__tsan_init"))
MOST_SECONDS_OF_REQUEST = 10
MOST_SECONDS_OF_EVENT = 10


def memory(server):
    """Resident, in bytes."""
    return int(pathlib.Path("/proc/%d/statm" % server.popen.pid).read_text().split()[1]) * resource.getpagesize()


def is_open(connection):
    connection.setblocking(False)
    try:
        while data := connection.recv(1 << 16):
            pass
        return bool(data)
    except BlockingIOError:
        return True
    except OSError:
        return False


class Serve(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.folder = pathlib.Path(cls.scratch.name)
        cls.mix, cls.paced = cls.made("mix.pcap", MIX), cls.made("paced.pcap", PACED)

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    @classmethod
    def made(cls, name, options):
        subprocess.run([PELMOGEN, "--out", cls.folder / name, *options], check=True, stdout=subprocess.DEVNULL)
        return cls.folder / name

    def written(self, name, lines):
        (self.folder / name).write_bytes(packets.capture("\n".join(lines)))
        return self.folder / name

    def serve(self, capture, *arguments, **more):
        server = Server(WATCH, self.folder / self.id(), "-r", str(capture), *map(str, arguments), **more)
        self.addCleanup(server.close)
        return server

    def connect(self, server, text=b"", receive_bytes=0):
        connection = socket.socket()
        self.addCleanup(connection.close)
        if receive_bytes:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        connection.settimeout(20)
        connection.connect((server.host, server.port))
        connection.sendall(text)
        return connection

    def assert_memory(self, server, most):
        if TELLS_MEMORY:
            self.assertLess(memory(server), most)

    def lines_of_json(self, capture, *arguments):
        return subprocess.run([WATCH, "json", "-r", capture, *map(str, arguments)], capture_output=True, check=True,
                              stdin=subprocess.DEVNULL).stdout.splitlines(keepends=True)

    # What is answered.

    def test_every_number_is_the_tools(self):
        for capture in [*sorted((ROOT / "samples").glob("*.pcap")), self.mix]:
            with self.subTest(capture=capture.name):
                server = self.serve(capture, "-u", 3, "--hosts", "--subjects", ">")
                self.assertEqual(differences(TOOL, server, str(capture)), {})
                self.assertEqual(check_by_promtool(server.get("/metrics")), "")
                server.close()

    def test_heads_of_the_json_are_metrics_too(self):
        server, lines = self.serve(self.mix), [json.loads(line) for line in self.lines_of_json(self.mix)]
        metrics = server.metrics()
        for name in ("frames", "packets", "bus_packets"):
            self.assertEqual(metrics["pelmo_%s_total" % name], {(): sum(line[name] for line in lines)})
        faults = {dict(labels)["kind"]: value for labels, value in metrics["pelmo_fault_packets_total"].items()}
        for line in lines:
            for kind, fault in line["faults"].items():
                faults[kind] -= fault["packets"]
        self.assertEqual((set(faults.values()), len(faults)), ({0}, 19))
        self.assertEqual(sum(metrics["pelmo_multicast_messages_total"].values()),
                         sum(line["totals"]["subjects"]["messages"] for line in lines))
        self.assertLess(abs(metrics["process_start_time_seconds"][()] - time.time()), 20)
        self.assertNotIn("pelmo_subject_messages_total", metrics)
        self.assertNotIn("pelmo_multicast_host_data_packets_total", metrics)

    def test_snapshots_are_those_of_json(self):
        lines = self.lines_of_json(self.mix, "-u", 2, "--senders")
        server = self.serve(self.mix, "-u", 2, "--senders")
        self.assertEqual(server.get("/snapshot.json"), lines[-1])
        self.assertEqual(next(server.events()), ("snapshot", lines[-1].decode().rstrip("\n")))

    def test_events_come_as_intervals_end(self):
        lines = self.lines_of_json(self.paced, "-u", 1)
        server = self.serve(self.paced, "-u", 1, "--pace", awaits_end=False)
        self.assertIn(server.answer("/snapshot.json")[0], (200, 503))
        events = server.events()
        begin = time.monotonic()
        got = [next(events)[1] for _ in range(3)]
        self.assertEqual(got, [line.decode().rstrip("\n") for line in lines[:3]])
        self.assertLess(abs(time.monotonic() - begin - 3), 1)

    def test_history_is_that_of_all_intervals(self):
        snapshots = [json.loads(line) for line in self.lines_of_json(self.mix, "-u", 1, "--senders")]
        server = self.serve(self.mix, "-u", 1, "--senders")
        history = server.json("/history.json")
        self.assertEqual(history["interval_seconds"], 1)
        self.assertEqual(len(history["times"]), len(snapshots))
        for name, values in history["series"].items():
            table, _, number = name.rpartition(".")
            part = {"": lambda one: one.get(number, 0), "faults": lambda one: (
                sum(fault["packets"] for fault in one["faults"].values()) if number == "packets"
                else one["faults"].get(number, {}).get("packets", 0))}.get(
                    table, lambda one: one["totals"][table][number])
            self.assertEqual(values, [part(one) for one in snapshots], name)
        for table in ("multicast", "retransmission", "point_to_point", "subjects"):
            row = snapshots[4][table][7]
            self.check_row(server, snapshots, table, {name: row[name] for name in ("port", "group", "subject") if name in row})
            host = row["senders"][0]["sender"] if table == "subjects" else row.get("sender", row.get("host"))
            scid = row["senders"][0]["scid"] if table == "subjects" else row["scid"]
            self.check_row(server, snapshots, table, {
                **{name: row[name] for name in ("port", "group", "subject") if name in row}, "host": host,
                **({"scid": scid} if scid is not None else {})})

    def check_row(self, server, snapshots, table, query):
        history = server.json("/history.json?" + urllib.parse.urlencode({"table": table, **query}))
        self.assertGreater(len(history["series"]), 1)

        def numbers(row, name):
            if row["port"] != query["port"] or any(row[key] != query[key] for key in ("group", "subject") if key in query):
                return 0
            if "host" not in query:
                return row[name]
            hosts = row["senders"] if table == "subjects" else [row]
            return sum(host[name] for host in hosts
                       if (host.get("sender", host.get("host")), host["scid"]) == (query["host"], query.get("scid")))
        for name, values in history["series"].items():
            self.assertEqual(values, [sum(numbers(row, name) for row in one[table]) for one in snapshots], (query, name))

    def test_hostile_subjects_are_labels_and_text(self):
        subjects = {**SUBJECTS, (b'"', b"}\n", b"<script>alert(1)</script>"): '".}\\x0a.<script>alert(1)</script>',
                    (b"\\n", b'\\"'): '\\\\n.\\\\"'}
        lines = ["at 1700000000"] + [
            "data seq=%d {%s}" % (i + 1, subject_field(elements).hex()) for i, elements in enumerate(subjects)]
        server = self.serve(self.written("subjects.pcap", lines), "--subjects", ">")
        self.assertEqual(check_by_promtool(server.get("/metrics")), "")
        labels = {dict(labels)["subject"] for labels in server.metrics()["pelmo_subject_messages_total"]}
        self.assertEqual(labels, set(subjects.values()))
        for text in subjects.values():
            history = server.json("/history.json?" + urllib.parse.urlencode(
                {"table": "subjects", "port": 7500, "group": "239.1.1.1", "subject": text}))
            self.assertEqual(sum(history["series"]["messages"]), 1, text)

    # How it answers.

    def test_statuses_and_headers(self):
        server = self.serve(self.mix)
        row = "/history.json?table=multicast&port=7500"
        for path, status, why in [
                ("/", 200, None), ("/healthz", 200, None), ("/nosuch", 404, b"not found\n"), ("/../etc/passwd", 404, None),
                ("/metrics?x=1", 200, None), ("/history.json?port=1", 400, b"table is missing\n"),
                (row, 400, b"group is missing\n"), (row + "&group=1", 400, b"group isn't an address\n"),
                (row + "&group=239.255.0.1&scid=1", 400, b"scid stands without host\n"),
                (row + "&group=239.255.0.1", 200, None), (row.replace("7500", "65536"), 400, None),
                (row.replace("multicast", "point_to_point"), 200, None), (row + "&<script>=1", 400, None)]:
            got, headers, body = server.answer(path)
            self.assertEqual(got, status, (path, body))
            self.assertTrue(why is None or why == body, body)
            self.assertEqual({name: headers[name] for name in SAFE}, SAFE)
            self.assertTrue(headers["Content-Security-Policy"].startswith(POLICY))
            self.assertIn("frame-ancestors 'none'", headers["Content-Security-Policy"])
            self.assertEqual(headers["Cache-Control"], "no-cache" if path == "/" else "no-store")
        for method in ("POST", "HEAD", "PUT", "DELETE", "OPTIONS", "CONNECT", "NONSENSE"):
            status, headers, _ = server.answer("/metrics", method, b"x" * 100000 if method == "POST" else None)
            self.assertEqual((status, headers["Allow"]), (405, "GET"), method)

    def test_only_names_of_this_machine_are_served(self):
        server = self.serve(self.mix, "--host", "bus.example")
        for host, status in [("127.0.0.1:80", 200), ("localhost", 200), ("LocalHost:9471", 200), ("[::1]:1", 200),
                             ("127.9.9.9", 200), ("Bus.Example:9471", 200), ("evil.example", 403), ("", 403),
                             ("localhost.evil.example", 403), ("127.0.0.1.evil.example", 403), ("10.0.0.1", 200)]:
            self.assertEqual(server.answer("/snapshot.json", Host=host)[0], status, host)
        self.assertIn(b" 403 ", self.connect(server, b"GET /metrics HTTP/1.0\r\n\r\n").recv(100))
        # Wherever it listens: a page's own name may lead to any address.
        self.assertEqual(self.serve(self.mix, "--listen", "0.0.0.0:0").answer("/", Host="evil.example")[0], 403)
        for words in (["--listen", "nonsense"], ["--host", ""], ["--host", "bus.example:9471"]):
            refused = subprocess.run([WATCH, "serve", "-r", self.mix, *words], capture_output=True, text=True, check=False)
            self.assertEqual((refused.returncode, refused.stderr.count("\n")), (2, 1), words)

    def test_a_port_in_use_is_told_in_a_line(self):
        server = self.serve(self.mix)
        second = subprocess.run([WATCH, "serve", "-r", self.mix, "--listen", "127.0.0.1:%d" % server.port],
                                capture_output=True, text=True, check=False)
        self.assertEqual(second.returncode, 1)
        self.assertRegex(second.stderr, r"^\S+ \S+ pelmowatch: unable to listen on 127.0.0.1:\d+: Address already in use.\n$")

    def test_ends_within_a_second_with_clients(self):
        for arguments, status in ((("-u", 1), 0), (("-u", 1, "--pace"), 1)):
            server = self.serve(self.paced, *arguments, awaits_end=not status)
            events = server.events()
            next(events)
            self.connect(server, b"GET /metrics HTTP/1.1\r\nHost: localhost\r\n")
            self.connect(server, b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n")
            begin = time.monotonic()
            server.popen.send_signal(signal.SIGTERM)
            self.assertEqual(server.status(), status)
            self.assertLess(time.monotonic() - begin, 1)

    # What is bounded.

    def test_series_are_bounded_and_expire(self):
        many = self.made("many.pcap", "--count 20000 --rate 10000 --hosts 50 --subjects 5000 --round-robin".split())
        server = self.serve(many, "-u", 1, "--hosts", "--subjects", ">", "--max-series", 1000)
        metrics, text = server.metrics(), server.get("/metrics")
        self.assertLessEqual(sum(map(len, metrics.values())), 1000)
        self.assertEqual(check_by_promtool(text), "")
        whole = sum(metrics["pelmo_multicast_messages_total"].values())
        other = metrics["pelmo_subject_messages_total"][("group", "other"), ("port", "other"), ("subject", "other")]
        self.assertEqual(sum(metrics["pelmo_subject_messages_total"].values()), whole)
        self.assertGreater(other, whole / 2)
        self.assertGreater(metrics["pelmo_watch_left_out_series"][()], 1000)

        lines = ["at 1700000000", "data to=239.1.1.1:7500 seq=1 {<A.OLD>}"]
        lines += ["at %d" % (1700000000 + second) + "\ndata to=239.1.1.2:7500 seq=%d {<A.NEW>}" % (second + 1)
                  for second in range(1, 6)]
        for expire, groups in ((3, 1), (10, 2)):
            server = self.serve(self.written("silent.pcap", lines), "-u", 1, "--expire", expire, "--subjects", "A.*")
            metrics = server.metrics()
            self.assertEqual(len(metrics["pelmo_multicast_data_packets_total"]), groups)
            self.assertEqual(len(metrics["pelmo_subject_messages_total"]), groups)
            server.close()

    def test_subjects_are_chosen_by_patterns(self):
        lines = ["at 1700000000"] + ["data seq=%d {<%s>}" % (i + 1, text) for i, text in
                                     enumerate(("A.B", "A.C", "A.B.C", "B", "B.X"))]
        capture = self.written("patterns.pcap", lines)
        for patterns, found in ((["A.*"], {"A.B", "A.C"}), (["A.>", "B"], {"A.B", "A.C", "A.B.C", "B"}), (["X"], set())):
            options = [word for pattern in patterns for word in ("--subjects", pattern)]
            metrics = self.serve(capture, *options).metrics()
            self.assertEqual({dict(labels)["subject"] for labels in metrics.get("pelmo_subject_messages_total", {})}, found)

    def test_a_thousand_connections_leave_room_for_a_scrape(self):
        server = self.serve(self.mix, "--max-clients", 50)
        before = memory(server)
        crowd = [self.connect(server, b"GET /metrics HTTP/1.1\r\n") for _ in range(1000)]
        begin = time.monotonic()
        for _ in range(5):
            self.assertTrue(server.metrics()["pelmo_watch_clients"][()] <= 51)
        self.assertLess(time.monotonic() - begin, MOST_SECONDS_OF_REQUEST / 2)  # they make room at once
        self.assertLessEqual(sum(map(is_open, crowd)), 50)
        self.assert_memory(server, before + (20 << 20))
        streams = [self.connect(server, b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n") for _ in range(40)]
        self.assertEqual(sum(b" 200 " in stream.recv(100) for stream in streams), 19)  # of an address
        wait_until(lambda: server.metrics()["pelmo_watch_event_clients"][()] == 19, "the count of a second later")

    def test_slow_readers_leave_room_for_scrapes(self):
        """All places of the address taken by followers of events and by readers that take nothing."""
        many = self.made("crowd.pcap", "--count 60000 --rate 20000 --hosts 300 --subjects 20000 --round-robin".split())
        server = self.serve(many, "-u", 1, "--pace", awaits_end=False)
        wait_until(lambda: server.answer("/snapshot.json")[0] == 200, "an interval")
        before = memory(server)
        get = b"GET /%s HTTP/1.1\r\nHost: localhost\r\n\r\n"
        held = [self.connect(server, get % b"events", receive_bytes=2048) for _ in range(100)]
        for _ in range(6):
            held += [self.connect(server, get % (b"snapshot.json", b"metrics")[i % 2], receive_bytes=2048)
                     for i in range(40)]
            for path in ("/metrics", "/healthz"):
                self.assertEqual([server.answer(path)[0] for _ in range(5)], [200] * 5)
            time.sleep(0.6)
        # Two texts of each kind, whatever so many readers asked for, and what they cost themselves.
        self.assert_memory(server, before + (40 << 20))
        self.assertEqual(server.answer("/snapshot.json")[0] in (200, 503), True)

    def test_a_get_that_brings_something_is_the_last(self):
        server = self.serve(self.mix)
        for header in (b"Content-Length: 5", b"Content-Length: 0", b"Transfer-Encoding: chunked"):
            connection = self.connect(server, b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n%s\r\n\r\n"
                                      b"GET /nosuch HTTP/1.1\r\nHost: localhost\r\n\r\n" % header)
            answer = b""
            while piece := connection.recv(1 << 16):
                answer += piece
            self.assertEqual((answer.count(b" 200 "), answer.count(b" 404 ")), (1, 0), header)
        # What the HTTP library answers itself has the same headers.
        for request, status in (("/healthz?" + "&".join("a" * 5000), 414), ("/" + "a" * 40000, 414), ("/%00", 400),
                                ("/healthz%00.png", 400)):
            got, headers, _ = server.answer(request)
            self.assertEqual((got, {name: headers[name] for name in SAFE}), (status, SAFE), request[:20])

    def test_slow_clients_are_cut_off(self):
        """Half a request, one that drips, one without end, a reader of events that stops, and one that reads on."""
        server = self.serve(self.paced, "-u", 1, "--pace", "--senders", awaits_end=False)
        half = self.connect(server, b"GET /metrics HTTP/1.1\r\nHost: local")
        drip = self.connect(server, b"GET /metrics HTTP/1.1\r\n")
        endless = self.connect(server, b"GET /metrics HTTP/1.1\r\n")
        stopped = self.connect(server, b"GET /events HTTP/1.1\r\nHost: localhost\r\n\r\n", receive_bytes=2048)
        before = memory(server)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            reading = pool.submit(lambda: [event for event, _ in zip(server.events(), range(22))])
            with self.assertRaises(OSError):
                for _ in range(1000):
                    endless.sendall(b"X-A: %s\r\n" % (b"a" * 1000))
                    time.sleep(0.001)
            begin = time.monotonic()
            while is_open(half) or is_open(drip):
                self.assertLess(time.monotonic() - begin, MOST_SECONDS_OF_REQUEST + 5)
                try:
                    drip.sendall(b"X")
                except OSError:
                    pass
                time.sleep(0.2)
            wait_until(lambda: server.metrics()["pelmo_watch_event_clients"][()] == 1, "the cut",
                       MOST_SECONDS_OF_EVENT + 15)
            self.assertFalse(stopped.recv(1 << 20) == b"")
            times = [json.loads(data)["time"] for _, data in reading.result(timeout=60)]
        self.assertEqual(times, sorted(set(times)))
        self.assertEqual(len(times), 22)
        self.assert_memory(server, before + (40 << 20))

    def test_random_requests_do_no_harm(self):
        server = self.serve(self.mix, "-u", 1, "--max-clients", 40)
        chance = random.Random(os.environ.get("PELMO_FUZZ_SEED", 20240229))
        sound = [b"GET /%s HTTP/1.1\r\nHost: localhost\r\n\r\n" % path for path in (
            b"", b"metrics", b"events", b"snapshot.json", b"healthz", b"page.js",
            b"history.json?table=subjects&port=7500&group=239.255.0.1&subject=A%5cx00.B",
            b"history.json?table=multicast&port=7500&group=239.255.0.1&host=10.0.0.1&scid=20000")]
        pieces = [b"%00", b"%", b"\\x", b"\0", b"\r\n", b" ", b"\n", b"&", b"=", b"?", b"Content-Length: 99999999999\r\n",
                  b"Transfer-Encoding: chunked\r\n", b"Connection: close\r\n", b"Expect: 100-continue\r\n", b"A" * 40000,
                  b"POST ", b"HTTP/9.9", b"\xff\xfe", b"..", b"Host: \r\n", b"Upgrade: h2c\r\n"]

        def damaged():
            text = bytearray(b"".join(chance.choices(sound, k=chance.choice((1, 1, 1, 3, 20)))))
            for _ in range(chance.choice((0, 1, 2, 8))):
                at = chance.randrange(len(text) + 1)
                text[at:at + chance.choice((0, 0, 1, 9))] = chance.choice(pieces + [chance.randbytes(chance.randrange(1, 9))])
            return bytes(text)

        end, sent = time.monotonic() + FUZZ_SECONDS, 0
        held = []
        while time.monotonic() < end:
            connection = socket.create_connection((server.host, server.port), timeout=20)
            text = damaged()
            try:
                connection.sendall(text)
                connection.settimeout(chance.choice((0.001, 0.01)))
                while connection.recv(1 << 16):
                    pass
            except OSError:
                pass
            held.append(connection)
            while len(held) > chance.randrange(60):
                held.pop(chance.randrange(len(held))).close()
            sent += 1
            if not server.running():
                self.fail("ended by %r: %s" % (text, server.log.read_text()))
        for connection in held:
            connection.close()
        self.assertGreater(sent, 50 * FUZZ_SECONDS)
        self.assertEqual(server.get("/snapshot.json"), self.lines_of_json(self.mix, "-u", 1)[-1])
        wait_until(lambda: server.metrics()["pelmo_watch_event_clients"][()] == 0, "streams that end", 30)
        server.popen.send_signal(signal.SIGTERM)
        self.assertEqual(server.status(), 0)


if __name__ == "__main__":
    del sys.argv[1:4]
    if sys.argv[1:2] == ["--fuzz"]:
        FUZZ_SECONDS = int(sys.argv[2])
        del sys.argv[1:3]
    unittest.main()
