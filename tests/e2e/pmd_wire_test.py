"""What the daemon puts on the wire, as the tool sees it."""

import collections
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ProgramCase, Tool, binary, main, run, wait_until  # noqa: E402

from live_run import added_up, open_wire  # noqa: E402

WIRE = None
GROUP, PORT = "239.7.7.7", 7501
DATA, BYTES, NULLS, GAPS, BAD = 0, 1, 2, 5, 6
PAYLOAD_BYTES = 1440
ROUNDS = 50


class PmdWire(ProgramCase):
    def follow(self, interface, address):
        """Sends messages of all sizes and checks that the tool counts each, and no bad packet."""
        tool = self.started(Tool(binary("pelmoscope"), self.folder / interface, "-i", interface, "-u", "1",
                                 "-addrinfo", "-complain"))
        tool.wait_for_reports(1)
        daemon = self.daemon("--oska", "%s:%d" % (GROUP, PORT), "--interface", address)
        sender, listener = self.client(daemon), self.client(daemon, "S.>")
        sent, sent_bytes = collections.Counter(), collections.Counter()
        for size in (1, 300, 700, 1300, 1400, 1441, 5000, 100000) * ROUNDS:
            subject = "S.%d" % (size % 7)
            image = sender.send(subject, bytes(size))
            self.assertEqual(listener.message(), image)
            sent[subject] += 1
            sent_bytes[subject] += len(image)
        sender.send("UNHEARD", b"x")
        sender.send("_INBOX.X.1", b"x")
        key = "%d %s" % (PORT, GROUP)
        wait_until(lambda: added_up(tool.reports()).get(("mcast", key, NULLS)), "a null packet")
        daemon.popen.terminate()
        self.assertEqual(daemon.status(), 0)
        tool.stop()
        rows = collections.Counter(added_up(tool.reports()))
        self.assertEqual((rows["mcast", key, BAD], rows["mcast", key, GAPS]), (0, 0), tool.text("stderr"))
        self.assertNotIn("OSKA", tool.text("stderr"))
        total = sum(sent_bytes.values())
        self.assertTrue(total <= rows["mcast", key, BYTES] < total + 300)
        self.assertGreaterEqual(rows["mcast", key, DATA], total // PAYLOAD_BYTES)
        for subject, count in sent.items():
            found = [rows["subject", "%s %s" % (key, subject), column] for column in (0, 1)]
            self.assertEqual(found, [count, sent_bytes[subject]], subject)

    def test_on_a_wire(self):
        if WIRE.interface == "lo":
            self.skipTest("without a namespace there is only the loopback")
        self.assertEqual(run("ip", "addr", "add", "10.77.0.1/24", "dev", "sender").returncode, 0)
        self.follow("listener", "10.77.0.1")

    def test_on_the_loopback(self):
        self.follow("lo", "127.0.0.1")


if __name__ == "__main__":
    WIRE = open_wire()
    main()
