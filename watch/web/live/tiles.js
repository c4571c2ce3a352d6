// The totals at a glance: a number and the line of its last 15 minutes each. A click opens the
// charts of the table that it comes from.

import { makeSparkline } from "../shared/chart.js";
import { element, setText } from "../shared/dom.js";
import { formatNumber, formatShort } from "../shared/format.js";
import { fillHoles, ratesOf } from "../shared/reduce.js";
import { numbersOf } from "./history.js";

// `alert` is the colour of a value above 0.
const kTiles = [
    { label: "Bus packets", series: "bus_packets", table: null },
    { label: "Messages", series: "subjects.messages", table: "subjects" },
    { label: "Payload", series: "multicast.payload_bytes", unit: "B", table: "multicast" },
    {
        label: "Point to point",
        series: "point_to_point.data_packets_sent",
        table: "point_to_point",
    },
    {
        label: "Repeats",
        series: "multicast.repeated_packets",
        alert: "warning",
        table: "multicast",
    },
    { label: "Gaps", series: "multicast.missed_packets", alert: "warning", table: "multicast" },
    {
        label: "Requests",
        series: "retransmission.requests_sent",
        alert: "warning",
        table: "retransmission",
    },
    {
        label: "Rejects",
        series: "retransmission.rejects_sent",
        alert: "error",
        table: "retransmission",
    },
    { label: "Faults", series: "faults.packets", alert: "error", table: "faults" },
    { label: "Lost here", series: "lost_frames", alert: "error", table: null, liveOnly: true },
];

const kLineColours = { warning: "amber", error: "red" };

// Only a live source says what it lost.
function isLiveSource(snapshot) {
    return snapshot.kernel_dropped_frames !== undefined;
}

// onOpen(table) for those that have one. onPoint(milliseconds or null) reports the time whose values
// the tiles show because the pointer is over it.
export function makeTiles({ onOpen, onPoint }) {
    // What is drawn: the history goes on while the page is paused.
    let times = [];
    let isRate = false;
    let pointed = null;
    const tiles = kTiles.map((tile) => makeTile(tile));
    const list = element(
        "ul",
        { class: "tiles", "aria-label": "Totals" },
        ...tiles.map((tile) => tile.element),
    );

    function makeTile(tile) {
        const value = element("span", { class: "value" }, "–");
        const line = makeSparkline({
            colour: kLineColours[tile.alert] ?? "blue",
            height: 30,
            group: "totals",
            bars: tile.alert !== undefined,
            onHover: showAt,
        });
        const open = () => onOpen(tile.table);
        const inside = [element("span", { class: "label" }, tile.label), value, line.element];
        const box =
            tile.table === null
                ? element("div", { class: "tile" }, ...inside)
                : element("button", { class: "tile", type: "button", click: open }, ...inside);
        return { ...tile, element: element("li", {}, box), box, value, line, values: [], latest: 0 };
    }

    // The pointer over one line shows the values of all at its time. Each line reports it.
    function showAt(index) {
        if (index === pointed) return;
        pointed = index;
        showValues();
    }

    function valueText(number, unit) {
        const text =
            unit || number >= 1e6 ? formatShort(number, unit) : formatNumber(number);
        return isRate ? `${text}/s` : text;
    }

    function showValues() {
        const isPast = pointed !== null && pointed < times.length;
        for (const tile of tiles) {
            const value = isPast ? tile.values[pointed] : tile.latest;
            const isKnown = value !== null && !Number.isNaN(value);
            setText(tile.value, isKnown ? valueText(value, tile.unit) : "–");
            tile.box.className = "tile" + (tile.alert && value > 0 ? ` ${tile.alert}` : "");
        }
        onPoint(isPast ? times[pointed] * 1000 : null);
    }

    return {
        element: list,
        update(history, snapshot, scale, rate) {
            const numbers = numbersOf(snapshot);
            const elapsed = history.elapsed();
            const columns = tiles.map(({ series }) => {
                const values = history.values(series);
                return rate ? ratesOf(values, elapsed) : values;
            });
            const filled = fillHoles(history.times(), elapsed, columns);
            times = filled.times;
            isRate = rate;
            tiles.forEach((tile, i) => {
                tile.values = filled.columns[i];
                tile.latest = (numbers[tile.series] ?? 0) * scale;
                tile.element.hidden = Boolean(tile.liveOnly) && !isLiveSource(snapshot);
                tile.line.setData(times, tile.values);
            });
            showValues();
        },
    };
}
