// Charts over time, by uPlot, whose lines and bars are drawn here: where several points fall on a pixel
// a line shows their mean within the band from their least to their largest, and a bar their mean
// within a fainter one of the largest. Colours are variables of the style sheet, so that a chart follows the
// reader's light or dark preference; values under the pointer stand in the caption.

import uPlot from "uplot";
import { element, setText } from "./dom.js";
import { chartDate, formatDateTime, formatNumber, formatShort, formatTime } from "./format.js";
import { joinPoints } from "./reduce.js";

// All charts of the page and their places, to be drawn again when colours change.
const charts = new Map();

export function redrawCharts() {
    for (const plot of charts.keys()) plot.redraw(false);
}

// Gives all charts that width, or, without one, that of their places.
export function resizeCharts(width) {
    for (const [plot, place] of charts) {
        if (width !== null || place.clientWidth > 0)
            plot.setSize({ width: width ?? place.clientWidth, height: plot.height });
    }
}

matchMedia("(prefers-color-scheme: dark)").addEventListener("change", redrawCharts);

function colour(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();
}

// Counts have whole ticks; only rates below 1 need finer ones.
const wholeSteps = Array.from({ length: 16 }, (_, i) => [1, 2, 5].map((n) => n * 10 ** i)).flat();
const fineSteps = Array.from({ length: 6 }, (_, i) =>
    [1, 2, 5].map((n) => n * 10 ** (i - 6)),
).flat();

function tickLabel(seconds, step) {
    const time = formatTime(seconds * 1000);
    if (step < 1) return `${time}.${String(Math.round((seconds % 1) * 1000)).padStart(3, "0")}`;
    if (step < 60) return time;
    if (step >= 86400 || time === "00:00:00") return formatDateTime(seconds * 1000).slice(5, 10);
    return time.slice(0, 5);
}

function axes(unit) {
    const common = {
        stroke: () => colour("muted"),
        font: `11px ${getComputedStyle(document.body).fontFamily}`,
        ticks: { show: false },
    };
    const grid = { stroke: () => colour("line"), width: 1 };
    return [
        {
            ...common,
            grid: { show: false },
            size: 22,
            gap: 4,
            space: 70,
            values: (plot, splits, axis, space, step) =>
                splits.map((split) => tickLabel(split, step)),
        },
        {
            ...common,
            grid,
            size: 58,
            gap: 6,
            space: 22,
            incrs: (plot, axis, min, max) => (max - min < 1 ? fineSteps : wholeSteps),
            values: (plot, splits) => splits.map((split) => formatShort(split, unit)),
        },
    ];
}

function fromZero(plot, min, max) {
    return [0, max > 0 ? max * 1.08 : 1];
}

function makeSeries({ label, colour: name }) {
    return { label, stroke: () => colour(name), paths: () => null, points: { show: false } };
}

// Device pixels that one drawn point takes at least, and a bar at most.
const kLineSlot = 1.5;
const kBarSlot = 3;
const kBarMost = 24;

// Trouble is coloured where there is some: what rests at zero is a line of the grid.
const kTroubleColours = ["amber", "red", "violet"];

function positionsOf(plot) {
    return plot.data[0].map((time) => plot.valToPos(time, "x", true));
}

function drawLine(plot, name, positions, values, isFilled) {
    const { ctx } = plot;
    const y = (value) => plot.valToPos(value, "y", true);
    const x = ({ from, to }) => (positions[from] + positions[to]) / 2;
    const points = joinPoints(positions, values, kLineSlot * devicePixelRatio);
    if (points.length === 0) return;
    const isJoined = points.some(({ from, to }) => from < to);
    const restsAtZero = kTroubleColours.includes(name);
    if (isJoined || isFilled) {
        ctx.beginPath();
        points.forEach((point) => ctx.lineTo(x(point), y(point.max)));
        points.toReversed().forEach((point) => ctx.lineTo(x(point), y(isJoined ? point.min : 0)));
        ctx.fillStyle = colour(isJoined ? `${name}-band` : `${name}-fill`);
        ctx.fill();
    }
    ctx.lineWidth = 1.5 * devicePixelRatio;
    ctx.lineJoin = "round";
    for (const isZero of restsAtZero ? [true, false] : [false]) {
        ctx.beginPath();
        points.forEach((point, i) => {
            const before = points[i - 1] ?? point;
            if (restsAtZero && (point.mean === 0 && before.mean === 0) !== isZero) return;
            ctx.moveTo(x(before), y(before.mean));
            ctx.lineTo(x(point), y(point.mean));
        });
        ctx.strokeStyle = colour(isZero ? "strong-line" : name);
        ctx.stroke();
    }
    if (values.length < 3) for (const point of points) drawDot(ctx, name, x(point), y(point.mean));
}

