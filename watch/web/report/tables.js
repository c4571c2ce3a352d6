// The tables of the report. A table may hold the largest rows only; the sums are those of all.

import { element, setText } from "../shared/dom.js";
import { readFilter } from "../shared/filter.js";
import { formatCount, formatDateTime, formatTime } from "../shared/format.js";
import { makeTable, sumRows } from "../shared/table.js";
import { tables } from "../shared/tables.js";
import { makeTabs } from "../shared/tabs.js";

const [subjectColumn, portColumn, groupColumn, ...subjectNumbers] = tables.subjects.columns;
const [senderColumn, scidColumn, ...multicastNumbers] = tables.multicast.hostColumns.filter(
    (column) => !column.isState,
);
const [, , hostCountColumn] = tables.multicast.columns;
const servicePortColumn = tables.retransmission.columns[1];
const minor = (column) => ({ ...column, minor: true });
const messageNumbers = [
    subjectNumbers[0],
    { ...subjectNumbers[1], label: "Message bytes", minor: true },
];

const kTables = {
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
        columns: [subjectColumn, senderColumn, scidColumn, minor(portColumn), groupColumn, ...subjectNumbers],
    },
    groups: {
        title: "Groups",
        sortBy: "payload_bytes",
        columns: [
            portColumn,
            { ...groupColumn, minor: false },
            { ...hostCountColumn, label: "Senders" },
            ...messageNumbers,
            ...multicastNumbers,
        ],
    },
    retransmission: {
        title: "Retransmission",
        sortBy: "requests_sent",
        columns: [
            tables.retransmission.hostColumns[0],
            scidColumn,
            minor(portColumn),
            servicePortColumn,
            ...tables.retransmission.hostColumns.slice(2),
        ],
    },
    point_to_point: {
        title: "Point to point",
        sortBy: "payload_bytes_sent",
        columns: [
            tables.point_to_point.hostColumns[0],
            scidColumn,
            minor(portColumn),
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

// What isn't listed: all less what is.
function otherRows({ rowCount, sums, rows }, columns) {
    if (rowCount <= rows.length) return [];
    const listed = sumRows(rows, columns);
    const others = Object.fromEntries(
        Object.entries(sums).map(([key, sum]) => [key, sum - (listed[key] ?? 0)]),
    );
    return [
        { ...others, title: `${formatCount(rowCount - rows.length)} others`, hostCount: undefined },
    ];
}

export function showTables(data) {
    const byId = (id) => document.getElementById(id);
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

    function show(name = tab) {
        tab = name;
        for (const [key, table] of Object.entries(shownTables)) table.element.hidden = key !== tab;
        byId("tables").setAttribute("aria-labelledby", `tab-${tab}`);
        const content = contents[tab];
        const { columns } = kTables[tab];
        const { fits, words, error } = readFilter(byId("filter").value, { columns });
        const rows = fits === null ? content.rows : content.rows.filter(fits);
        const totals = { ...content.sums, title: "Totals" };
        const sums =
            fits === null
                ? [totals, ...otherRows(content, columns)]
                : [{ ...sumRows(rows, columns), title: "Shown" }];
        shownTables[tab].setEmptyText(
            content.rows.length === 0 ? "None in the capture." : "No row fits the filter.",
        );
        shownTables[tab].setRows(rows, content.rows.length === 0 ? [] : sums);
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
    byId("tables").append(...Object.values(shownTables).map((table) => table.element));
    byId("filter").addEventListener("input", () => show());
    show();
}

const kFaultColumns = [
    { key: "words", label: "Fault", kind: "text", help: "What is wrong with the packet" },
    {
        key: "packets",
        label: "Packets",
        kind: "number",
        wide: true,
        alert: "error",
        help: "Packets with the fault",
    },
];

// The page's head has the date: within one day it would only take room here.
function isOneDay({ begin_time: begin, end_time: end }) {
    const day = (text) => formatDateTime(Date.parse(text)).split(" ")[0];
    return day(begin) === day(end);
}

function timeColumns(kind, isMinor) {
    return [
        { key: "first", label: "First", kind, minor: isMinor, help: "Time of the first one" },
        { key: "last", label: "Last", kind, help: "Time of the last one" },
    ];
}

export function showFaults({ capture, faults }) {
    const oneDay = isOneDay(capture);
    const time = (text) => (oneDay ? formatTime : formatDateTime)(Date.parse(text));
    const columns = [...kFaultColumns, ...timeColumns(oneDay ? "clock" : "time", !oneDay)];
    const rows = Object.entries(faults).map(([key, fault]) => ({
        key,
        words: fault.words,
        packets: fault.packets,
        first: time(fault.first_time),
        last: time(fault.last_time),
    }));
    const section = document.getElementById("faults");
    section.hidden = rows.length === 0;
    if (section.hidden) return;
    const table = makeTable({ label: "Faults by kind", columns, sortBy: "packets" });
    section.append(element("div", { class: "whole" }, table.element));
    table.setRows(rows);
}
