"""A whole bus from two capture points.

Two wires, each with a generator and a server. Prometheus scrapes both servers, and what its recording rules add up
must be what the generators sent. Where namespaces aren't permitted it says so and ends with 77.
"""

import json
import pathlib
import socket
import subprocess
import sys
import urllib.parse
import urllib.request

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, binary, main, wait_until  # noqa: E402

from live_run import SKIPPED, open_wire, sent_totals  # noqa: E402
from served import Server  # noqa: E402

TRAFFIC = "--mix --repeats 0 --gaps 0 --restarts 0 --fragments 0 --count 40000 --rate 4000".split()
OPTIONS = (("--seed", "1"), ("--seed", "2", "--hosts", "500", "--ports", "3"))
DATA_HEADER_BYTES = 32
# What the rules add up -> of what the generator reports.
SUMS = {"multicast_data_packets": lambda sent: sent["data"],
        "multicast_payload_bytes": lambda sent: sent["data bytes"] - DATA_HEADER_BYTES * sent["data"],
        "multicast_null_packets": lambda sent: sent["null"], "multicast_messages": lambda sent: sent["messages"],
        "multicast_missed_packets": lambda sent: 0, "retransmission_requests_sent": lambda sent: sent["rreq"],
        "retransmission_rejects_sent": lambda sent: sent["rrej"],
        "point_to_point_data_packets_sent": lambda sent: sent["ptp-data"]}


class Prometheus(ProgramCase):
    def start_prometheus(self, servers):
        with socket.create_server(("127.0.0.1", 0)) as free:
            self.port = free.getsockname()[1]
        config = self.folder / "prometheus.yml"
        config.write_text(json.dumps({
            "global": {"scrape_interval": "1s", "evaluation_interval": "1s"},
            "rule_files": [str(ROOT / "docs/prometheus/pelmo_bus.yml")],
            "scrape_configs": [{"job_name": "pelmo", "static_configs": [
                {"targets": ["127.0.0.1:%d" % server.port for server in servers], "labels": {"bus": "x"}}]}]}))
        self.start("prometheus", "--config.file=%s" % config, "--storage.tsdb.path=%s" % self.folder,
                   "--web.listen-address=127.0.0.1:%d" % self.port, stderr=subprocess.DEVNULL)

    def ask(self, expression):
        """The values of an instant query; none while Prometheus isn't ready."""
        url = "http://127.0.0.1:%d/api/v1/query?%s" % (self.port, urllib.parse.urlencode({"query": expression}))
        try:
            with urllib.request.urlopen(url, timeout=10) as answer:
                return [float(sample["value"][1]) for sample in json.load(answer)["data"]["result"]]
        except OSError:
            return []

    def test_two_capture_points_are_one_bus(self):
        for command in ("link add sender2 type veth peer name listener2", "link set sender2 up", "link set listener2 up"):
            subprocess.run(["ip", *command.split()], check=True)
        servers = [self.started(Server(binary("pelmowatch"), self.folder / wire, "-i", wire, "-u", "1", awaits_end=False))
                   for wire in ("listener", "listener2")]
        self.start_prometheus(servers)
        wait_until(lambda: self.ask("sum(up)") == [2], "both targets", 60)
        generators = [self.start(binary("pelmogen"), "--interface", wire, *TRAFFIC, *options, stdout=subprocess.PIPE)
                      for wire, options in zip(("sender", "sender2"), OPTIONS)]
        sent = [sent_totals(generator.popen.communicate(timeout=120)[0].decode()) for generator in generators]
        expected = {name: sum(map(count, sent)) for name, count in SUMS.items()}
        wait_until(lambda: {name: sum(self.ask("bus:pelmo_%s:sum" % name)) for name in SUMS} == expected,
                   "the sums %s" % expected, 30)
        self.assertTrue(self.ask('bus:pelmo_multicast_data_packets:rate5m{bus="x"} > 0'))


if __name__ == "__main__":
    if open_wire().interface == "lo":
        print("NOT TESTED: no network namespaces here")
        sys.exit(SKIPPED)
    main()