function drawDot(ctx, name, x, y) {
    ctx.beginPath();
    ctx.arc(x, y, 2.5 * devicePixelRatio, 0, 2 * Math.PI);
    ctx.fillStyle = colour(name);
    ctx.fill();
}

// A bar covers the time from the point before to its own. `place` of `count` bars that share that time.
function drawBars(plot, name, positions, values, place, count) {
    const { ctx } = plot;
    const zero = plot.valToPos(0, "y", true);
    const fill = (x, width, value, style) => {
        const y = plot.valToPos(value, "y", true);
        ctx.fillStyle = colour(style);
        ctx.fillRect(x, Math.min(y, zero - devicePixelRatio), width, Math.max(zero - y, devicePixelRatio));
    };
    ctx.fillStyle = colour("strong-line");
    ctx.fillRect(positions[0] ?? 0, zero - devicePixelRatio, (positions.at(-1) ?? 0) - (positions[0] ?? 0), devicePixelRatio);
    for (const { from, to, mean, max } of joinPoints(positions, values, kBarSlot * devicePixelRatio)) {
        if (max === 0) continue;
        const room = positions[to] - (positions[Math.max(from - 1, 0)] ?? positions[to]);
        const whole = Math.min(Math.max(room * 0.8, devicePixelRatio), kBarMost * devicePixelRatio);
        const width = Math.max(whole / count, devicePixelRatio);
        const x = positions[to] - whole + place * width;
        if (max > mean) fill(x, width, max, `${name}-band`);
        if (mean > 0) fill(x, width, mean, name);
    }
}

// A hook of uPlot's, which draws each line of `lines` in its turn.
function painter(lines, bars) {
    return (plot, index) => {
        const { ctx, bbox } = plot;
        const positions = positionsOf(plot);
        const { colour: name } = lines[index - 1];
        const values = plot.data[index];
        ctx.save();
        ctx.beginPath();
        ctx.rect(bbox.left, bbox.top, bbox.width, bbox.height);
        ctx.clip();
        if (bars) drawBars(plot, name, positions, values, index - 1, lines.length);
        else drawLine(plot, name, positions, values, lines.length === 1);
        ctx.restore();
    };
}

function keepSize(plot, place, height) {
    new ResizeObserver(() => {
        const width = place.clientWidth;
        if (width > 0 && width !== plot.width) plot.setSize({ width, height });
    }).observe(place);
}

// A small line without axes. onHover(index or null) tells what the pointer is over, on any of the
// lines with the same `group`.
export function makeSparkline({ colour: name, height, group, bars = false, onHover }) {
    const lines = [{ label: "", colour: name }];
    const place = element("span", { class: "spark", "aria-hidden": "true" });
    const plot = new uPlot(
        {
            width: 100,
            height,
            padding: [3, 0, 1, 0],
            axes: [{ show: false }, { show: false }],
            legend: { show: false },
            scales: { y: { range: fromZero } },
            cursor: {
                y: false,
                drag: { x: false, y: false },
                points: { size: 5 },
                sync: { key: group, scales: ["x", null] },
            },
            series: [{}, ...lines.map(makeSeries)],
            hooks: {
                setCursor: [(at) => onHover(at.cursor.idx ?? null)],
                drawSeries: [painter(lines, bars)],
            },
        },
        [[], []],
        place,
    );
    charts.set(plot, place);
    keepSize(plot, place, height);
    return { element: place, setData: (times, values) => plot.setData([times, values]) };
}

// The values of one time, or the sums of all that the chart shows.
function valueAt(plot, index) {
    return plot.data.slice(1).map((values) => values[index]);
}

function sumsInSight(plot) {
    const { min, max } = plot.scales.x;
    const times = plot.data[0];
    return plot.data
        .slice(1)
        .map((values) =>
            values.reduce(
                (sum, value, i) => sum + (times[i] >= min && times[i] <= max ? (value ?? 0) : 0),
                0,
            ),
        );
}

