"""A bus that is recorded, printed, played again and recorded again: nothing differs but the subjects."""

import contextlib
import datetime
import json
import pathlib
import subprocess
import sys
import threading
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ProgramCase, Tool, binary, main, run, wait_until  # noqa: E402
from live_run import added_up, open_wire  # noqa: E402

GROUP, PORT = "239.7.7.8", 7503
PREFIX = "TEST."
NULLS = 2  # the column of the tool's table
# Messages that fit into a packet and others that don't, of several clients at once.
SENDERS = (["--count=100", "--rate=25", "x:f64=0.1", "t=a\nb"], ["--count=40", "--rate=10", "--size=5000"],
           ["--count=12", "--rate=3", "--size=60000", "--reply=ANSWERS.HERE"])


def seconds_of(line):
    return datetime.datetime.fromisoformat(line["time"][:26]).timestamp()


class Replay(ProgramCase):
    @contextlib.contextmanager
    def recording(self, name):
        """A daemon on the wire, and the tool that saves what it puts there."""
        self.capture = self.folder / (name + ".pcap")
        tool = self.started(Tool(binary("pelmoscope"), self.folder / name, "-i", "lo", "-u", "1",
                                 "-w", str(self.capture)))
        tool.wait_for_reports(1)
        daemon = self.daemon("--oska", "%s:%d" % (GROUP, PORT), "--interface", "127.0.0.1")
        yield [binary("pelmobus"), "--daemon", "127.0.0.1:%d" % daemon.port]
        # The daemon is idle, and the tool has seen all that it sent before.
        nulls = "mcast", "%d %s" % (PORT, GROUP), NULLS
        before = added_up(tool.reports()).get(nulls, 0)
        wait_until(lambda: added_up(tool.reports()).get(nulls, 0) > before, "a null packet")
        daemon.popen.terminate()
        self.assertEqual(daemon.status(), 0)
        tool.stop()

    def messages(self):
        """The lines of the capture's messages, but for those that the daemon sent by itself."""
        shown = run(binary("pelmowatch"), "messages", "-r", self.capture, "--subject", PREFIX + ">", "--subject",
                    "PLANT.>")
        self.assertEqual(shown.returncode, 0, shown.stderr)
        return shown.stdout, [json.loads(line) for line in shown.stdout.splitlines()]

    def sleep_through(self, times):
        """The yardstick: how long this machine takes for the same pauses."""
        begin = time.monotonic()
        for at in times:
            time.sleep(max(begin + at - times[0] - time.monotonic(), 0))
        self.yardstick = time.monotonic() - begin

    def test_is_what_was_recorded(self):
        with self.recording("first") as bus:
            senders = [self.start(*bus, "send", "PLANT.%d" % number, "--sequence", *words)
                       for number, words in enumerate(SENDERS)]
            self.assertEqual([sender.status() for sender in senders], [0] * len(SENDERS))
        lines, first = self.messages()
        self.assertEqual(len(first), 152)

        with self.recording("second") as bus:
            pauses = threading.Thread(target=self.sleep_through, args=([seconds_of(line) for line in first],))
            pauses.start()
            replay = subprocess.run([*bus, "send", "--json", "--pace", "--prefix", PREFIX], input=lines, timeout=60,
                                    capture_output=True, check=False)
            pauses.join()
            self.assertEqual((replay.returncode, replay.stderr), (0, b"sent 152\n"))
        _, second = self.messages()

        def said(line, prefix=""):
            return prefix + line["subject"], line.get("reply") and prefix + line["reply"], line["fields"]

        self.assertEqual([said(line) for line in second], [said(line, PREFIX) for line in first])
        took = [seconds_of(lines[-1]) - seconds_of(lines[0]) for lines in (first, second)]
        self.assertGreater(took[1], 0.95 * took[0])
        self.assertLess(took[1], 1.05 * max(took[0], self.yardstick))


if __name__ == "__main__":
    open_wire()
    main()
