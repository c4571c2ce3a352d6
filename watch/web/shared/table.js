// A table that sorts by a click on a heading and draws only the rows that are in sight, so that it
// bears hundreds of thousands.
//
//     Tab to the table: arrows, Page Up and Down, Home and End move the current row, Enter opens it.
//
// The focus is on the table itself, and the current row is told by aria-activedescendant: rows are
// drawn anew all the time, and a focus on one of them would get lost.
//
// While the pointer is on the rows their order holds: what is looked at and what is pressed doesn't move.

import { element, setAttribute, setText } from "./dom.js";
import { formatNarrow, formatNumber, formatShort, formatTime } from "./format.js";
import { layoutColumns } from "./layout.js";
import { sortedIndices, sortsDescendingFirst } from "./sort.js";

// Rows that are drawn above and below what is in sight, so that a short scroll shows no blank.
const kSpareRows = 8;

// Of a number in a column that isn't compact.
const kMostCharacters = 9;
const kMostCharactersWide = 15;

let tablesMade = 0;

// Do two rows, perhaps of different snapshots, stand for the same thing? A host's lines of both ways do
// where one of the two doesn't say which it is.
export function isSameRow(a, b) {
    return (
        a !== null &&
        b !== null &&
        a.port === b.port &&
        a.group === b.group &&
        a.subject === b.subject &&
        a.address === b.address &&
        a.scid === b.scid &&
        a.key === b.key &&
        (a.way === b.way || a.way === undefined || b.way === undefined)
    );
}

function rowKey({ port, group, subject, address, scid, key, way }) {
    return `${port} ${group} ${subject} ${address} ${scid} ${key} ${way}`;
}

// The sums of all numbers of the rows but those that say a state, as a reliability does.
export function sumRows(rows, columns) {
    const sums = {};
    for (const { key, kind, isState } of columns) {
        if (kind === "number" && !isState)
            sums[key] = rows.reduce((sum, row) => sum + (row[key] ?? 0), 0);
    }
    return sums;
}

