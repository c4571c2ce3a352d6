// The details of one row, beside the tables: its history as charts, and its hosts. A host that is
// opened shows its own history. Those of a fault have its first and its last packet, and who sends bad
// ones.

import { makeChart, makeChartGroup } from "../shared/chart.js";
import { element, setText } from "../shared/dom.js";
import { formatKey } from "../shared/format.js";
import { applyChoices, makeColumnMenu } from "../shared/menus.js";
import { fillHoles, ratesOf } from "../shared/reduce.js";
import { isSameRow, makeTable, sumRows } from "../shared/table.js";
import { hostLines, numberName, tables } from "../shared/tables.js";
import { badColumns } from "./faults.js";
import { fetchHistory } from "./feed.js";
import { readKept } from "./history.js";

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
const liesOver = matchMedia("(max-width: 1180px)");

function setCovered(covered) {
    for (const part of document.querySelectorAll(".top, #tiles, .tables-side"))
        part.inert = covered;
}

function plainButton(text, more, click) {
    return element("button", { type: "button", ...more, click }, text);
}

// onClose() after a close by the reader, onChange() after each change of what is shown, and
// onJump(table, filter) to see rows of a table. context() is {model, history, faults, scale, rate}; the
// model may be null.
export function makePanel({ context, onClose, onChange, onJump }) {
    const title = element("h2", { id: "panel-title", tabindex: "-1" });
    const place = element("p", { class: "place" });
    const jumps = element("p", { class: "jumps" });
    const all = plainButton("All hosts", { class: "plain-button" }, () => chooseHost(null));
    const close = plainButton(
        "×",
        { class: "close", "aria-label": "Close details", title: "Close (Escape)" },
        closeByReader,
    );
    const charts = element("div", { class: "charts" });
    const hosts = element("div", { class: "hosts" });
    let hostTable = null;
    const columnMenu = makeColumnMenu(() => ({ name: tableName(), table: hostTable }));
    const panel = element(
        "section",
        { class: "panel", "aria-labelledby": "panel-title", hidden: true, keydown: onKey },
        element("header", {}, element("div", {}, title, place, jumps), all, columnMenu, close),
        charts,
        hosts,
    );

    // What is shown: {table, row, host} of a row, {table} of a table's totals, {fault} of a fault.
    let shown = null;
    let drawn = [];
    // A history that comes late, after that of a later question, is dropped.
    let question = 0;

    liesOver.addEventListener("change", () => setCovered(shown !== null && liesOver.matches));

    function tableName() {
        return shown?.fault !== undefined ? "faults.hosts" : `${shown?.table}.hosts`;
    }

    function onKey(event) {
        if (event.key !== "Escape" || !shown?.host) return;
        chooseHost(null);
        event.stopPropagation();
    }

    function closeByReader() {
        hide();
        onClose();
        onChange();
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
        panel.hidden = false;
        makeHosts();
        setCovered(liesOver.matches);
        update();
        onChange();
    }

    function chartsOf({ table, fault }) {
        if (fault === undefined) return tables[table].charts;
        const lines = [{ key: `faults.${fault}`, label: "", colour: "red" }];
        return [{ title: "Packets", bars: true, lines }];
    }

    function makeHosts() {
        hostTable = null;
        hosts.replaceChildren();
        columnMenu.hidden = shown.row === undefined && shown.fault === undefined;
        if (columnMenu.hidden) return;
        hostTable = shown.fault === undefined ? makeHostTable() : makeSenderTable();
        hosts.append(hostTable.element);
        applyChoices(tableName(), hostTable);
    }

    function makeHostTable() {
        const { hostColumns, sortBy } = tables[shown.table];
        const table = makeTable({
            label: `Hosts of ${rowTitle(shown.row)}`,
            columns: hostColumns,
            sortBy: sortBy.replace(/_sent$/, ""),
            onOpen: chooseHost,
        });
        table.setEmptyText(
            shown.table === "subjects" && !shown.row.hosts
                ? "The senders of subjects aren't counted: start with --senders."
                : "Nothing in this interval.",
        );
        table.setOpenRow(shown.host);
        return table;
    }

    function makeSenderTable() {
        const table = makeTable({
            label: "Senders of bad packets",
            columns: badColumns,
            sortBy: "bad",
            onOpen: (row) => onJump(row.table, row.address),
        });
        table.setEmptyText("No bad packet was counted since the page was opened.");
        return table;
    }

    function chooseHost(host) {
        shown.host = isSameRow(host, shown.host ?? null) ? null : host;
        hostTable.setOpenRow(shown.host);
        update();
        if (shown.host === null) hostTable.focus();
        onChange();
    }

    function update() {
        if (shown === null) return;
        const { row, host, table, fault } = shown;
        all.hidden = !host;
        if (fault !== undefined) return updateFault();
        if (row === undefined) {
            setText(title, tables[table].title);
            setText(place, "all of the bus");
            jumps.replaceChildren();
            drawTotals();
            return;
        }
        setText(title, rowTitle(row));
        setText(
            place,
            [rowPlace(row), host ? `${hostTitle(host)}${host.way ? `, ${host.way}` : ""}` : ""]
                .filter((text) => text !== "")
                .join(" · "),
        );
        showJump(host);
        updateHosts();
        askHistory();
    }

    // From a sender to its subjects, and from one of a subject to its groups.
    function showJump(host) {
        const [table, words] =
            shown.table === "subjects" ? ["multicast", "Its groups"] : ["subjects", "Its subjects"];
        const jump = plainButton(words, { class: "plain-button" }, () => onJump(table, host.address));
        if (!host) jumps.replaceChildren();
        else if (jumps.textContent !== words) jumps.replaceChildren(jump);
    }

    function updateFault() {
        const { faults, history } = context();
        const row = faults.rows().find(({ key }) => key === shown.fault);
        setText(title, row?.words ?? formatKey(shown.fault));
        setText(
            place,
            row === undefined
                ? "None since the page was opened."
                : `first ${row.first}${row.firstPacket}; last ${row.last}${row.lastPacket}`,
        );
        const words = !row?.sender ? "" : `Last sender ${row.sender}`;
        if (words === "") jumps.replaceChildren();
        else if (jumps.textContent !== words)
            jumps.replaceChildren(
                plainButton(words, { class: "plain-button" }, () => onJump("multicast", row.sender)),
            );
        hostTable.setRows(faults.senders());
        drawSeries(history.times(), history.elapsed(), (key) => history.values(key));
    }

    function updateHosts() {
        const { model, scale } = context();
        const row = model?.rows[shown.table].find((candidate) => isSameRow(candidate, shown.row));
        const { hostColumns, ways } = tables[shown.table];
        const lines = hostLines(shown.table, row?.hosts ?? []);
        const sumsOf = (heading, some) => ({ title: heading, ...sumRows(some, hostColumns) });
        const sumsOfWay = (way) => sumsOf(`All ${way}`, lines.filter((line) => line.way === way));
        const sums = ways === undefined ? [sumsOf("Totals", lines)] : ["out", "in"].map(sumsOfWay);
        hostTable.setRows(lines, lines.length === 0 ? [] : sums, scale);
    }

    async function askHistory() {
        const mine = ++question;
        const answer = await fetchHistory(historyQuery(shown.table, shown.row, shown.host));
        if (mine !== question || answer === null) return;
        const kept = readKept(answer);
        const way = shown.host?.way;
        drawSeries(kept.times, kept.elapsed, (key) =>
            kept.values(way === undefined ? key : numberName(key, way)),
        );
    }

    function drawTotals() {
        const { history } = context();
        drawSeries(history.times(), history.elapsed(), (key) => history.values(`${shown.table}.${key}`));
    }

    function drawSeries(times, elapsed, valuesOf) {
        const { rate } = context();
        for (const { options, chart } of drawn) {
            const columns = options.lines.map(({ key }) =>
                rate ? ratesOf(valuesOf(key), elapsed) : valuesOf(key),
            );
            const filled = fillHoles(times, elapsed, columns);
            chart.setData(filled.times, filled.columns);
        }
    }

    return {
        element: panel,
        openRow: (table, row, host = null) => {
            show({ table, row, host });
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
        // As a link holds it.
        open: () => {
            if (shown === null) return null;
            if (shown.fault !== undefined) return { fault: shown.fault };
            return shown.row === undefined ? { totals: true } : { row: shown.row, host: shown.host };
        },
        close: closeByReader,
        hide,
        update,
    };
}
