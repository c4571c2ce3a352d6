"""pelmowatch serve on saved captures. The oracle is pelmowatch json.

PELMO_FUZZ_SECONDS and PELMO_FUZZ_SEED are for the random requests.
"""

import collections
import concurrent.futures
import contextlib
import gzip
import json
import math
import os
import pathlib
import random
import re
import resource
import socket
import sys
import time
import urllib.parse
import zlib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import HOSTILE_SUBJECTS, MIX, ROOT, ProgramCase, binary, main, messages, run, schema, wait_until  # noqa: E402

from served import Server, check_by_promtool  # noqa: E402

WATCH = binary("pelmowatch")
PACED = "--mix --count 6000 --rate 200 --hosts 200 --subjects 1000".split()
FUZZ_SECONDS = int(os.environ.get("PELMO_FUZZ_SECONDS", 2))
SAFE = {"X-Content-Type-Options": "nosniff", "X-Frame-Options": "DENY", "Referrer-Policy": "no-referrer",
        "Cross-Origin-Resource-Policy": "same-origin"}
# Sanitizers keep memory that was freed.
SHOWS_MEMORY = not any(mark in WATCH.read_bytes() for mark in (b"__asan_init", b"__tsan_init"))
MOST_SECONDS = 10  # of a request, and of an event
PLACES = {"port", "group", "sender", "host", "scid", "service_port", "reliability_seconds", "subject", "senders"}
GET = b"GET /%s HTTP/1.1\r\nHost: localhost\r\n\r\n"


def memory(server):
    """Resident, in bytes."""
    return int(pathlib.Path("/proc/%d/statm" % server.popen.pid).read_text().split()[1]) * resource.getpagesize()


def is_open(connection):
    connection.setblocking(False)
    try:
        while connection.recv(1 << 16):
            pass
    except OSError as error:
        return isinstance(error, BlockingIOError)
    return False


def metrics_of_json(snapshots):
    """(metric, its labels) -> the value that it has after these intervals, but for zeros."""
    numbers = collections.Counter()

    def add(table, row, **labels):
        for name in row.keys() - PLACES:
            numbers["pelmo_%s_%s_total" % (table, name), tuple(sorted(labels.items()))] += row[name]

    for snapshot in snapshots:
        for name in ("frames", "packets", "bus_packets"):
            numbers["pelmo_%s_total" % name, ()] += snapshot[name]
        for reason, count in snapshot["not_read"].items():
            numbers["pelmo_not_read_frames_total", (("reason", reason),)] += count
        for kind, fault in snapshot["faults"].items():
            add("fault", {"packets": fault["packets"]}, kind=kind)
        for table in ("multicast", "retransmission", "point_to_point"):
            for row in snapshot[table]:
                place = {name: str(row[name]) for name in ("port", "group") if name in row}
                add(table, row, **place)
                add(table + "_host", row, **place, host=row.get("host", row.get("sender")), scid=str(row["scid"] or ""))
        for row in snapshot["subjects"]:
            add("multicast", row, port=str(row["port"]), group=row["group"])
            add("subject", row, port=str(row["port"]), group=row["group"], subject=row["subject"])
    return {key: number for key, number in numbers.items() if number}