// A chart with axes and a caption: title, lines ({key, label, colour}), unit, height, bars. While the
// pointer is elsewhere the caption has the last values or, where `sums`, the sums of what is in sight.
// `group` joins charts of the same times: they share the pointer and, where `zooms`, the zoom.
export function makeChart({
    title,
    lines,
    unit = "",
    height = 120,
    bars = false,
    zooms = false,
    sums = false,
    group,
}) {
    const values = lines.map(() => element("span", { class: "value" }));
    const keys = lines.map((line, i) =>
        element(
            "span",
            { class: `key ${line.colour}` },
            element("i", { "aria-hidden": "true" }),
            line.label === "" ? "" : `${line.label} `,
            values[i],
        ),
    );
    const when = element("span", { class: "when" });
    const caption = element("figcaption", {}, element("strong", {}, title), ...keys, when);
    const place = element("div", {
        class: "plot",
        tabindex: "0",
        role: "group",
        keydown: onKey,
        focus: onFocus,
        blur: onBlur,
        "aria-label":
            `${title} over time. Left and right read values` +
            (zooms ? ", plus and minus zoom, 0 shows all." : "."),
    });
    const plot = new uPlot(
        {
            width: 300,
            height,
            padding: [6, 6, 0, 0],
            axes: axes(unit),
            legend: { show: false },
            tzDate: chartDate,
            scales: { y: { range: fromZero } },
            cursor: {
                y: false,
                drag: { x: zooms, y: false, dist: 4 },
                points: { size: 6 },
                sync: { key: group.key, scales: ["x", null] },
            },
            series: [{}, ...lines.map(makeSeries)],
            hooks: {
                setCursor: [showValues],
                setData: [showValues],
                setScale: [onScale],
                drawSeries: [painter(lines, bars)],
            },
        },
        [[], ...lines.map(() => [])],
        place,
    );
    charts.set(plot, place);
    group.plots.push(plot);
    keepSize(plot, place, height);

    function showValues(at) {
        const times = at.data[0];
        const index = at.cursor.idx ?? null;
        const shown =
            index !== null
                ? valueAt(at, index)
                : sums
                  ? sumsInSight(at)
                  : valueAt(at, times.length - 1);
        setText(
            when,
            index !== null
                ? formatDateTime(times[index] * 1000)
                : !sums
                  ? ""
                  : isZoomed(at)
                    ? "in sight"
                    : "in all",
        );
        when.classList.toggle("pointed", index !== null);
        values.forEach((value, i) =>
            setText(
                value,
                times.length === 0 ? "–" : formatNumber(shown[i]) + (unit && ` ${unit}`),
            ),
        );
    }

    function onScale(at, scale) {
        if (scale !== "x") return;
        showValues(at);
        group.onScale?.(at);
    }

    function pointAt(index) {
        const times = plot.data[0];
        const at = Math.min(Math.max(index, 0), times.length - 1);
        if (at >= 0) moveCursors({ left: plot.valToPos(times[at], "x"), top: 10 });
    }

    // The pointer's moves reach the charts of the group by uPlot, those of keys don't.
    function moveCursors(position) {
        for (const each of group.plots) each.setCursor(position);
    }

    function onFocus() {
        // Read aloud while the reader moves through it, and not with each interval.
        caption.setAttribute("aria-live", "polite");
        if (place.matches(":focus-visible") && plot.cursor.idx == null)
            pointAt(plot.data[0].length - 1);
    }

    function onBlur() {
        caption.setAttribute("aria-live", "off");
        moveCursors({ left: -10, top: -10 });
    }

    function onKey(event) {
        const steps = {
            ArrowLeft: -1,
            ArrowRight: 1,
            PageUp: -10,
            PageDown: 10,
            Home: -Infinity,
            End: Infinity,
        };
        if (event.altKey || event.ctrlKey || event.metaKey) return;
        if (event.key in steps) {
            pointAt((plot.cursor.idx ?? plot.data[0].length - 1) + steps[event.key]);
        } else if (zooms && (event.key === "+" || event.key === "-")) {
            zoomBy(group, plot, event.key === "+" ? 0.5 : 2);
        } else if (zooms && event.key === "0") {
            zoomOut(group);
        } else {
            return;
        }
        event.preventDefault();
    }

    return {
        element: element("figure", { class: "chart" }, caption, place),
        setData: (times, columns) => plot.setData([times, ...columns]),
        destroy: () => {
            charts.delete(plot);
            group.plots.splice(group.plots.indexOf(plot), 1);
            plot.destroy();
        },
    };
}

// Charts of the same times. onScale(plot) is told of each change of what they show.
export function makeChartGroup(key, onScale = null) {
    return { key, plots: [], onScale };
}

function setRange(group, min, max) {
    for (const plot of group.plots) plot.setScale("x", { min, max });
}

function zoomBy(group, plot, factor) {
    const times = plot.data[0];
    const { min, max } = plot.scales.x;
    const middle = plot.cursor.idx == null ? (min + max) / 2 : times[plot.cursor.idx];
    const half = ((max - min) * factor) / 2;
    setRange(group, Math.max(times[0], middle - half), Math.min(times.at(-1), middle + half));
}

export function zoomIn(group) {
    zoomBy(group, group.plots[0], 0.5);
}

export function zoomOut(group) {
    const times = group.plots[0].data[0];
    setRange(group, times[0], times.at(-1));
}

export function isZoomed(plot) {
    const times = plot.data[0];
    return times.length > 0 && (plot.scales.x.min > times[0] || plot.scales.x.max < times.at(-1));
}
