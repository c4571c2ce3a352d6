"""The rules and the dashboard of docs/prometheus, by promtool."""

import json
import pathlib
import re
import shutil
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))

from program_case import ROOT, ProgramCase, binary, main, run  # noqa: E402

from served import Server  # noqa: E402

RULES = ROOT / "docs/prometheus"
STEADY, GROWS, STALLS = "0+0x60", "0+600x60", "0+600x20 12000+0x40"
POINT = 'instance="a",job="pelmo",bus="x"'
GROUP = POINT + ',port="7500",group="239.1.1.1"'
HOST = GROUP + ',host="10.0.0.1",scid="7001"'
PORT = POINT + ',port="7500"'
# A bus on which all is well: series -> its values of each minute.
SOUND = {"%s{%s}" % (name, labels): values for labels, values, names in (
    (POINT, "1+0x60", "up pelmo_watch_capturing"),
    (POINT, GROWS, "pelmo_frames_total pelmo_packets_total pelmo_bus_packets_total"),
    (POINT, STEADY, "pelmo_kernel_dropped_frames_total pelmo_interface_dropped_frames_total "
                    "pelmo_watch_interval_lag_seconds pelmo_watch_left_out_series"),
    (POINT, "10+0x60", "pelmo_watch_interval_seconds"), (POINT, "0+60x60", "pelmo_watch_snapshot_timestamp_seconds"),
    (POINT, "50000000+0x60", "process_resident_memory_bytes"),
    (POINT + ',kind="type_invalid"', STEADY, "pelmo_fault_packets_total"),
    (POINT + ',kind="udp_checksum_missing"', STEADY, "pelmo_fault_packets_total"),
    (POINT + ',reason="ipv6"', GROWS, "pelmo_not_read_frames_total"),
    (GROUP, GROWS, "pelmo_multicast_data_packets_total pelmo_multicast_null_packets_total"),
    (GROUP, STEADY, "pelmo_multicast_missed_packets_total pelmo_multicast_repeated_packets_total"),
    (HOST, STEADY, "pelmo_multicast_host_data_packets_total"), (HOST, GROWS, "pelmo_multicast_host_null_packets_total"),
    (PORT, GROWS, "pelmo_point_to_point_data_packets_sent_total pelmo_point_to_point_acknowledgements_sent_total "
                  "pelmo_point_to_point_acknowledgement_requests_sent_total"),
    (PORT, STEADY, "pelmo_retransmission_requests_sent_total pelmo_retransmission_requested_packets_sent_total "
                   "pelmo_retransmission_rejects_sent_total pelmo_point_to_point_loss_reports_sent_total"),
) for name in names.split()}
# What goes wrong -> the alerts that fire. A part of its name that no other has names a series.
CASES = [
    ({}, []),
    ({"rejects": "0+0x30 0+1x30"}, ["PelmoDataLostForGood"]),
    ({"requested_packets": "0+60x60", "retransmission_requests_sent": "0+1x60"}, ["PelmoReceiversLosePackets"]),
    ({"missed": "0+60x60"}, ["PelmoPacketsMissed", "PelmoPacketsMissedHereOnly"]),
    ({"missed": "0+60x60", "retransmission_requests_sent": "0+1x60"}, ["PelmoPacketsMissed"]),
    ({"repeated": "0+60x60"}, ["PelmoPacketsTwice"]),
    ({"repeated": "0+60x60", "retransmission_requests_sent": "0+1x60"}, []),
    ({"type_invalid": "0+2x60"}, ["PelmoFaults"]),
    ({"checksum": "0+60x60"}, ["PelmoChecksums"]),
    ({"multicast_data": STALLS, "multicast_null": STALLS}, ["PelmoGroupSilent"]),
    ({"host_null": STALLS}, ["PelmoSenderSilent"]),
    ({"acknowledgements_sent": STEADY}, ["PelmoPointToPointUnanswered"]),
    ({"loss_reports": "0+60x60"}, ["PelmoPointToPointLoss"]),
    ({"up{": "0+0x60"}, ["PelmoWatchDown"]),
    ({"kernel": "0+0x40 0+1x20"}, ["PelmoWatchTooSlow"]),
    ({"interface_dropped": "0+0x40 0+1x20"}, ["PelmoWatchInterfaceDrops"]),
    ({"bus_packets": STALLS}, ["PelmoWatchBlind"]),
    ({"bus_packets": STALLS, "not_read": STALLS}, []),
    ({"pelmo_frames": STALLS}, ["PelmoWatchSeesNothing"]),
    ({"capturing": "1+0x20 0+0x39"}, ["PelmoWatchCaptureFailed"]),
    ({"lag": "6+0x60"}, ["PelmoWatchLate"]),
    ({"timestamp": "0+60x20 1200+0x40"}, ["PelmoWatchStalled"]),
    ({"resident": "1600000000+0x60"}, ["PelmoWatchMemory"]),
    ({"left_out": "1+0x60"}, ["PelmoWatchSeriesLeftOut"]),
]
NAME = re.compile(r"\b(?:pelmo|process)_[a-z_]+")