class Serve(ProgramCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.mix, cls.paced = cls.generate("mix.pcap", *MIX), cls.generate("paced.pcap", *PACED)

    def serve(self, capture, *arguments, **more):
        return self.started(Server(WATCH, self.folder / self.id(), "-r", capture, *arguments, **more))

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
        if SHOWS_MEMORY:
            self.assertLess(memory(server), most)

    def lines_of_json(self, capture, *arguments):
        return run(WATCH, "json", "-r", capture, *arguments).stdout.splitlines(keepends=True)

    def test_every_number_is_that_of_json(self):
        for capture in (ROOT / "samples/bus.pcap", self.mix):
            with self.subTest(capture=capture.name):
                wanted = metrics_of_json(map(json.loads, self.lines_of_json(capture, "-u", 3, "--senders")))
                server = self.serve(capture, "-u", 3, "--hosts", "--subjects", ">")
                metrics = server.metrics()
                found = {(name, labels): value for name, samples in metrics.items() for labels, value in samples.items()
                         if re.fullmatch(r"pelmo_(?!watch).*_total", name) and value}
                self.assertEqual(set(found.items()) ^ set(wanted.items()), set())
                self.assertEqual(len(metrics["pelmo_fault_packets_total"]), 19)
                self.assertLess(abs(metrics["process_start_time_seconds"][()] - time.time()), 60)
                self.assertEqual(check_by_promtool(server.get("/metrics")), "")
                server.close()
        metrics = self.serve(self.mix).metrics()
        self.assertNotIn("pelmo_subject_messages_total", metrics)
        self.assertNotIn("pelmo_multicast_host_data_packets_total", metrics)

    def test_events_come_as_intervals_end(self):
        lines = self.lines_of_json(self.mix, "-u", 2, "--senders")
        server = self.serve(self.mix, "-u", 2, "--senders")
        self.assertEqual(server.get("/snapshot.json"), lines[-1])
        self.assertEqual(next(server.events()), ("snapshot", lines[-1].decode().rstrip("\n")))

        lines = self.lines_of_json(self.paced, "-u", 1)
        server = self.serve(self.paced, "-u", 1, "--pace", awaits_end=False)
        events = server.events()
        self.assertEqual([next(events)[1] for _ in range(3)], [line.decode().rstrip("\n") for line in lines[:3]])

    def test_the_source_is_named_and_each_of_its_states(self):
        server = self.serve(self.paced, "-u", 1, "--pace", "--filter", "udp port 7500", awaits_end=False)
        events = server.events(kinds=("source",))
        source = json.loads(next(events)[1])
        self.assertEqual([source[name] for name in ("host", "interface", "files", "filter", "is_paced", "state", "words")],
                         [socket.gethostname(), None, [str(self.paced)], "udp port 7500", True, "reading", "reading"])
        self.assertEqual(server.json("/source.json"), source)
        schema("pelmowatch-source").validate(source)
        whole = self.serve(self.mix)
        self.assertEqual(json.loads(next(whole.events(kinds=("source",)))[1])["words"], "read to its end")
        self.assertIsNone(whole.json("/source.json")["filter"])

        broken = self.folder / "broken.pcap.gz"
        broken.write_bytes(gzip.compress(self.mix.read_bytes())[:-20000])
        server = self.serve(broken, awaits_end=False)
        wait_until(lambda: server.answer("/healthz")[0] == 503, "a bad word on its health")
        failed = server.json("/source.json")
        schema("pelmowatch-source").validate(failed)
        self.assertEqual((failed["state"], failed["words"]), ("failed", "reading failed: a file is not read whole"))
        self.ends_at_signal(server, 1)

    def test_history_is_that_of_all_intervals(self):
        snapshots = [json.loads(line) for line in self.lines_of_json(self.mix, "-u", 1, "--senders")]
        server = self.serve(self.mix, "-u", 1, "--senders")
        history = server.json("/history.json")
        self.assertEqual(history["interval_seconds"], 1)
        self.assertEqual(len(history["times"]), len(snapshots))
        self.assertEqual(history["elapsed_seconds"], [one["elapsed_seconds"] for one in snapshots])

        def number_of(one, table, name):
            if table == "faults":
                return sum(fault["packets"] for key, fault in one["faults"].items() if name in ("packets", key))
            return one["totals"][table][name] if table else one.get(name, 0)

        for name, values in history["series"].items():
            table, _, number = name.rpartition(".")
            self.assertEqual(values, [number_of(one, table, number) for one in snapshots], name)
        for table in ("multicast", "retransmission", "point_to_point", "subjects"):
            row = snapshots[4][table][7]
            place = {name: row[name] for name in ("port", "group", "subject") if name in row}
            host = row["senders"][0] if table == "subjects" else row
            scid = {"scid": host["scid"]} if host["scid"] is not None else {}
            self.check_row(server, snapshots, table, place)
            self.check_row(server, snapshots, table, {**place, "host": host.get("sender", host.get("host")), **scid})

    def check_row(self, server, snapshots, table, query):
        history = server.json("/history.json?" + urllib.parse.urlencode({"table": table, **query}))
        self.assertGreater(len(history["series"]), 1)
        host = (query["host"], query.get("scid")) if "host" in query else None

        def rows(one):
            for row in one[table]:
                if all(row[key] == query[key] for key in ("port", "group", "subject") if key in query):
                    yield from row["senders"] if table == "subjects" and host else [row]

        for name, values in history["series"].items():
            wanted = [sum(row[name] for row in rows(one) if host in (
                None, (row.get("sender", row.get("host")), row.get("scid")))) for one in snapshots]
            self.assertEqual(values, wanted, (query, name))

    def test_hostile_subjects_are_labels_and_text(self):
        lines = ["at 1700000000", *messages(HOSTILE_SUBJECTS)]
        server = self.serve(self.capture_of("subjects.pcap", *lines), "--subjects", ">")
        self.assertEqual(check_by_promtool(server.get("/metrics")), "")
        labels = {dict(labels)["subject"] for labels in server.metrics()["pelmo_subject_messages_total"]}
        self.assertEqual(labels, set(HOSTILE_SUBJECTS.values()))
        for text in HOSTILE_SUBJECTS.values():
            history = server.json("/history.json?" + urllib.parse.urlencode(
                {"table": "subjects", "port": 7500, "group": "239.1.1.1", "subject": text}))
            self.assertEqual(sum(history["series"]["messages"]), 1, text)

    def test_statuses_and_headers(self):
        """Of all kinds of answers, also of those that the HTTP library makes."""
        server = self.serve(self.mix, "--host", "bus.example")
        for path, status in [
                ("/", 200), ("/healthz", 200), ("/metricsx", 404), ("/metrics?x=1", 200), ("/history.json?port=1", 400),
                ("/history.json?table=multicast&port=7500&group=239.255.0.1", 200),
                ("/healthz?" + "&".join("a" * 5000), 414), ("/" + "a" * 40000, 414), ("/%00", 400), ("/healthz%00.png", 400)]:
            got, headers, body = server.answer(path)
            self.assertEqual(got, status, (path, body))
            self.assertEqual({name: headers[name] for name in SAFE}, SAFE)
            self.assertTrue(headers["Content-Security-Policy"].startswith("default-src 'none'"))
            self.assertIn("frame-ancestors 'none'", headers["Content-Security-Policy"])
            self.assertEqual(headers["Cache-Control"], "no-cache" if path == "/" else "no-store")
        for method in ("POST", "DELETE", "OPTIONS", "CONNECT", "NONSENSE"):
            status, headers, _ = server.answer("/metrics", method, b"x" * 100000 if method == "POST" else None)
            self.assertEqual((status, headers["Allow"]), (405, "GET, HEAD"), method)

        for path, status in (("/", 200), ("/metrics", 200), ("/events", 200), ("/snapshot.json", 200), ("/nosuch", 404)):
            self.assertEqual(server.answer(path, "HEAD")[::2], (status, b""), path)

        # Wherever it listens: a page's own name may lead to any address.
        for host, status in [("127.0.0.1:80", 200), ("[::1]:1", 200), ("Bus.Example:9471", 200), ("10.0.0.1", 200),
                             ("", 403), ("localhost.evil.example", 403), ("127.0.0.1.evil.example", 403)]:
            self.assertEqual(server.answer("/snapshot.json", Host=host)[0], status, host)
        self.assertIn(b" 403 ", self.connect(server, b"GET /metrics HTTP/1.0\r\n\r\n").recv(100))
        self.assertEqual(self.serve(self.mix, "--listen", "0.0.0.0:0").answer("/", Host="evil.example")[0], 403)

        for words, status, why in [
                (("--listen", "nonsense"), 2, "nonsense"), (("--host", ""), 2, "host"),
                (("--host", "bus.example:9471"), 2, "bus.example:9471"),
                (("--listen", "127.0.0.1:%d" % server.port), 1,
                 "pelmowatch: unable to listen on 127.0.0.1:%d: Address already in use.\n" % server.port)]:
            refused = run(WATCH, "serve", "-r", self.mix, *words)
            self.assertEqual((refused.returncode, refused.stderr.count(b"\n")), (status, 1), words)
            self.assertIn(why, refused.stderr.decode())

    def test_what_other_sites_pages_ask_for_is_refused(self):
        server = self.serve(self.mix)
        own = "http://127.0.0.1:%d" % server.port
        for path, site, mode, destination, origin, status in [
                ("/metrics", "same-origin", "cors", "", "", 200), ("/metrics", "none", "", "", "", 200),
                ("/metrics", "cross-site", "no-cors", "", "", 403), ("/metrics", "same-site", "cors", "", "", 403),
                ("/metrics", "", "", "", own, 200), ("/metrics", "", "", "", "http://127.0.0.1", 403),
                ("/metrics", "", "", "", "null", 403),
                # A link to the page is followed, one to its data isn't; nor is a frame or a script.
                ("/", "cross-site", "navigate", "document", "", 200),
                ("/history.json", "cross-site", "navigate", "document", "", 403),
                ("/", "cross-site", "navigate", "iframe", "", 403), ("/page.js", "cross-site", "no-cors", "script", "", 403)]:
            headers = {"Sec-Fetch-Site": site, "Sec-Fetch-Mode": mode, "Sec-Fetch-Dest": destination, "Origin": origin}
            given = {name: value for name, value in headers.items() if value}
            self.assertEqual(server.answer(path, **given)[0], status, (path, given))

    def test_a_query_that_names_no_row_is_refused(self):
        server = self.serve(ROOT / "samples/bus.pcap")
        row = {"table": "subjects", "port": "7500", "group": "239.1.1.1", "subject": "A\\x2eB.C", "host": "10.0.0.1",
               "scid": "65535"}
        no_port, no_subject = "port isn't a number from 0 to 65535", "no subject has this text"
        for name, value, words in [
                ("scid", "65535", None), ("table", "subject", "no such table"), ("table", None, "table is missing"),
                ("table", "multicast", "this table has no subjects"), ("table", "retransmission", "this table has no groups"),
                ("port", "65536", no_port), ("port", "", no_port), ("port", "1x", no_port), ("port", None, "port is missing"),
                ("scid", "0", "scid isn't a number from 1 to 65535"), ("host", None, "scid needs a host"),
                ("group", "239.1.1", "group isn't an address"), ("group", None, "group is missing"),
                ("host", "10.0.0.1000000000", "host isn't an address"), ("Port", "1", "no such name in a query"),
                *(("subject", text, no_subject) for text in ("A\\", "\\y41", "\\x4g", "A.\\x+1", "A" * 253, "." * 127)),
                ("subject", None, "subject is missing")]:
            query = {key: text for key, text in {**row, name: value}.items() if text is not None}
            status, _, body = server.answer("/history.json?" + urllib.parse.urlencode(query))
            self.assertEqual(status, 400 if words else 200, (name, value, body))
            self.assertIn(words or "", body.decode())

    def test_texts_are_compressed_for_those_who_take_it(self):
        server = self.serve(self.mix, "--senders")
        for path in ("/", "/page.js", "/metrics", "/snapshot.json", "/history.json"):
            plain = server.answer(path)
            for accepted, is_zipped in [("gzip", True), ("br, GZIP;q=0.5", True), ("*", True), ("identity", False),
                                        ("gzip;q=0", False), ("gzip; q=0.00, *", False), ("*;q=0", False)]:
                status, headers, body = server.answer(path, Accept_Encoding=accepted)
                self.assertEqual((status, headers["Content-Encoding"], headers["Vary"]),
                                 (200, "gzip" if is_zipped else None, "Accept-Encoding"), (path, accepted))
                if path == "/metrics":  # the process's own numbers change
                    continue
                self.assertEqual(gzip.decompress(body) if is_zipped else body, plain[2])
                self.assertLess(len(body), len(plain[2]) if is_zipped else math.inf)
            tag = plain[1]["ETag"]
            if tag:
                status, headers, body = server.answer(path, If_None_Match='"x", ' + tag, Accept_Encoding="gzip")
                self.assertEqual((status, headers["ETag"], body), (304, tag, b""))
        self.assertEqual(server.answer("/", If_None_Match='"x"')[0], 200)

        paced = self.serve(self.paced, "-u", 1, "--pace", awaits_end=False)
        connection = self.connect(paced, b"GET /events HTTP/1.0\r\nHost: localhost\r\nAccept-Encoding: gzip\r\n\r\n")
        plain, unzipped = paced.events(), b""
        wanted = [next(plain)[1].encode() for _ in range(2)]
        received = b""
        while not all(one in unzipped for one in wanted):
            received += connection.recv(1 << 16)
            head, _, stream = received.partition(b"\r\n\r\n")
            unzipped = zlib.decompressobj(31).decompress(stream)
        self.assertIn(b"Content-Encoding: gzip", head)
        self.assertTrue(unzipped.startswith(b"event: source\ndata: {"), unzipped[:100])

    def test_ends_within_a_second_with_clients(self):
        for arguments, status in ((("-u", 1), 0), (("-u", 1, "--pace"), 1)):
            server = self.serve(self.paced, *arguments, awaits_end=not status)
            events = server.events()
            next(events)
            self.connect(server, b"GET /metrics HTTP/1.1\r\nHost: localhost\r\n")
            self.connect(server, GET % b"events")
            self.ends_at_signal(server, status)

    def test_series_are_chosen_by_patterns_and_expire(self):
        capture = self.capture_of("silent.pcap", *("at %d\ndata seq=%d {<%s>}" % (1700000000 + number, number, text) for
                                                   number, text in enumerate(("A.OLD", "A.B.C", "B", "B.X", "A.NEW"), 1)))
        for options, found in [("--subjects A.* --expire 3", {"A.NEW"}),
                               ("--subjects A.> --subjects B --expire 100", {"A.OLD", "A.NEW", "A.B.C", "B"})]:
            labels = self.serve(capture, "-u", 1, *options.split()).metrics()["pelmo_subject_messages_total"]
            self.assertEqual({dict(label)["subject"] for label in labels}, found)
        # One that comes back begins again, its neighbour goes on, and a reliability is the last one.
        nulls = [line for second in range(8) for line in (
            "at %d" % (1700000000 + second), "null to=239.1.1.2 r=%d" % second,
            *["null to=239.1.1.1"] * {0: 1, 6: 2}.get(second, 0))]
        metrics = self.serve(self.capture_of("back.pcap", *nulls), "-u", 1, "--expire", 3, "--hosts").metrics()
        for name, found in (("null_packets_total", {"239.1.1.1": 2, "239.1.1.2": 8}),
                            ("host_reliability_seconds", {"239.1.1.1": 0, "239.1.1.2": 7})):
            self.assertEqual({dict(labels)["group"]: value for labels, value in metrics["pelmo_multicast_" + name].items()}, found)
        # Those that went leave their places to others.
        crowd = [line for second in range(30) for line in (
            "at %d" % (1700000000 + second), *("data from=10.%d.%d.1 {<S.%d.%d>}" % (2 * (second, number)) for number in range(20)))]
        metrics = self.serve(self.capture_of("turns.pcap", *crowd), "-u", 1, "--expire", 1, "--hosts", "--subjects", ">",
                             "--max-series", 1000).metrics()
        self.assertEqual(metrics["pelmo_watch_left_out_series"], {(): 0})

    def test_counts_that_find_no_room_are_in_the_other_row(self):
        hosts = ["data from=10.1.%d.1 {<S.%d>}" % (number, number) for number in range(250)]
        # Hosts and subjects took all that they may; ports and groups still find room, up to the last of it.
        groups = ["data to=239.2.%d.1 {<S>}" % number for number in range(100)]
        for more, leaves_out in ((), True), (("at 1700000005", "null from=10.1.0.1"), False):
            capture = self.capture_of("crowd.pcap", "at 1700000000", *hosts, "at 1700000003", *groups, *more)
            metrics = self.serve(capture, "-u", 2, "--hosts", "--subjects", ">", "--max-series", 1000).metrics()
            self.assertTrue(700 < sum(map(len, metrics.values())) <= 1000)
            data = metrics["pelmo_multicast_data_packets_total"]
            self.assertGreater(len(data), 10)
            self.assertGreater(data[("group", "other"), ("port", "other")], 0)
            for series in (data, metrics["pelmo_multicast_host_data_packets_total"], metrics["pelmo_subject_messages_total"]):
                self.assertEqual(sum(series.values()), 350)
            self.assertEqual(metrics["pelmo_watch_left_out_series"][()] > 0, leaves_out)

    def test_a_thousand_connections_leave_room_for_a_scrape(self):
        server = self.serve(self.mix, "--max-clients", 50)
        before = memory(server)
        crowd = [self.connect(server, b"GET /metrics HTTP/1.1\r\n") for _ in range(1000)]
        begin = time.monotonic()
        for _ in range(5):
            self.assertTrue(server.metrics()["pelmo_watch_clients"][()] <= 51)
        self.ended_within(begin, MOST_SECONDS / 2)  # they make room at once
        self.assertLessEqual(sum(map(is_open, crowd)), 50)
        self.assert_memory(server, before + (20 << 20))
        streams = [self.connect(server, GET % b"events") for _ in range(40)]
        self.assertEqual(sum(b" 200 " in stream.recv(100) for stream in streams), 19)  # of an address
        wait_until(lambda: server.metrics()["pelmo_watch_event_clients"][()] == 19, "the count of a second later")

    def test_a_get_that_brings_something_is_the_last(self):
        server = self.serve(self.mix)
        for header in (b"Content-Length: 5", b"Content-Length: 0", b"Transfer-Encoding: chunked"):
            connection = self.connect(server, b"GET /healthz HTTP/1.1\r\nHost: localhost\r\n%s\r\n\r\n" % header +
                                      GET % b"nosuch")
            answer = b""
            while piece := connection.recv(1 << 16):
                answer += piece
            self.assertEqual((answer.count(b" 200 "), answer.count(b" 404 ")), (1, 0), header)

    def test_slow_clients_are_cut_off(self):
        """Half a request, one that drips, one without end, a reader of events that stops, and one that reads on."""
        server = self.serve(self.paced, "-u", 1, "--pace", "--senders", awaits_end=False)
        half = self.connect(server, b"GET /metrics HTTP/1.1\r\nHost: local")
        drip, endless = (self.connect(server, b"GET /metrics HTTP/1.1\r\n") for _ in range(2))
        self.connect(server, GET % b"events", receive_bytes=2048)
        before = memory(server)
        with concurrent.futures.ThreadPoolExecutor() as pool:
            reading = pool.submit(lambda: [event for event, _ in zip(server.events(), range(16))])
            with self.assertRaises(OSError):
                for _ in range(1000):
                    endless.sendall(b"X-A: %s\r\n" % (b"a" * 1000))
                    time.sleep(0.001)

            def are_cut_off():
                with contextlib.suppress(OSError):
                    drip.sendall(b"X")
                return not is_open(half) and not is_open(drip)
            wait_until(are_cut_off, "the end of requests", MOST_SECONDS + 10)
            wait_until(lambda: server.metrics()["pelmo_watch_event_clients"][()] == 1, "the cut", MOST_SECONDS + 15)
            times = [json.loads(data)["time"] for _, data in reading.result(timeout=60)]
        self.assertEqual(times, sorted(set(times)))
        self.assertEqual(len(times), 16)
        self.assert_memory(server, before + (40 << 20))

    def test_random_requests_do_no_harm(self):
        server = self.serve(self.mix, "-u", 1, "--max-clients", 40)
        chance = random.Random(os.environ.get("PELMO_FUZZ_SEED", 20240229))
        sound = [GET % path for path in (
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

        end, sent, held = time.monotonic() + FUZZ_SECONDS, 0, []
        while time.monotonic() < end or sent < 100:
            held.append(socket.create_connection((server.host, server.port), timeout=20))
            text = damaged()
            with contextlib.suppress(OSError):
                held[-1].sendall(text)
                held[-1].settimeout(chance.choice((0.001, 0.01)))
                while held[-1].recv(1 << 16):
                    pass
            while len(held) > chance.randrange(60):
                held.pop(chance.randrange(len(held))).close()
            sent += 1
            if not server.running():
                self.fail("ended by %r: %s" % (text, server.log.read_text()))
        for connection in held:
            connection.close()
        self.assertEqual(server.get("/snapshot.json"), self.lines_of_json(self.mix, "-u", 1)[-1])
        wait_until(lambda: server.metrics()["pelmo_watch_event_clients"][()] == 0, "streams that end", 30)
        self.ends_at_signal(server)


if __name__ == "__main__":
    main()
