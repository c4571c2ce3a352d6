// The tables of the report. A table may hold the largest rows only; the sums are those of all.

import { element, setText } from "../shared/dom.js";
import { comparisonData, comparisonTable, fillComparisonBars, makeComparisonBars } from "./comparison.js";
import { readFilter } from "../shared/filter.js";
import { formatCount, formatDateTime, formatTime } from "../shared/format.js";
import { sortedIndices } from "../shared/sort.js";
import { applyChoices, makeColumnMenu, makeCopyMenu } from "../shared/menus.js";
import { makeTable, sumRows } from "../shared/table.js";
import { hostLines, tables } from "../shared/tables.js";
import { makeTabs } from "../shared/tabs.js";
import { preparePrint } from "./print.js";

const [subjectColumn, portColumn, groupColumn, ...subjectNumbers] = tables.subjects.columns;
const [senderColumn, scidColumn, ...multicastNumbers] = tables.multicast.hostColumns.filter(
    (column) => !column.isState,
);
const [, , hostCountColumn] = tables.multicast.columns;
const servicePortColumn = tables.retransmission.columns[1];
const dropped = (column, drop) => ({ ...column, drop });
const messageNumbers = [
    dropped(subjectNumbers[0], 10),
    { ...subjectNumbers[1], label: "Message bytes", heading: "Msg bytes", drop: 11 },
];

const kTables = {
    comparison: comparisonTable, // of a report that compares two captures
    subjects: {
        title: "Subjects",
        sortBy: "message_bytes",
        columns: [subjectColumn, portColumn, groupColumn, ...subjectNumbers],
    },
    senders: {
        title: "Senders",
        sortBy: "payload_bytes",
        columns: [senderColumn, scidColumn, ...messageNumbers, ...multicastNumbers],
    },
    // Only of a report that was asked for them: each row of the two tables above leads to its own.
    subject_senders: {
        title: "Senders of subjects",
        sortBy: "message_bytes",
        columns: [subjectColumn, senderColumn, scidColumn, dropped(portColumn, 10), groupColumn, ...subjectNumbers],
    },
    groups: {
        title: "Groups",
        sortBy: "payload_bytes",
        columns: [
            portColumn,
            dropped(groupColumn, undefined),
            { ...hostCountColumn, label: "Senders" },
            ...messageNumbers,
            ...multicastNumbers,
        ],
    },
    retransmission: {
        title: "Retransmission",
        sortBy: "requests",
        columns: [
            tables.retransmission.hostColumns[0],
            scidColumn,
            dropped(portColumn, 10),
            servicePortColumn,
            ...tables.retransmission.hostColumns.slice(2),
        ],
    },
    point_to_point: {
        title: "Point to point",
        sortBy: "payload_bytes",
        columns: [
            tables.point_to_point.hostColumns[0],
            scidColumn,
            dropped(portColumn, 10),
            ...tables.point_to_point.hostColumns.slice(2),
        ],
    },
};

// As the filter and the columns call it.
function normalRow(row) {
    const address = row.sender ?? row.host;
    return {
        ...row,
        address,
        servicePort: row.service_port,
        hostCount: row.senders,
        hosts: address === undefined ? null : [{ address, scid: row.scid }],
    };
}

function normalTable({ row_count: rowCount, sums, rows }) {
    return { rowCount, sums, rows: rows.map(normalRow) };
}

// Sums of both ways, as lines of hosts have them.
function sumsOf(name, sums, title) {
    return hostLines(name, [sums]).map(({ way, ...line }) => ({
        ...line,
        title: way === undefined ? title : `${title} ${way}`,
    }));
}

function sumsOfLines(lines, columns) {
    const ways = [...new Set(lines.map(({ way }) => way))];
    return ways.map((way) => ({
        ...sumRows(lines.filter((line) => line.way === way), columns),
        title: way === undefined ? "Shown" : `Shown ${way}`,
    }));
}

// What isn't listed: all less what is.
function otherRows(name, { rowCount, sums, rows }) {
    if (rowCount <= rows.length) return [];
    const listed = Object.fromEntries(
        Object.keys(sums).map((key) => [key, rows.reduce((sum, row) => sum + (row[key] ?? 0), 0)]),
    );
    const others = Object.fromEntries(
        Object.entries(sums).map(([key, sum]) => [key, sum - (listed[key] ?? 0)]),
    );
    return sumsOf(name, others, `${formatCount(rowCount - rows.length)} others`);
}

