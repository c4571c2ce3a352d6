"""The daemon as a program, by what clients and operators see."""

import concurrent.futures
import fcntl
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ProgramCase, Tool, binary, main, run, wait_until  # noqa: E402

from bus_client import (AGREED, BOOL, COUNTER, HELLO_BYTES, MAGIC, OFFER, STRING, Client, Closed,  # noqa: E402
                        data_message, free_port, hello, message, number, start_message, subject_field, text, value_of)
from live_run import descriptors, resident_bytes  # noqa: E402
from packets import field  # noqa: E402

PMD = binary("pmd")
START_SECONDS = 10
MEGABYTE = 1 << 20
HEAD = struct.Struct(">II")
# A sanitizer keeps freed memory for a while.
SMALL_QUARANTINE = ("env", "ASAN_OPTIONS=quarantine_size_mb=1:allocator_release_to_os_interval_ms=500")


class Pmd(ProgramCase):
    def refused(self, daemon):
        """A client whose answer to the greeting isn't one."""
        bad = self.client(daemon, start=False)
        bad.socket.sendall(bytes([9]) * 12)
        self.assertTrue(bad.is_cut_off())

    def all_get(self, daemon, listeners, subject):
        """Sends until each has got one: what is sent meanwhile reaches those that are back."""
        sender = self.client(daemon)
        wait_until(lambda: sender.send(subject) and all(subject in one.text() for one in listeners),
                   subject + " at each client", 30)

    def run_pmd(self, *arguments, program=(PMD,)):
        done = run(*program, *arguments, text=True)
        return done.returncode, done.stdout, done.stderr

    @staticmethod
    def peak_bytes(daemon):
        status = pathlib.Path("/proc/%d/status" % daemon.popen.pid).read_text()
        return int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]) << 10

    def test_says_what_is_wrong_and_ends(self):
        taken = self.daemon()
        where = "127.0.0.1:%d" % taken.port
        for arguments, status, words in (
                (["--frob"], 2, "pmd: --frob: no such option; --help lists the options\n"),
                (["--max-clients", "x"], 2, "pmd: --max-clients x: "),
                (["-listen", where], 1, "pmd: can't listen on %s: Address already in use\n" % where),
                (["-listen", "192.0.2.1:7500"], 1, "pmd: can't listen on 192.0.2.1:7500: "
                 "Cannot assign requested address\n"),
                (["-listen", ":%d" % free_port(), "--oska", "239.1.1.1:7500", "--interface",
                  "192.0.2.1"], 1, "pmd: can't send to the group: ")):
            code, out, err = self.run_pmd(*arguments)
            self.assertEqual((code, out), (status, ""), arguments)
            self.assertTrue(err.startswith(words) and err.count("\n") == 1, err)
        self.assertRegex(self.run_pmd("--version")[1], r"^pmd [0-9.]+ \(bus version 8\.5\.2\)\n$")

    def test_cuts_off_who_breaks_the_rules_and_nobody_else(self):
        daemon = self.daemon()
        good, corrupt = self.client(daemon, "A"), "client %s (tester): it sent a message that is corrupt"
        for what, words in (
                (b"GET / HTTP/1.0\r\n\r\n", "bad magic from %s"),
                (HEAD.pack(0xffffffff, MAGIC), "message with invalid size from %s"),
                (message(b"\7nonsense"), corrupt), (message(b"\4sub"), corrupt),
                (message(b"\4sub\0\2\x79\0\3\0"), corrupt),  # no elements
                (message(b"\4sub\0\2\x79\0\x09\2\3A\0\x09B\0"), corrupt),
                (message(text("mtype", "L")), "client %s (tester): its interest has no subject"),
                (start_message(service="7501"), "client %s (tester): its start messages contradict each other"),
                (HEAD.pack(0, 0), "")):  # a client that leaves in order
            client = self.client(daemon)
            where = "127.0.0.1:%d" % client.socket.getsockname()[1]
            before = client.send("A", b"before")
            client.socket.sendall(what + data_message("A", b"after"))
            self.assertTrue(client.is_cut_off(), what)
            self.assertEqual(good.message(), before)
            if words:
                self.assertTrue(daemon.log().rstrip("\n").endswith(words % where), daemon.log())
        early = self.client(daemon, start=False)
        early.shake_hands()
        early.send("A")
        self.assertTrue(early.is_cut_off())
        self.assertTrue(daemon.log().endswith(": it sent a message before its start message\n"), daemon.log())
        self.assertTrue(good.hears(good, "A"))

    def test_comes_to_terms_with_a_client_or_refuses_it(self):
        daemon = self.daemon()
        good, agrees, offers = (0, 4, 1), hello(COUNTER), hello(OFFER)
        no_terms = "its terms for the queue can't be kept"
        for answer, frames, types, fault in (
                ((0, 3, 0), [agrees], [OFFER, AGREED], ""),  # of the older version
                (good, [hello(AGREED)], [OFFER, AGREED], ""), (good, [offers, agrees], [OFFER, COUNTER, AGREED], ""),
                (good, [offers] * 8, [OFFER] + [COUNTER] * 8, "it doesn't come to terms for the queue"),
                ((1, 4, 1), [], [], "its answer isn't one to the greeting"),
                ((0, 5, 1), [], [], "its version is unknown"),
                (good, [hello(0)], [OFFER, 0], no_terms), (good, [hello(77)], [OFFER, 0], no_terms),
                (good, [agrees[:7] + b"\3" + agrees[8:]], [OFFER, 0], no_terms)):
            with self.subTest(answer=answer, types=types):
                client = self.client(daemon, start=False)
                client.exactly(12)
                client.socket.sendall(struct.pack(">III", *answer) + b"".join(frames))
                self.assertEqual([client.exactly(HELLO_BYTES)[3] for _ in types], types)
                self.assertTrue(not fault or client.is_cut_off() and daemon.log().endswith(fault + "\n"), daemon.log())

    def test_answers_a_start_message_or_says_why_not(self):
        daemon = self.daemon()
        owner, other = self.client(daemon, session="7F000001.U0001.G1"), self.client(daemon)
        user, network, pid, long = text("userid", "tester"), text("network", ""), number("pid", 8), "x" * 300

        def changed(old, new=b"", session=""):
            return message(start_message(session)[8:].replace(old, new))

        rows = [(start_message(service=long), 16), (changed(network, text("network", long)), 17),
                # Another client's: the same from another process, its id with what the daemon gives out.
                (changed(pid, number("pid", 9), owner.session), 91),
                (start_message("7F000001.U0001." + other.session.rpartition(".")[2]), 91)]
        rows += [(changed(part), 3) for part in (user, text("service", ""), network, number("vmin", 8), pid,
                                                 field("rc", BOOL, b"\0"))]
        rows += [(start_message(session), 3) for session in (
            "x.y", "7F000001", "7F000001.", "7F000001.a..b", "7F000001.>", "7F000001.*", long, "7F000001.U0001",
            "7F000001.U0001.G1.2", "7F000001.X0001.G1", "7F000001.U001.G1", "7F000001.U0001.G\n")]
        for start, error in rows:
            client = self.client(daemon, start=False)
            client.shake_hands()
            client.socket.sendall(start)
            self.assertEqual(value_of(client.message(), "error"), struct.pack(">i", error), start)
            self.assertTrue(client.is_cut_off())
        # Back with its session it has its id again; one whose id is taken gets another.
        owner.socket.sendall(HEAD.pack(0, 0))
        self.assertTrue(owner.is_cut_off())
        ids = [self.client(daemon, session=session).client_id
               for session in ("", "7F000001.U0001.G7", "7F000001.U0001.G8", "7F000001.P0005.G9")]
        self.assertEqual((ids[1], len({*ids, other.client_id})), (1, 5))
        odd = self.client(daemon, start=False)
        odd.shake_hands()
        odd.socket.sendall(changed(user, field("userid", STRING, b"j\x1b[2J\noe\\\xff\0")))
        reply = odd.message()
        self.assertEqual([value_of(reply, name) for name in ("vmaj", "vmin", "vupd", "dtyp")],
                         [*(struct.pack(">i", part) for part in (8, 5, 2)), b"PMD\0"])
        odd.socket.sendall(message(b"\4sub"))
        self.assertTrue(odd.is_cut_off())
        self.assertIn("(j\\x1b[2J\\x0aoe\\x5c\\xff): it sent", daemon.log())

    def test_echoes_and_hides_as_its_clients_ask(self):
        daemon = self.daemon()
        one, other = self.client(daemon, "X"), self.client(daemon, "X", echo=False)
        hidden = self.client(daemon, "_PM.TEST.>")

        def ask(client, letter, on):
            data = field("data", BOOL, bytes([on]))
            client.socket.sendall(message(text("mtype", "S"), text("control", letter), data))

        self.assertTrue(one.hears(other, "X", b"first"))
        ask(one, "E", False)
        self.assertTrue(other.hears(one, "X", b"second"))
        ask(other, "E", True)
        self.assertTrue(other.hears(other, "X", b"third"))
        self.assertEqual(one.message(), data_message("X", b"third"))
        # Reserved subjects are a hidden client's.
        ask(one, "C", True)
        self.assertTrue(hidden.hears(one, "_PM.TEST.X"))
        ask(one, "C", False)
        one.send("_PM.TEST.X", b"refused")
        # What has no meaning is ignored.
        one.socket.sendall(message(text("mtype", "Q"), subject_field("X")) + message(text("mtype", "D")) + message())
        ask(one, "?", True)
        ask(one, "C", True)
        self.assertTrue(hidden.hears(one, "_PM.TEST.X", b"again"))
        hidden.listen("_PM.TEST.>", kind="C")
        one.send("_PM.TEST.X")
        hidden.listen("Y")
        self.assertTrue(hidden.hears(one, "Y"))

    def test_waits_for_no_reader_of_its_log(self):
        port, (reader, writer) = free_port(), os.pipe()
        daemon = self.start(PMD, "-listen", port, stderr=writer)
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        os.close(writer)
        self.assertIn(b"listening on", os.read(reader, 4096))
        daemon.port = port
        good = self.client(daemon, "A")
        for _ in range(60):  # 4800 bytes of lines, more than the pipe holds
            self.refused(daemon)
        self.assertTrue(good.hears(good, "A"))
        os.close(reader)
        self.refused(daemon)
        self.assertTrue(good.hears(good, "A"))

    def test_cuts_off_a_slow_reader_and_informs_the_others(self):
        daemon = self.daemon("--client-backlog", "1")
        witness = self.client(daemon, "_PM.WARN.>", "A")
        slow = self.client(daemon, "A", receive_bytes=8192)
        sender = self.client(daemon)
        began, subject = time.monotonic(), "A"
        while subject == "A" and time.monotonic() - began < 60:
            image = sender.send("A", bytes(100000))
            subject, _ = witness.receive()
            time.sleep(0.005)
        self.assertEqual(subject, "_PM.WARN.SYSTEM.CLIENT.SLOWREADER." + slow.session)
        self.assertGreater(time.monotonic() - began, 0.9)  # not at once
        self.assertIn("(tester): it reads too slowly\n", daemon.log())
        self.assertTrue(slow.is_cut_off())
        self.assertEqual(witness.message(), image)

    def test_gives_ten_seconds_to_start_a_session_and_to_come_back_to_one(self):
        daemon = self.daemon()
        began = time.monotonic()
        silent = [self.client(daemon, start=False) for _ in range(30)]
        silent[0].shake_hands()
        silent[1].exactly(12)
        for byte in struct.pack(">III", 0, 4, 1):
            silent[1].socket.sendall(bytes([byte]))
        self.assertEqual(len(silent[1].exactly(64)), 64)
        witness = self.client(daemon, "_PM.INFO.>", "A")
        prefix = "_PM.INFO.SYSTEM.UNREACHABLE.TRANSPORT."
        back = self.client(daemon)
        back.close()
        back = self.client(daemon, session=back.session)
        leaving, lost = self.client(daemon), self.client(daemon)
        lost.close()
        lost_at = time.monotonic()
        leaving.socket.sendall(HEAD.pack(0, 0))
        self.assertEqual(witness.receive()[0], prefix + leaving.session)
        time.sleep(1)  # the daemon looks for such ends four times in that
        self.assertTrue(witness.hears(witness, "A"))
        self.assertNotIn("in time", daemon.log())

        for client in silent:
            self.assertTrue(client.is_cut_off())
        self.assertGreater(time.monotonic() - began, START_SECONDS - 1)
        late = "it didn't start a session in time"
        wait_until(lambda: daemon.log().count(late) == 30, "a line for each")
        self.assertEqual(witness.receive()[0], prefix + lost.session)
        self.assertGreater(time.monotonic() - lost_at, START_SECONDS - 1)
        self.assertTrue(witness.hears(witness, "A"))
        back.socket.sendall(HEAD.pack(0, 0))
        self.assertEqual(witness.receive()[0], prefix + back.session)

    def test_bounds_what_all_clients_take_together(self):
        daemon = self.daemon("--memory", "48")
        witness = self.client(daemon, "_PM.WARN.>", "A")
        head = HEAD.pack(40 * MEGABYTE, MAGIC)
        largest, other = self.client(daemon), self.client(daemon)
        other.socket.sendall(head + bytes(10 * MEGABYTE))
        with self.assertRaises((ConnectionError, AssertionError)):
            for _ in range(40):
                largest.socket.sendall(head + bytes(MEGABYTE))
                self.assertTrue(daemon.running())
                head = b""
                self.assertNotIn("memory", daemon.log())
        self.assertEqual(witness.receive()[0], "_PM.WARN.SYSTEM.CLIENT.MEMORY." + largest.session)
        self.assertIn("(tester): memory is short, and it takes the most\n", daemon.log())
        self.assertTrue(witness.hears(witness, "A"))
        other.send("A")

    def test_takes_little_before_a_session_starts(self):
        daemon = self.daemon()
        for size, is_taken in ((64 << 10, True), ((64 << 10) + 1, False)):
            client = self.client(daemon, start=False, timeout=1)
            client.shake_hands()
            client.socket.sendall(HEAD.pack(size, MAGIC))
            self.assertEqual(client.is_cut_off(), not is_taken)
        self.assertEqual(daemon.log().count("message with invalid size"), 1)

    def test_keeps_no_more_for_a_slow_reader_than_waits_for_it(self):
        daemon = self.daemon(wrapper=SMALL_QUARANTINE)
        slow = self.client(daemon, "RARE", receive_bytes=8192)
        sender = self.client(daemon)
        count, size = 6000, 3000
        other = data_message("OTHER", bytes(10 * size))
        for _ in range(count):
            sender.socket.sendall(other)
            image = sender.send("RARE", bytes(size))
        sender.settle()
        self.assertLess(self.peak_bytes(daemon), 100 * MEGABYTE)
        for _ in range(count):
            self.assertEqual(slow.message(), image)

    def test_paces_a_sender_that_is_faster_than_its_only_reader(self):
        daemon = self.daemon("--client-backlog", "64", wrapper=SMALL_QUARANTINE)
        reader, sender = self.client(daemon, "A", receive_bytes=65536), self.client(daemon)
        image, count = data_message("A", bytes(100000)), 2500
        with concurrent.futures.ThreadPoolExecutor() as pool:
            sending = pool.submit(lambda: [sender.socket.sendall(image) for _ in range(count)])
            for _ in range(count):
                self.assertEqual(reader.message(), image)
            sending.result()
        self.assertLess(self.peak_bytes(daemon), 100 * MEGABYTE)

    def test_refuses_clients_beyond_the_most(self):
        daemon = self.daemon("--max-clients", "3")
        clients = [self.client(daemon, "A") for _ in range(3)]
        full = descriptors(daemon)
        for _ in range(5):
            with self.assertRaises((Closed, ConnectionError)):
                Client(daemon.port)
        self.assertIn("refused a client of 127.0.0.1: there are 3 already", daemon.log())
        clients[0].close()
        wait_until(lambda: descriptors(daemon) == full - 1, "the end of a client")
        self.client(daemon, "A")

    def test_goes_on_accepting_once_there_are_descriptors_again(self):
        limit = 24
        daemon = self.daemon(wrapper=("prlimit", "--nofile=%d:%d" % (limit, limit)))
        clients = []
        with self.assertRaises(socket.timeout):
            while len(clients) < limit:
                clients.append(self.client(daemon, timeout=1.0))
        wait_until(lambda: "no descriptors are left for more clients: they wait" in daemon.log(), "a word on them")
        clients.pop().close()
        self.client(daemon)

    def test_ends_after_its_last_client(self):
        daemon = self.daemon("-no-permanent")
        clients = [self.client(daemon) for _ in range(3)]
        for client in clients:
            client.close()
        began = time.monotonic()
        self.assertEqual(daemon.status(), 0)
        self.assertGreater(time.monotonic() - began, 0.5)

        # Someone comes back within the second.
        daemon = self.daemon("-no-permanent")
        self.client(daemon).close()
        time.sleep(0.5)
        client = self.client(daemon, start=False)
        time.sleep(1.5)
        client.shake_hands()
        client.start()
        client.listen("A")
        self.assertTrue(client.hears(client, "A"))
        self.assertTrue(daemon.running())

    def test_takes_the_port_over_from_a_stand_in_and_from_nobody_else(self):
        stand_in = self.daemon("-no-permanent")
        where = "127.0.0.1:%d" % stand_in.port
        clients = [self.started(Tool(binary("pelmobus"), self.folder / str(number), "--daemon", where,
                                     "listen", "ALL.>", "--json")) for number in range(3)]
        self.all_get(stand_in, clients, "ALL.0")
        # Neither another stand-in nor another user gets it.
        taken = "pmd: can't listen on %s: Address already in use\n" % where
        self.assertEqual(self.run_pmd("-listen", where, "-no-permanent")[::2], (1, taken))
        if os.geteuid() == 0 and os.access("/usr/bin/setpriv", os.X_OK):
            with tempfile.TemporaryDirectory() as folder:
                os.chmod(folder, 0o755)
                other = ["setpriv", "--reuid=12345", "--clear-groups", shutil.copy(PMD, folder)]
                self.assertEqual(self.run_pmd("-listen", where, program=other)[::2], (1, taken))
                self.assertEqual(self.run_pmd("-listen", where, "--ask-stand-in", program=other)[0], 1)
        self.assertTrue(stand_in.running())

        real = self.daemon(port=stand_in.port)
        self.assertIn("listening on", real.log())
        self.assertEqual(stand_in.status(), 0)
        self.assertIn("handing the port over", stand_in.log())
        self.all_get(real, clients, "ALL.1")
        self.assertEqual(self.run_pmd("-listen", where)[::2], (1, taken))
        self.assertEqual(self.run_pmd("-listen", where, "--ask-stand-in")[0], 0)
        self.assertTrue(real.running())

        # A service manager asks before it starts the daemon.
        stand_in = self.daemon("-no-permanent")
        self.assertEqual(self.run_pmd("-listen", str(stand_in.port), "--ask-stand-in")[0], 0)
        self.assertEqual(stand_in.status(), 0)

    def test_ends_in_order_at_a_signal(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            daemon = self.daemon()
            reader = self.client(daemon, "A", receive_bytes=65536)
            sender = self.client(daemon)
            sent = sender.send("A", bytes(16 * MEGABYTE))  # more than the system holds
            sender.settle()
            daemon.popen.send_signal(number)
            self.assertEqual(reader.message(), sent)
            self.assertTrue(reader.is_cut_off())
            self.assertEqual(daemon.status(), 0)

    def test_gives_memory_back_after_a_burst_of_clients(self):
        daemon = self.daemon(wrapper=SMALL_QUARANTINE)
        clients = [self.client(daemon) for _ in range(400)]
        before = resident_bytes(daemon.popen.pid)
        for client in clients:  # messages that aren't whole
            client.socket.sendall(HEAD.pack(200000, MAGIC) + bytes(90000))
        wait_until(lambda: resident_bytes(daemon.popen.pid) > before + 20 * MEGABYTE, "memory in use")
        for client in clients:
            client.close()
        wait_until(lambda: resident_bytes(daemon.popen.pid) < before + 10 * MEGABYTE, "memory given back")


if __name__ == "__main__":
    main()
