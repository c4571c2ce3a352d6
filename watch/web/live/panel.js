// The details of one row, beside the tables: its history as charts, and its hosts. A host that is
// opened shows its own history.

import { makeChart, makeChartGroup } from "../shared/chart.js";
import { element, setText } from "../shared/dom.js";
import { formatKey } from "../shared/format.js";
import { isSameRow, makeTable, sumRows } from "../shared/table.js";
import { tables } from "../shared/tables.js";
import { fetchHistory } from "./feed.js";

function rowTitle(row) {
    if (row.subject !== undefined) return row.subject;
    return row.group === undefined ? `Port ${row.port}` : row.group;
}

function rowPlace(row) {
    if (row.subject !== undefined) return `${row.group} port ${row.port}`;
    return row.group === undefined ? "" : `port ${row.port}`;
}

function hostTitle(host) {
    return host.scid === null || host.scid === undefined
        ? host.address
        : `${host.address} SCid ${host.scid}`;
}

function historyQuery(table, row, host) {
    const { port, group, subject } = row;
    return { table, port, group, subject, host: host?.address, scid: host?.scid };
}

// Where the details lie over everything (page.css), nothing beneath them is reached by the keyboard.
const liesOver = matchMedia("(max-width: 900px)");

function setCovered(covered) {
    for (const part of document.querySelectorAll(".top, #tiles, .tables-side"))
        part.inert = covered;
}

// onClose() behind a close by the reader. context() is {model, history, scale}; the model may be
// null.
export function makePanel({ context, onClose }) {
    const title = element("h2", { id: "panel-title", tabindex: "-1" });
    const place = element("p", { class: "place" });
    const close = element(
        "button",
        {
            type: "button",
            class: "plain close",
            "aria-label": "Close details",
            title: "Close (Escape)",
            click: closeByReader,
        },
        "×",
    );
    const all = element(
        "button",
        { type: "button", class: "plain all", click: () => chooseHost(null) },
        "All hosts",
    );
    const charts = element("div", { class: "charts" });
    const hosts = element("div", { class: "hosts" });
    const panel = element(
        "section",
        { class: "panel", "aria-labelledby": "panel-title", hidden: true, keydown: onKey },
        element("header", {}, element("div", {}, title, place), all, close),
        charts,
        hosts,
    );

    // What is shown: {table, row, host} of a row, {table} of a table's totals, {fault} of a fault.
    let shown = null;
    let drawn = [];
    let hostTable = null;
    // A history that comes late, behind that of a later question, is dropped.
    let question = 0;

    function onKey(event) {
        if (event.key !== "Escape") return;
        event.stopPropagation();
        if (shown?.host) {
            chooseHost(null);
        } else {
            closeByReader();
        }
    }

    function closeByReader() {
        hide();
        onClose();
    }

    function hide() {
        shown = null;
        ++question;
        panel.hidden = true;
        setCovered(false);
    }

    function show(what) {
        shown = what;
        for (const { chart } of drawn) chart.destroy();
        const group = makeChartGroup("details");
        drawn = chartsOf(what).map((options) => ({
            options,
            chart: makeChart({ ...options, height: 112, group }),
        }));
        charts.replaceChildren(...drawn.map(({ chart }) => chart.element));
        makeHosts();
        panel.hidden = false;
        setCovered(liesOver.matches);
        update();
    }

    function chartsOf({ table, fault }) {
        if (fault === undefined) return tables[table].charts;
        return [
            {
                title: "Packets",
                lines: [{ key: `faults.${fault}`, label: formatKey(fault), colour: "red" }],
            },
        ];
    }

    function makeHosts() {
        hostTable = null;
        hosts.replaceChildren();
        if (shown.row === undefined) return;
        const { hostColumns, sortBy } = tables[shown.table];
        hostTable = makeTable({
            label: `Hosts of ${rowTitle(shown.row)}`,
            columns: hostColumns,
            sortBy,
            onOpen: chooseHost,
        });
        hostTable.setEmptyText(
            shown.table === "subjects" && shown.row.hosts === null
                ? "The senders of subjects aren't counted: start with --senders."
                : "Nothing in this interval.",
        );
        hosts.append(hostTable.element);
    }

    function chooseHost(host) {
        shown.host = isSameRow(host, shown.host ?? null) ? null : host;
        hostTable.setOpenRow(shown.host);
        update();
        if (shown.host === null) hostTable.focus();
    }

    function update() {
        if (shown === null) return;
        const { row, host, table, fault } = shown;
        all.hidden = !host;
        if (row === undefined) {
            setText(title, fault === undefined ? tables[table].title : formatKey(fault));
            setText(place, "all of the bus");
            drawTotals();
            return;
        }
        setText(title, rowTitle(row));
        setText(
            place,
            [rowPlace(row), host ? hostTitle(host) : ""].filter((text) => text !== "").join(" · "),
        );
        updateHosts();
        askHistory();
    }

    function updateHosts() {
        const { model, scale } = context();
        const row = model?.rows[shown.table].find((candidate) => isSameRow(candidate, shown.row));
        const list = row?.hosts ?? [];
        const sums =
            list.length === 0
                ? []
                : [{ title: "Totals", ...sumRows(list, tables[shown.table].hostColumns) }];
        hostTable.setRows(list, sums, scale);
    }

    async function askHistory() {
        const mine = ++question;
        const kept = await fetchHistory(historyQuery(shown.table, shown.row, shown.host));
        if (mine !== question || kept === null) return;
        const { rate } = context();
        drawSeries(
            kept.times.map(Number),
            (key) => kept.series[key] ?? kept.times.map(() => 0),
            rate ? 1 / kept.interval_seconds : 1,
        );
    }

    function drawTotals() {
        const { history, scale } = context();
        const prefix = shown.fault === undefined ? `${shown.table}.` : "";
        drawSeries(history.times(), (key) => history.values(prefix + key), scale);
    }

    function drawSeries(times, valuesOf, scale) {
        for (const { options, chart } of drawn) {
            chart.setData(
                times,
                options.lines.map((line) => valuesOf(line.key).map((value) => value * scale)),
            );
        }
    }

    return {
        element: panel,
        openRow: (table, row) => {
            show({ table, row, host: null });
            hostTable.focus();
        },
        openTotals: (table) => {
            show({ table });
            title.focus();
        },
        openFault: (fault) => {
            show({ fault });
            title.focus();
        },
        isOpen: () => shown !== null,
        close: closeByReader,
        hide,
        update,
    };
}