export function showTables(data) {
    const byId = (id) => document.getElementById(id);
    if (data.comparison !== undefined) data.tables.comparison = comparisonData(data.comparison);
    const bars = makeComparisonBars(data.comparison);
    const present = Object.entries(kTables).filter(([name]) => data.tables[name] !== undefined);
    const contents = Object.fromEntries(
        present.map(([name]) => [name, normalTable(data.tables[name])]),
    );
    const leadsToPairs = (name) =>
        contents.subject_senders !== undefined && ["subjects", "senders"].includes(name);
    const shownTables = Object.fromEntries(
        present.map(([name, { title, columns, sortBy }]) => [
            name,
            makeTable({ label: title, columns, sortBy, onOpen: leadsToPairs(name) ? openPairs : null }),
        ]),
    );
    const names = present.map(([key, { title }]) => ({ key, title }));
    const tabs = makeTabs(names, "tables", show);
    let tab = names[0].key;

    function openPairs({ subject, address }) {
        byId("filter").value = subject === undefined ? address : `"${subject}"`;
        tabs.choose("subject_senders");
    }

    // What a table shows: lines, their sums, and how the filter was understood.
    function view(name) {
        const content = contents[name];
        const { columns } = kTables[name];
        const filter = readFilter(byId("filter").value, { columns });
        const rows = filter.fits === null ? content.rows : content.rows.filter(filter.fits);
        const lines = hostLines(name, rows);
        const sums =
            filter.fits === null
                ? [...sumsOf(name, content.sums, "Totals"), ...otherRows(name, content)]
                : sumsOfLines(lines, columns);
        return { filter, rows, lines, sums: content.rows.length === 0 ? [] : sums };
    }

    function printed(name) {
        const { title, columns } = kTables[name];
        const { lines, sums } = view(name);
        const { key, descending } = shownTables[name].sort();
        const sort = columns.find((column) => column.key === key);
        const rows = Array.from(sortedIndices(lines, sort, descending), (at) => lines[at]);
        const figure = name === "comparison" ? makeComparisonBars(data.comparison) : null;
        if (figure !== null) fillComparisonBars(figure, rows);
        return { title, columns, sums, rows, figure };
    }

    function show(name = tab) {
        tab = name;
        for (const [key, table] of Object.entries(shownTables)) table.element.hidden = key !== tab;
        byId("tables").setAttribute("aria-labelledby", `tab-${tab}`);
        bars.hidden = tab !== "comparison";
        const content = contents[tab];
        const { filter, rows, lines, sums } = view(tab);
        const { fits, words, error } = filter;
        shownTables[tab].setEmptyText(
            content.rows.length === 0 ? "None in the capture." : "No row fits the filter.",
        );
        shownTables[tab].setRows(lines, sums, 1, true);
        if (!bars.hidden) fillComparisonBars(bars, rows);
        setText(byId("understood"), error ?? words);
        byId("understood").classList.toggle("error", error !== null);
        setText(
            byId("fits"),
            fits === null
                ? ""
                : `${formatCount(rows.length)} of ${formatCount(content.rows.length)}`,
        );
    }

    for (const { key } of names) tabs.setCount(key, formatCount(contents[key].rowCount));
    byId("tabs").append(tabs.element);
    byId("tables").append(bars, ...Object.values(shownTables).map((table) => table.element));
    const current = () => ({ name: `report.${tab}`, table: shownTables[tab] });
    byId("menus").append(makeColumnMenu(current), makeCopyMenu(current));
    for (const [name, table] of Object.entries(shownTables)) applyChoices(`report.${name}`, table);
    byId("filter").addEventListener("input", () => show());
    preparePrint(() => names.map(({ key }) => printed(key)));
    show();
}

const kFaultColumns = [
    { key: "words", label: "Fault", kind: "text", least: 29, help: "What is wrong with the packet" },
    {
        key: "packets",
        label: "Packets",
        kind: "number",
        least: 5.6,
        alert: "error",
        help: "Packets with the fault",
    },
];

// The page's head has the date: within one day it would only take room here.
function isOneDay({ begin_time: begin, end_time: end }) {
    const day = (text) => formatDateTime(Date.parse(text)).split(" ")[0];
    return day(begin) === day(end);
}

function timeColumns(kind) {
    return [
        { key: "first", label: "First", kind, drop: 1, help: "Time of the first one" },
        { key: "last", label: "Last", kind, help: "Time of the last one" },
    ];
}

// The sender of the last packet, and where the two are in the capture; left out where none is known.
const kPlaceColumns = [
    { key: "sender", label: "Last sender", kind: "address", help: "Who sent the last one" },
    { key: "first_frame", label: "First frame", kind: "number", wide: true, least: 7, isExact: true, drop: 3, help: "Number of the first one's frame in its file" },
    { key: "last_frame", label: "Last frame", kind: "number", wide: true, least: 7, isExact: true, drop: 2, help: "Number of the last one's frame in its file" },
];

export function showFaults({ capture, faults }) {
    const oneDay = isOneDay(capture);
    const time = (text) => (oneDay ? formatTime : formatDateTime)(Date.parse(text));
    const rows = Object.entries(faults).map(([key, fault]) => ({
        key,
        words: fault.words,
        packets: fault.packets,
        first: time(fault.first_time),
        last: time(fault.last_time),
        sender: fault.last_sender ?? undefined,
        first_frame: fault.first_frame,
        last_frame: fault.last_frame,
    }));
    const places = kPlaceColumns.filter(({ key }) => rows.some((row) => row[key] !== undefined));
    const times = timeColumns(oneDay ? "clock" : "time");
    const columns = [...kFaultColumns, ...times, ...places];
    const section = document.getElementById("faults");
    section.hidden = rows.length === 0;
    if (section.hidden) return;
    const table = makeTable({ label: "Faults by kind", columns, sortBy: "packets" });
    section.append(element("div", { class: "whole" }, table.element));
    table.setRows(rows);
}