// options: label, columns, sortBy (a column's key), onOpen(row) or null, onSort(), which is called when the
// reader chose an order, and onHold(whether the order is held).
export function makeTable(options) {
    const { columns, onOpen = null, onSort = () => {}, onHold = () => {} } = options;
    const id = `table${++tablesMade}`;
    const state = {
        rows: [],
        order: new Uint32Array(0),
        sums: [],
        scale: 1,
        largest: 0,
        layout: null,
        choices: {},
        isHeld: false,
        sort: columns.find((column) => column.key === options.sortBy) ?? null,
        descending: true,
        current: -1,
        currentRow: null,
        openRow: null,
    };
    state.descending = state.sort !== null && sortsDescendingFirst(state.sort);

    const headings = columns.map((column) => makeHeading(column, () => sortBy(column)));
    const cols = columns.map(() => element("col"));
    const body = element("tbody");
    const table = element(
        "table",
        {
            role: "grid",
            tabindex: "0",
            "aria-label": options.label,
            "aria-readonly": "true",
            keydown: onKey,
            focus: onFocus,
        },
        element("colgroup", {}, ...cols),
        element("thead", {}, element("tr", { "aria-rowindex": "1" }, ...headings)),
        body,
    );
    const sumRows = [];
    const empty = element("p", { class: "empty" });
    const box = element(
        "div",
        { class: "table", scroll: draw, pointerenter: hold, pointerleave: release },
        table,
        empty,
    );
    const above = makeSpace();
    const below = makeSpace();
    const drawn = [];
    new ResizeObserver(redraw).observe(box);

    // Sums before rows: they are part of the headings' height.
    function redraw() {
        layOut();
        fillSums();
        draw();
    }

    // Columns by the width that there is, and what that means for the cells that exist.
    function layOut() {
        const em = parseFloat(getComputedStyle(box).fontSize) || 13;
        if (box.clientWidth === 0) return;
        const layout = layoutColumns(
            columns,
            state.choices,
            state.sort?.key,
            box.clientWidth / em,
        );
        table.style.minWidth = `${layout.least}em`;
        const { shown, isCompact, widths } = layout;
        const last = columns.findLast(({ key }) => shown.has(key));
        const isSame =
            columns.every(({ key }) => state.layout?.widths[key] === widths[key]) &&
            state.layout?.isCompact === isCompact;
        state.layout = { ...layout, last };
        if (isSame) return;
        box.classList.toggle("compact", isCompact);
        columns.forEach(({ key, kind, fixed }, i) => {
            cols[i].hidden = !shown.has(key);
            const takesRest = kind === "text" && fixed === undefined;
            cols[i].style.width = takesRest ? "auto" : `${widths[key]}em`;
        });
        layOutCells(headings);
        for (const { cells } of sumRows) layOutCells([...cells]);
        for (const { cells } of drawn) layOutCells(cells.map((cell) => cell.element));
    }

    function layOutCells(cells) {
        if (state.layout === null) return;
        cells.forEach((cell, i) => {
            cell.hidden = !state.layout.shown.has(columns[i].key);
            cell.classList.toggle("edge", columns[i] === state.layout.last);
        });
    }

    function sortBy(column) {
        state.descending = state.sort === column ? !state.descending : sortsDescendingFirst(column);
        state.sort = column;
        order();
        box.scrollTop = 0;
        redraw();
        onSort();
    }

    function order() {
        state.order = sortedIndices(state.rows, state.sort, state.descending);
        onHold(false);
        noteOrder();
    }

    function noteOrder() {
        const key = state.sort?.kind === "number" ? state.sort.key : null;
        state.largest =
            key === null ? 0 : state.rows.reduce((most, row) => Math.max(most, row[key] ?? 0), 0);
        state.current = findCurrent();
        headings.forEach((heading, i) => {
            const isSort = columns[i] === state.sort;
            setAttribute(
                heading,
                "aria-sort",
                !isSort ? "none" : state.descending ? "descending" : "ascending",
            );
        });
    }

    // Touch has no pointer that rests.
    function hold(event) {
        state.isHeld = event.pointerType === "mouse";
    }

    function release() {
        if (!state.isHeld) return;
        state.isHeld = false;
        order();
        redraw();
    }

    // Rows that were there keep their places among each other; new ones come after them.
    function keepOrder(before) {
        const sorted = sortedIndices(state.rows, state.sort, state.descending);
        const places = new Map(Array.from(sorted, (index) => [rowKey(state.rows[index]), index]));
        const kept = [];
        for (const key of before) {
            if (!places.has(key)) continue;
            kept.push(places.get(key));
            places.delete(key);
        }
        state.order = Uint32Array.from([...kept, ...places.values()]);
        onHold(true);
        noteOrder();
    }

    function findCurrent() {
        if (state.currentRow === null) return -1;
        return state.order.findIndex((index) => isSameRow(state.rows[index], state.currentRow));
    }

    function rowHeight() {
        return parseFloat(getComputedStyle(box).getPropertyValue("--row-height")) || 26;
    }

    function headHeight() {
        return table.tHead.offsetHeight;
    }

    // Draws the rows in sight into row elements that are kept.
    function draw() {
        const height = rowHeight();
        const count = state.order.length;
        const first = Math.max(0, Math.floor(box.scrollTop / height) - kSpareRows);
        const inSight = Math.ceil(box.clientHeight / height) + 2 * kSpareRows;
        const shown = Math.min(inSight, Math.max(0, count - first));
        while (drawn.length < shown) {
            const row = makeRow(columns);
            layOutCells(row.cells.map((cell) => cell.element));
            drawn.push(row);
        }
        setHeight(above, first * height);
        setHeight(below, (count - first - shown) * height);
        const rows = drawn.slice(0, shown);
        rows.forEach((row, i) => fillRow(row, first + i));
        const wanted = [above, ...rows.map((row) => row.element), below];
        if (wanted.length !== body.childElementCount) body.replaceChildren(...wanted);
        setAttribute(table, "aria-rowcount", count + 1 + state.sums.length);
        const isDrawn = state.current >= first && state.current < first + shown;
        setAttribute(table, "aria-activedescendant", isDrawn ? `${id}-${state.current}` : null);
        empty.hidden = count > 0;
    }

    function fillRow(row, at) {
        const data = state.rows[state.order[at]];
        const tr = row.element;
        tr.id = `${id}-${at}`;
        row.at = at;
        row.data = data;
        const { silentSince } = data;
        tr.classList.toggle("silent", silentSince !== undefined);
        setAttribute(
            tr,
            "title",
            silentSince === undefined ? null : `silent since ${formatTime(silentSince)}`,
        );
        setAttribute(tr, "aria-rowindex", at + 2 + state.sums.length);
        tr.classList.toggle("current", at === state.current);
        if (onOpen !== null)
            setAttribute(tr, "aria-selected", String(isSameRow(data, state.openRow)));
        columns.forEach((column, i) => fillCell(row.cells[i], data, column));
    }

    // A number is never cut: where it doesn't fit it is shortened.
    function cellText(value, column) {
        if (column.kind !== "number")
            return value === null || value === undefined ? "–" : String(value);
        const number = scaled(value, column);
        if (column.isExact) return formatNumber(number);
        if (state.layout?.isCompact) return formatNarrow(number);
        const text = formatNumber(number);
        const room = column.wide ? kMostCharactersWide : kMostCharacters;
        return text.length > room ? formatShort(number) : text;
    }

    function scaled(value, column) {
        return value === null || value === undefined || column.isState
            ? value
            : value * state.scale;
    }

    function fillCell(cell, data, column) {
        const value = data[column.key];
        setText(cell.text, cellText(value, column));
        if (column.kind === "text") setAttribute(cell.element, "title", String(value));
        const isZero = column.kind === "number" && !(value > 0);
        cell.element.classList.toggle("zero", isZero);
        if (column.alert) cell.element.classList.toggle(column.alert, !isZero);
        const share = column === state.sort && state.largest > 0 ? (value ?? 0) / state.largest : 0;
        const width = `${(share * 100).toFixed(1)}%`;
        if (cell.bar.style.width !== width) cell.bar.style.width = width;
    }

    function fillSums() {
        while (sumRows.length < state.sums.length) sumRows.push(makeSumRow(sumRows.length));
        while (sumRows.length > state.sums.length) sumRows.pop().remove();
        state.sums.forEach((sums, row) =>
            columns.forEach((column, i) => {
                const value = sums[column.key];
                const text =
                    i === 0 ? sums.title : value === undefined ? "" : cellText(value, column);
                setText(sumRows[row].cells[i], text);
            }),
        );
    }

    function makeSumRow(at) {
        const row = element(
            "tr",
            { class: "sums", "aria-rowindex": at + 2 },
            ...columns.map((column) => element("td", { class: `kind-${column.kind}` })),
        );
        layOutCells([...row.cells]);
        table.tHead.append(row);
        return row;
    }

    function moveTo(at) {
        if (state.order.length === 0) return;
        state.current = Math.min(Math.max(at, 0), state.order.length - 1);
        state.currentRow = state.rows[state.order[state.current]];
        const height = rowHeight();
        const top = state.current * height;
        const room = box.clientHeight - headHeight() - height;
        if (top < box.scrollTop) box.scrollTop = top;
        if (top > box.scrollTop + room) box.scrollTop = top - room;
        draw();
    }

    function open(row) {
        const at = state.order.findIndex((index) => isSameRow(state.rows[index], row));
        if (at >= 0) moveTo(at);
        if (onOpen !== null) onOpen(row);
    }

    function onKey(event) {
        if (event.target !== table || event.altKey || event.ctrlKey || event.metaKey) return;
        const page = Math.max(1, Math.floor((box.clientHeight - headHeight()) / rowHeight()) - 1);
        const moves = {
            ArrowDown: 1,
            ArrowUp: -1,
            PageDown: page,
            PageUp: -page,
            Home: -Infinity,
            End: Infinity,
        };
        if (event.key in moves) {
            moveTo(state.current + moves[event.key]);
        } else if (event.key === "Enter" || event.key === " ") {
            if (state.currentRow !== null && state.current >= 0) open(state.currentRow);
        } else if (event.key === "ArrowLeft" || event.key === "ArrowRight") {
            box.scrollLeft += event.key === "ArrowLeft" ? -60 : 60;
        } else {
            return;
        }
        event.preventDefault();
    }

    function onFocus() {
        if (state.current < 0 && table.matches(":focus-visible")) moveTo(0);
    }

    // The row that was pressed is the one to open: an interval may end before the button is released.
    let pressed = null;
    const rowAt = (event) => drawn.find(({ element: tr }) => tr.contains(event.target)) ?? null;
    body.addEventListener("pointerdown", (event) => {
        const row = rowAt(event);
        pressed = row && { row, data: row.data };
    });
    body.addEventListener("click", (event) => {
        const row = rowAt(event);
        if (row !== null) open(row === pressed?.row ? pressed.data : row.data);
        pressed = null;
    });

    table.classList.toggle("opens", onOpen !== null);
    setRows([]);

    // `sums` are rows that stay in sight above all others, each with a `title`. `scale` turns counts
    // into what is shown of them. `isNew` is for rows that the reader asked for, as by a filter, and not
    // for those of the next interval: their order doesn't hold.
    function setRows(rows, sums = [], scale = 1, isNew = false) {
        const before =
            state.isHeld && !isNew && state.rows.length > 0
                ? Array.from(state.order, (index) => rowKey(state.rows[index]))
                : null;
        Object.assign(state, { rows, sums, scale });
        if (before === null) order();
        else keepOrder(before);
        redraw();
    }

    return {
        element: box,
        columns,
        setRows,
        setEmptyText: (text) => setText(empty, text),
        // The row whose details are open, or null.
        setOpenRow: (row) => {
            state.openRow = row;
            draw();
        },
        focus: () => table.focus(),
        sort: () => ({ key: state.sort?.key ?? null, descending: state.descending }),
        setSort: (key, descending) => {
            const column = columns.find((candidate) => candidate.key === key);
            if (column === undefined) return;
            Object.assign(state, { sort: column, descending });
            order();
            redraw();
        },
        // {key: shown or not} of columns that the reader chose about.
        choices: () => state.choices,
        setChoices: (choices) => {
            state.choices = choices;
            redraw();
        },
        isShown: (key) => state.layout === null || state.layout.shown.has(key),
        // All rows in their order, and the columns that are shown of them.
        content: () => ({
            columns: columns.filter(({ key }) => state.layout === null || state.layout.shown.has(key)),
            rows: Array.from(state.order, (index) => state.rows[index]),
            scale: state.scale,
        }),
    };
}

function makeHeading(column, onClick) {
    const button = element(
        "button",
        { type: "button", title: column.help, click: onClick },
        column.heading ?? column.label,
    );
    const kind = `kind-${column.kind}`;
    return element("th", { scope: "col", class: kind, "aria-sort": "none" }, button);
}

function makeRow(columns) {
    const cells = columns.map((column) => {
        const bar = element("span", { class: "bar", "aria-hidden": "true" });
        const text = element("span", { class: "text" });
        return {
            element: element("td", { role: "gridcell", class: `kind-${column.kind}` }, bar, text),
            bar,
            text,
        };
    });
    const tr = element("tr", {}, ...cells.map((cell) => cell.element));
    return { element: tr, cells, at: -1, data: null };
}

// One cell only: one that spanned all columns would bring back those that a narrow table leaves out.
function makeSpace() {
    return element("tr", { class: "space", "aria-hidden": "true" }, element("td"));
}

function setHeight(space, height) {
    const text = `${height}px`;
    if (space.style.height !== text) space.style.height = text;
}