def promtool(*arguments):
    done = run("promtool", *arguments, text=True)
    return "" if done.returncode == 0 else done.stdout + done.stderr


def changed(changes):
    series = dict(SOUND)
    for part, values in changes.items():
        names = [name for name in series if part in name]
        if len(names) != 1:
            raise AssertionError("%s: %s" % (part, names))
        series[names[0]] = values
    return [{"series": name, "values": values} for name, values in series.items()]


def dashboard_expressions():
    """Of panels and variables, with the dashboard's variables replaced by what they may stand for."""
    board = json.loads((RULES / "pelmo_dashboard.json").read_text())
    found = [target["expr"] for panel in board["panels"] for target in panel.get("targets", ())]
    found += [re.fullmatch(r"label_values\((.*), \w+\)", variable["query"]["query"])[1]
              for variable in board["templating"]["list"] if variable["type"] == "query"]
    return [expression.replace("$__rate_interval", "5m").replace("$", "") for expression in found]


class Rules(ProgramCase):
    def written(self, name, content):
        path = self.folder / name
        path.write_text(json.dumps(content))  # JSON is YAML
        return path

    def test_rules_are_sound(self):
        self.assertEqual(promtool("check", "rules", RULES / "pelmo_bus.yml", RULES / "pelmo_alerts.yml"), "")
        self.assertEqual(promtool("check", "config", "--syntax-only", RULES / "prometheus.yml"), "")
        rules = [{"record": "a%d" % number, "expr": expression} for number, expression in enumerate(dashboard_expressions())]
        self.assertGreater(len(rules), 10)
        path = self.written("dashboard.yml", {"groups": [{"name": "a", "rules": rules}]})
        self.assertEqual(promtool("check", "rules", path), "")

    def test_each_alert_fires_and_no_other_does(self):
        tests = [{"interval": "1m", "input_series": changed(changes), "promql_expr_test": [{
            "expr": 'count by (alertname) (ALERTS{alertstate="firing"})', "eval_time": "45m",
            "exp_samples": [{"labels": '{alertname="%s"}' % alert, "value": 1} for alert in alerts]}]}
                 for changes, alerts in CASES]
        path = self.written("alerts.yml", {"rule_files": [str(RULES / "pelmo_alerts.yml")],
                                           "evaluation_interval": "1m", "tests": tests})
        self.assertEqual(promtool("test", "rules", path), "")
        known = set(re.findall(r"alert: (\w+)", (RULES / "pelmo_alerts.yml").read_text()))
        self.assertEqual(known, {alert for _, alerts in CASES for alert in alerts})

    def test_a_bus_is_the_sum_of_its_points(self):
        series = [{"series": 'pelmo_multicast_data_packets_total{bus="%s",instance="%d",port="1",group="%d"}' % (bus, i, i % 2),
                   "values": "0+%dx20" % (60 * 10 ** i)} for bus in "xy" for i in range(3)]
        expected = {"bus:pelmo_multicast_data_packets:sum": [('bus="x"', 133200), ('bus="y"', 133200)],
                    "bus:pelmo_multicast_data_packets:rate5m": [('bus="x"', 111), ('bus="y"', 111)],
                    'bus_port_group:pelmo_multicast_data_packets:rate5m{bus="x"}': [
                        ('bus="x",group="0",port="1"', 101), ('bus="x",group="1",port="1"', 10)]}
        tests = [{"interval": "1m", "input_series": series, "promql_expr_test": [
            {"expr": expr, "eval_time": "20m",
             "exp_samples": [{"labels": "%s{%s}" % (expr.partition("{")[0], labels), "value": value}
                             for labels, value in samples]} for expr, samples in expected.items()]}]
        path = self.written("bus.yml", {"rule_files": [str(RULES / "pelmo_bus.yml")], "evaluation_interval": "1m",
                                        "tests": tests})
        self.assertEqual(promtool("test", "rules", path), "")

    def test_all_metrics_that_are_used_are_served(self):
        server = self.started(Server(binary("pelmowatch"), self.folder, "-r", ROOT / "samples/bus.pcap", "--hosts",
                                     "--subjects", ">"))
        served = set(server.metrics())
        text = "\n".join([*dashboard_expressions(), *((RULES / name).read_text() for name in ("pelmo_bus.yml", "pelmo_alerts.yml"))])
        used = {name for name in NAME.findall(re.sub(r"(?m)^ *#.*|name: .*|record: .*|\w+:pelmo_\S*", "", text))}
        self.assertEqual(used - served, set())
        self.assertGreater(len(used), 25)


if __name__ == "__main__":
    if shutil.which("promtool") is None:
        print("no promtool: apt-get install prometheus, or scripts/setup.sh --all")
        sys.exit(77)
    main()
