// The live page: snapshots come from the feed and go to the tiles, the table of the chosen tab and
// the details that are open. Nothing else keeps state of the bus. What is chosen is in the page's link.

import { redrawCharts } from "../shared/chart.js";
import { setAttribute, setText } from "../shared/dom.js";
import { readFilter } from "../shared/filter.js";
import { formatCount, formatSpan, formatTime, formatZone, showUtc } from "../shared/format.js";
import { applyChoices, makeColumnMenu, makeCopyMenu } from "../shared/menus.js";
import { makeTable, sumRows } from "../shared/table.js";
import { tables } from "../shared/tables.js";
import { makeTabs } from "../shared/tabs.js";
import { faultColumns, makeFaults } from "./faults.js";
import { fetchHistory, openFeed } from "./feed.js";
import { makeHead } from "./head.js";
import { makeHistory } from "./history.js";
import { readLink, writeLink } from "./link.js";
import { makeModels, tableNames } from "./model.js";
import { makePanel } from "./panel.js";
import { makeTiles } from "./tiles.js";

const byId = (id) => document.getElementById(id);

const history = makeHistory();
const faults = makeFaults();
const head = makeHead();
const modelOf = makeModels();
let model = null;
// While the reader has paused: the newest model that isn't shown yet.
let waiting = null;
let intervalSeconds = null;
let isPaused = false;
let isRate = false;
let isUtc = false;
let tab = tableNames[0];

// What turns a count into what is shown of it. An interval without a length has no rates.
function scale() {
    if (!isRate || model === null) return 1;
    return model.elapsedSeconds > 0 ? 1 / model.elapsedSeconds : NaN;
}

const panel = makePanel({
    context: () => ({ model, history, faults, scale: scale(), rate: isRate }),
    onClose: () => {
        shownTables[tab].setOpenRow(null);
        shownTables[tab].focus();
    },
    onChange: keepLink,
    onJump: (name, filter) => {
        byId("filter").value = filter;
        tabs.choose(name);
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
            onSort: keepLink,
            onHold: showHeld,
        }),
    ]),
);
shownTables.faults = makeTable({
    label: "Faults by kind",
    columns: faultColumns,
    sortBy: "packets",
    onOpen: (row) => openFault(row.key),
    onSort: keepLink,
    onHold: showHeld,
});

