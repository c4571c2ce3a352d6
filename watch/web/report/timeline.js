// The charts over time: they share their pointer and their zoom.

import { isZoomed, makeChart, makeChartGroup, zoomIn, zoomOut } from "../shared/chart.js";
import { setText } from "../shared/dom.js";
import { formatDateTime, formatTime } from "../shared/format.js";

function line(table, key, label, colour) {
    return { table, key, label, colour };
}

const kCharts = [
    { title: "Messages", lines: [line("subjects", "messages", "", "blue")] },
    { title: "Payload", unit: "B", lines: [line("multicast", "payload_bytes", "", "blue")] },
    { title: "Gaps", bars: true, lines: [line("multicast", "missed_packets", "", "amber")] },
    { title: "Repeats", bars: true, lines: [line("multicast", "repeated_packets", "", "violet")] },
    {
        title: "Retransmission requests",
        bars: true,
        lines: [line("retransmission", "requests_sent", "", "amber")],
    },
    {
        title: "Retransmission rejects",
        bars: true,
        lines: [line("retransmission", "rejects_sent", "", "red")],
    },
    { title: "Faults", bars: true, lines: [line("faults", "packets", "", "red")] },
    {
        title: "Point to point packets",
        lines: [
            line("point_to_point", "data_packets_sent", "Data", "blue"),
            line("point_to_point", "loss_reports_sent", "Losses", "amber"),
        ],
    },
];

// Intervals are told by their ends. The begin of the first one goes ahead without values, so that its
// bar has room.
function withBegin({ times, interval_seconds: interval }) {
    return times.length === 0 ? [] : [times[0] - interval, ...times];
}

export function showTimeline({ capture, timeline }) {
    const section = document.getElementById("timeline");
    section.hidden = capture.frames === 0;
    if (section.hidden) return;
    const range = document.getElementById("range");
    const all = document.getElementById("all");
    const group = makeChartGroup("timeline", showRange);

    function showRange(plot) {
        const zoomed = isZoomed(plot);
        const { min, max } = plot.scales.x;
        all.hidden = !zoomed;
        setText(
            range,
            zoomed
                ? `${formatDateTime(min * 1000)} to ${formatTime(max * 1000)}`
                : "Drag over a chart to zoom in.",
        );
    }

    const times = withBegin(timeline);
    for (const options of kCharts) {
        const columns = options.lines.map(
            ({ table, key }) => timeline.series[table]?.[key] ?? timeline.times.map(() => 0),
        );
        const chart = makeChart({ ...options, height: 132, zooms: true, sums: true, group });
        document.getElementById("charts").append(chart.element);
        chart.setData(
            times,
            columns.map((values) => (times.length === 0 ? [] : [null, ...values])),
        );
    }
    document.getElementById("closer").addEventListener("click", () => zoomIn(group));
    all.addEventListener("click", () => zoomOut(group));
}
