// The live page: snapshots come from the feed and go to the tiles, the table of the chosen tab and
// the details that are open. Nothing else keeps state of the bus.

import { setAttribute, setText } from "../shared/dom.js";
import { readFilter } from "../shared/filter.js";
import { formatCount, formatDateTime, formatSpan, formatTime } from "../shared/format.js";
import { makeTable, sumRows } from "../shared/table.js";
import { tables } from "../shared/tables.js";
import { makeTabs } from "../shared/tabs.js";
import { faultColumns, makeFaults } from "./faults.js";
import { fetchHistory, openFeed } from "./feed.js";
import { makeHistory } from "./history.js";
import { makeModel, tableNames } from "./model.js";
import { makePanel } from "./panel.js";
import { makeTiles } from "./tiles.js";

const byId = (id) => document.getElementById(id);

const history = makeHistory();
const faults = makeFaults();
let model = null;
// While the reader has paused: the newest snapshot that isn't shown yet.
let waiting = null;
let isPaused = false;
let isRate = false;
let tab = tableNames[0];

// What turns a count into what is shown of it.
function scale() {
    return isRate && model?.elapsedSeconds > 0 ? 1 / model.elapsedSeconds : 1;
}

const panel = makePanel({
    context: () => ({ model, history, scale: scale(), rate: isRate }),
    onClose: () => {
        shownTables[tab].setOpenRow(null);
        shownTables[tab].focus();
    },
});

const shownTables = Object.fromEntries(
    tableNames.map((name) => [
        name,
        makeTable({
            label: tables[name].title,
            columns: tables[name].columns,
            sortBy: tables[name].sortBy,
            onOpen: (row) => openRow(name, row),
        }),
    ]),
);
shownTables.faults = makeTable({
    label: "Faults by kind",
    columns: faultColumns,
    sortBy: "packets",
    onOpen: (row) => {
        shownTables.faults.setOpenRow(row);
        panel.openFault(row.key);
    },
});

const tabs = makeTabs(
    [
        ...tableNames.map((key) => ({ key, title: tables[key].title })),
        { key: "faults", title: "Faults" },
    ],
    "tables",
    chooseTab,
);
const tiles = makeTiles({
    onOpen: (table) => {
        if (table !== tab) tabs.choose(table);
        if (table !== "faults") panel.openTotals(table);
    },
    onPoint: (timeMs) => {
        setText(byId("pointed"), timeMs === null ? "" : `totals at ${formatTime(timeMs)}`);
    },
});

function openRow(name, row) {
    shownTables[name].setOpenRow(row);
    panel.openRow(name, row);
}

function chooseTab(key) {
    shownTables[tab].setOpenRow(null);
    tab = key;
    panel.hide();
    for (const [name, table] of Object.entries(shownTables)) table.element.hidden = name !== tab;
    setAttribute(byId("tables"), "aria-labelledby", `tab-${tab}`);
    showTable();
}

function emptyText(filter, rowCount) {
    if (model === null) return "Waiting for the first interval.";
    if (rowCount === 0) return "Nothing in this interval.";
    if (filter.error !== null) return `No row: ${filter.error}.`;
    if (tab !== "subjects" && filter.needsSubjects)
        return "A pattern of subjects fits rows of the table Subjects only.";
    return "No row fits the filter.";
}

function showTable() {
    const isFaults = tab === "faults";
    const rows = isFaults ? faults.rows() : (model?.rows[tab] ?? []);
    const filter = readFilter(isFaults ? "" : byId("filter").value, {
        columns: isFaults ? [] : tables[tab].columns,
        scale: scale(),
    });
    const { fits } = filter;
    const shown = fits === null ? rows : rows.filter(fits);
    const table = shownTables[tab];
    const sums =
        isFaults || rows.length === 0
            ? []
            : [{ title: "Totals", ...sumRows(shown, tables[tab].columns) }];
    table.setEmptyText(
        isFaults ? "No faults since the page was opened." : emptyText(filter, rows.length),
    );
    table.setRows(shown, sums, scale());
    setText(
        byId("fits"),
        fits === null ? "" : `${formatCount(shown.length)} of ${formatCount(rows.length)}`,
    );
    setText(byId("understood"), filter.error ?? filter.words);
    byId("understood").classList.toggle("error", filter.error !== null);
    byId("filter").disabled = isFaults;
}