const tabs = makeTabs(
    [
        ...tableNames.map((key) => ({ key, title: tables[key].title })),
        { key: "faults", title: "Faults" },
    ],
    "tables",
    (key) => {
        chooseTab(key);
        keepLink();
    },
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

function showHeld(isHeld) {
    setText(byId("held"), isHeld ? "order held under the pointer" : "");
}

function openRow(name, row, host = null) {
    shownTables[name].setOpenRow(row);
    panel.openRow(name, row, host);
}

function openFault(key) {
    shownTables.faults.setOpenRow({ key });
    panel.openFault(key);
}

function chooseTab(key) {
    shownTables[tab].setOpenRow(null);
    tab = key;
    panel.hide();
    showHeld(false);
    for (const [name, table] of Object.entries(shownTables)) table.element.hidden = name !== tab;
    setAttribute(byId("tables"), "aria-labelledby", `tab-${tab}`);
    showTable(true);
}

function emptyText(filter, rowCount) {
    if (tab === "faults" && rowCount === 0) return "No faults since the page was opened.";
    if (model === null)
        return intervalSeconds === null
            ? "Waiting for the first interval."
            : `Waiting for the first interval, which takes ${formatSpan(intervalSeconds)}.`;
    if (rowCount === 0) return "Nothing in the last ten minutes.";
    if (filter.error !== null) return `No row: ${filter.error}.`;
    if (tab !== "subjects" && filter.needsSubjects)
        return "A pattern of subjects fits rows of the table Subjects only.";
    if (tab === "subjects" && model.snapshot.subjects.every(({ senders }) => senders === undefined))
        return "No row fits the filter. The senders of subjects aren't counted: start with --senders.";
    return "No row fits the filter.";
}

// `isNew` where the reader asked for other rows, and not for those of another interval.
function showTable(isNew = false) {
    const rows = tab === "faults" ? faults.rows() : (model?.rows[tab] ?? []);
    const table = shownTables[tab];
    const filter = readFilter(byId("filter").value, { columns: table.columns, scale: scale() });
    const { fits } = filter;
    const shown = fits === null ? rows : rows.filter(fits);
    const sums =
        rows.length === 0 || tab === "faults"
            ? []
            : [{ title: fits === null ? "Totals" : "Shown", ...sumRows(shown, table.columns) }];
    table.setEmptyText(emptyText(filter, rows.length));
    table.setRows(shown, sums, scale(), isNew);
    setText(byId("understood"), filter.error ?? filter.words);
    setAttribute(byId("understood"), "title", byId("understood").textContent);
    byId("understood").classList.toggle("error", filter.error !== null);
    setText(
        byId("fits"),
        fits === null ? "" : `${formatCount(shown.length)} of ${formatCount(rows.length)}`,
    );
}

function showCounts() {
    for (const name of tableNames) tabs.setCount(name, formatCount(model.rows[name].length));
    const kinds = faults.rows().length;
    tabs.setCount("faults", kinds === 0 ? "" : formatCount(kinds), kinds > 0);
}

function showAll(isNew = false) {
    if (model === null) return showTable();
    head.show(model, isRate);
    showCounts();
    tiles.update(history, model.snapshot, scale(), isRate);
    showTable(isNew);
    panel.update();
}

function take(snapshot) {
    history.append(snapshot);
    faults.add(snapshot);
    head.count(snapshot, history.values("bus_packets").some((packets) => packets > 0));
    const taken = modelOf(snapshot);
    if (isPaused) {
        waiting = taken;
        return;
    }
    model = taken;
    showAll();
}

function setPaused(paused) {
    isPaused = paused;
    setAttribute(byId("pause"), "aria-pressed", String(paused));
    if (paused || waiting === null) return;
    model = waiting;
    waiting = null;
    showAll();
}

function setUnit(rate) {
    isRate = rate;
    setAttribute(byId("rate"), "aria-pressed", String(rate));
}

function setZone(utc) {
    isUtc = utc;
    showUtc(utc);
    setAttribute(byId("utc"), "aria-pressed", String(utc));
    redrawCharts();
}

// The link.

let keepTimer = 0;
let isRestoring = false;

// Browsers refuse an address that changes with each key.
function keepLink() {
    if (isRestoring) return;
    clearTimeout(keepTimer);
    keepTimer = setTimeout(() => window.history.replaceState(null, "", linkNow()), 150);
}

function linkNow() {
    const filter = byId("filter").value;
    const sort = shownTables[tab].sort();
    return writeLink({ table: tab, sort, filter, isRate, isUtc, open: panel.open() });
}

function restoreOpen(open) {
    if (open === null) return;
    if (open.fault !== undefined && tab === "faults") openFault(open.fault);
    else if (tab === "faults") return;
    else if (open.totals) panel.openTotals(tab);
    else if (open.row !== undefined) openRow(tab, open.row, open.host);
}

function restore({ table, sort, filter, isRate: rate, isUtc: utc, open }) {
    isRestoring = true;
    setUnit(rate);
    setZone(utc);
    byId("filter").value = filter;
    if (Object.hasOwn(shownTables, table ?? "")) tabs.choose(table);
    else chooseTab(tab);
    if (sort !== null) shownTables[tab].setSort(sort.key, sort.descending);
    restoreOpen(open);
    isRestoring = false;
    keepLink();
    showAll(true);
}

// The feed.

async function refreshHistory() {
    const kept = await fetchHistory();
    if (kept === null) return;
    intervalSeconds ??= kept.interval_seconds;
    history.replace(kept);
    showAll();
}

function onSource(source) {
    intervalSeconds = source.interval_seconds;
    head.setSource(source);
    if (model === null) showTable();
}

function onState(state) {
    head.setConnection(state);
    if (state === "live") refreshHistory();
}

function onVisibility() {
    if (document.visibilityState !== "visible") return;
    head.addTrouble(null);
    refreshHistory();
}

// Keys of the whole page, wherever no text is typed.
function onKey(event) {
    if (event.altKey || event.ctrlKey || event.metaKey) return;
    if (event.key === "Escape" && panel.isOpen()) panel.close();
    if (event.target instanceof HTMLInputElement) return;
    if (event.key === "/") byId("filter").focus();
    else if (event.key === "p") setPaused(!isPaused);
    else if (event.key === "r") byId("rate").click();
    else if (event.key === "u") byId("utc").click();
    else return;
    event.preventDefault();
}

function onFilterKey(event) {
    if (event.key === "Escape" && event.target.value !== "") {
        event.target.value = "";
        onFilter();
        event.stopPropagation();
    } else if (event.key === "Enter" || event.key === "ArrowDown") {
        shownTables[tab].focus();
        event.preventDefault();
    }
}

function onFilter() {
    showTable(true);
    keepLink();
}

byId("tiles").append(tiles.element);
byId("tabs").append(tabs.element);
byId("tables").append(...Object.values(shownTables).map((table) => table.element));
byId("main").append(panel.element);
const currentTable = () => ({ name: tab, table: shownTables[tab] });
byId("menus").append(makeColumnMenu(currentTable), makeCopyMenu(currentTable));
for (const [name, table] of Object.entries(shownTables)) applyChoices(name, table);
byId("filter").addEventListener("input", onFilter);
byId("filter").addEventListener("keydown", onFilterKey);
byId("pause").addEventListener("click", () => setPaused(!isPaused));
byId("rate").addEventListener("click", () => {
    setUnit(!isRate);
    showAll();
    keepLink();
});
byId("utc").hidden = formatZone(Date.now()) === "UTC";
byId("utc").addEventListener("click", () => {
    setZone(!isUtc);
    showAll();
    keepLink();
});
document.addEventListener("keydown", onKey);
document.addEventListener("visibilitychange", onVisibility);
addEventListener("hashchange", ({ newURL }) => restore(readLink(new URL(newURL).hash)));
restore(readLink(location.hash));
openFeed({ onSnapshot: take, onSource, onState, onTrouble: head.addTrouble });
