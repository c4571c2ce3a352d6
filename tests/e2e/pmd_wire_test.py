"""What the daemon puts on the wire, as the tool sees it: pmd_wire_test.py PMD PELMOSCOPE [TEST ...]."""

import pathlib
import sys
import tempfile
import unittest

from bus_client import Client, Daemon
from live_run import Tool, added_up, open_wire, run_quietly, wait_until

PMD, PELMOSCOPE = (pathlib.Path(argument).resolve() for argument in sys.argv[1:3])
WIRE = None
GROUP, PORT = "239.7.7.7", 7501
DATA, BYTES, NULLS, GAPS, BAD = 0, 1, 2, 5, 6
PAYLOAD_BYTES = 1440
ROUNDS = 50


class PmdWire(unittest.TestCase):
    def follow(self, interface, address):
        """Sends messages of all sizes and checks that the tool counts each, and no bad packet."""
        with tempfile.TemporaryDirectory() as scratch:
            tool = Tool(PELMOSCOPE, pathlib.Path(scratch) / "tool", "-i", interface, "-u", "1",
                        "-addrinfo", "-complain")
            self.addCleanup(tool.close)
            tool.wait_for_reports(1)
            daemon = Daemon(PMD, "--oska", "%s:%d" % (GROUP, PORT), "--interface", address)
            self.addCleanup(daemon.close)
            sender, listener = Client(daemon.port), Client(daemon.port)
            self.addCleanup(sender.close)
            self.addCleanup(listener.close)
            listener.listen("S.>")
            sent = {}
            for i in range(ROUNDS):
                for size in (1, 300, 700, 1300, 1400, 1441, 5000, 100000):
                    subject = "S.%d" % (size % 7)
                    image = sender.send(subject, bytes(size))
                    self.assertEqual(listener.message(), image)
                    count, total = sent.get(subject, (0, 0))
                    sent[subject] = count + 1, total + len(image)
            sender.send("UNHEARD", b"x")
            sender.send("_INBOX.X.1", b"x")
            key = "%d %s" % (PORT, GROUP)
            wait_until(lambda: added_up(tool.reports()).get(("mcast", key, NULLS)), "a null packet")
            daemon.popen.terminate()
            self.assertEqual(daemon.status(), 0)
            tool.stop()
            rows = added_up(tool.reports())

            def row(key, column, table="mcast"):
                return rows.get((table, key, column), 0)
            self.assertEqual((row(key, BAD), row(key, GAPS)), (0, 0), tool.text("stderr"))
            self.assertNotIn("OSKA", tool.text("stderr"))
            total = sum(size for _, size in sent.values())
            self.assertGreaterEqual(row(key, BYTES), total)
            self.assertLess(row(key, BYTES), total + 300)
            self.assertGreaterEqual(row(key, DATA), total // PAYLOAD_BYTES)
            for subject, (count, size) in sent.items():
                found = [row("%s %s" % (key, subject), column, "subject") for column in (0, 1)]
                self.assertEqual(found, [count, size], subject)

    def test_on_a_wire(self):
        if WIRE.interface == "lo":
            print("no namespace: only the loopback is tested")
            return
        run = run_quietly("ip", "addr", "add", "10.77.0.1/24", "dev", "sender")
        self.assertEqual(run.returncode, 0, run.stderr)
        self.follow("listener", "10.77.0.1")

    def test_on_the_loopback(self):
        self.follow("lo", "127.0.0.1")


if __name__ == "__main__":
    WIRE = open_wire()
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