function showCounts() {
    for (const name of tableNames) tabs.setCount(name, formatCount(model.rows[name].length));
    const kinds = Object.keys(model.snapshot.faults).length;
    tabs.setCount("faults", kinds === 0 ? "" : formatCount(kinds), kinds > 0);
}

function showHead() {
    const { snapshot, timeMs, elapsedSeconds } = model;
    showState();
    setText(byId("time"), formatDateTime(timeMs));
    setText(
        byId("interval"),
        isRate
            ? `rates a second over ${formatSpan(elapsedSeconds)}`
            : `counts of ${formatSpan(elapsedSeconds)}`,
    );
    const lost = snapshot.kernel_dropped_frames ?? 0;
    byId("drops").hidden = lost === 0;
    setText(
        byId("drops"),
        `This machine lost ${formatCount(lost)} frames in the interval: gaps may be its own.`,
    );
}

function showAll() {
    if (model === null) return;
    showHead();
    showCounts();
    tiles.update(history, model.snapshot, scale());
    showTable();
    panel.update();
}

function take(snapshot) {
    history.append(snapshot);
    faults.add(snapshot);
    if (isPaused) {
        waiting = snapshot;
        return;
    }
    model = makeModel(snapshot);
    showAll();
}

function setPaused(paused) {
    isPaused = paused;
    setAttribute(byId("pause"), "aria-pressed", String(paused));
    if (paused || waiting === null) return;
    model = makeModel(waiting);
    waiting = null;
    showAll();
}

function setRate(rate) {
    isRate = rate;
    setAttribute(byId("rate"), "aria-pressed", String(rate));
    showAll();
}

let lostSince = null;
let isConnected = false;

// Only a saved capture tells of a file.
function showState() {
    const isSaved = model !== null && model.snapshot.file_bytes !== undefined;
    setText(byId("state"), !isConnected ? "connection lost" : isSaved ? "capture file" : "live");
}

async function onState(state) {
    byId("state").className = state;
    isConnected = state === "live";
    showState();
    byId("lost").hidden = state === "live";
    if (state === "lost") {
        lostSince ??= Date.now();
        setText(
            byId("lost"),
            `The connection is lost since ${formatTime(lostSince)}. The page tries again by itself; what it shows is the last it got.`,
        );
        return;
    }
    lostSince = null;
    const kept = await fetchHistory();
    if (kept === null) return;
    history.replace(kept);
    if (model !== null) history.append(model.snapshot);
    showAll();
}

// Keys of the whole page, wherever no text is typed.
function onKey(event) {
    if (event.altKey || event.ctrlKey || event.metaKey) return;
    if (event.key === "Escape" && panel.isOpen()) panel.close();
    if (event.target instanceof HTMLInputElement) return;
    if (event.key === "/") byId("filter").focus();
    else if (event.key === "p") setPaused(!isPaused);
    else if (event.key === "r") setRate(!isRate);
    else return;
    event.preventDefault();
}

function onFilterKey(event) {
    if (event.key === "Escape" && event.target.value !== "") {
        event.target.value = "";
        showTable();
        event.stopPropagation();
    } else if (event.key === "Enter" || event.key === "ArrowDown") {
        shownTables[tab].focus();
        event.preventDefault();
    }
}

byId("tiles").append(tiles.element);
byId("tabs").append(tabs.element);
byId("tables").append(...Object.values(shownTables).map((table) => table.element));
byId("main").append(panel.element);
byId("filter").addEventListener("input", showTable);
byId("filter").addEventListener("keydown", onFilterKey);
byId("pause").addEventListener("click", () => setPaused(!isPaused));
byId("rate").addEventListener("click", () => setRate(!isRate));
document.addEventListener("keydown", onKey);
document.title = `pelmowatch ${location.host}`;
chooseTab(tab);
openFeed({ onSnapshot: take, onState });
