// A table that sorts by a click on a heading and draws only the rows that are in sight, so that it
// bears hundreds of thousands.
//
//     Tab to the table: arrows, Page Up and Down, Home and End move the current row, Enter opens it.
//
// The focus is on the table itself, and the current row is told by aria-activedescendant: rows are
// drawn anew all the time, and a focus on one of them would get lost.

import { element, setAttribute, setText } from "./dom.js";
import { formatNarrow, formatNumber } from "./format.js";
import { sortedIndices, sortsDescendingFirst } from "./sort.js";

// Rows that are drawn above and below what is in sight, so that a short scroll shows no blank.
const kSpareRows = 8;

// Below it large numbers are shortened, as base.css leaves columns out.
const kNarrowPixels = 480;

let tablesMade = 0;

// Do two rows, perhaps of different snapshots, stand for the same thing?
export function isSameRow(a, b) {
    return (
        a !== null &&
        b !== null &&
        a.port === b.port &&
        a.group === b.group &&
        a.subject === b.subject &&
        a.address === b.address &&
        a.scid === b.scid &&
        a.key === b.key
    );
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

function columnClass(column) {
    const marks = ["minor", "spare", "wide", "isFirst", "isSecond", "isEdge"].filter(
        (mark) => column[mark],
    );
    return [`kind-${column.kind}`, ...marks].join(" ");
}

// The last column of a narrow table is the last one that it doesn't leave out.
function withEdge(columns) {
    const edge = columns.findLastIndex((column) => !column.minor);
    return columns.map((column, i) => (i === edge ? { ...column, isEdge: true } : column));
}

// options: label, columns, sortBy (a column's key), onOpen(row) or null, emptyText.
export function makeTable(options) {
    const { onOpen = null } = options;
    const columns = withEdge(options.columns);
    const id = `table${++tablesMade}`;
    const state = {
        rows: [],
        order: new Uint32Array(0),
        sums: [],
        scale: 1,
        largest: 0,
        isNarrow: false,
        sort: columns.find((column) => column.key === options.sortBy) ?? null,
        descending: true,
        current: -1,
        currentRow: null,
        openRow: null,
    };
    state.descending = state.sort !== null && sortsDescendingFirst(state.sort);

    const headings = columns.map((column) => makeHeading(column, () => sortBy(column)));
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
        element(
            "colgroup",
            {},
            ...columns.map((column) => element("col", { class: columnClass(column) })),
        ),
        element("thead", {}, element("tr", { "aria-rowindex": "1" }, ...headings)),
        body,
    );
    const sumRows = [];
    const empty = element("p", { class: "empty" });
    const box = element("div", { class: "table", scroll: draw }, table, empty);
    const above = makeSpace();
    const below = makeSpace();
    const drawn = [];
    new ResizeObserver(redraw).observe(box);

    // Sums first: they are part of the headings' height.
    function redraw() {
        state.isNarrow = box.clientWidth < kNarrowPixels;
        fillSums();
        draw();
    }

    function sortBy(column) {
        state.descending = state.sort === column ? !state.descending : sortsDescendingFirst(column);
        state.sort = column;
        order();
        box.scrollTop = 0;
        draw();
    }

    function order() {
        state.order = sortedIndices(state.rows, state.sort, state.descending);
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
        while (drawn.length < shown) drawn.push(makeRow(columns));
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
        setAttribute(tr, "aria-rowindex", at + 2 + state.sums.length);
        tr.classList.toggle("current", at === state.current);
        if (onOpen !== null)
            setAttribute(tr, "aria-selected", String(isSameRow(data, state.openRow)));
        columns.forEach((column, i) => fillCell(row.cells[i], data, column));
    }

    function cellText(value, column) {
        if (column.kind === "number")
            return (state.isNarrow ? formatNarrow : formatNumber)(scaled(value, column));
        return value === null || value === undefined ? "–" : String(value);
    }

    function scaled(value, column) {
        return value === null || value === undefined || column.isState || column.key === "hostCount"
            ? value
            : value * state.scale;
    }

    function fillCell(cell, data, column) {
        const value = data[column.key];
        setText(cell.text, cellText(value, column));
        if (column.kind === "text") setAttribute(cell.element, "title", String(value));
        const isZero = column.kind === "number" && !(value > 0);
        cell.element.className =
            columnClass(column) + (isZero ? " zero" : column.alert ? ` ${column.alert}` : "");
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
            ...columns.map((column) => element("td", { class: columnClass(column) })),
        );
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

    function open(at) {
        if (at < 0 || at >= state.order.length) return;
        moveTo(at);
        if (onOpen !== null) onOpen(state.currentRow);
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
            open(state.current);
        } else {
            return;
        }
        event.preventDefault();
    }

    function onFocus() {
        if (state.current < 0 && table.matches(":focus-visible")) moveTo(0);
    }

    body.addEventListener("click", (event) => {
        const row = drawn.find((candidate) => candidate.element.contains(event.target));
        if (row) open(row.at);
    });

    table.classList.toggle("opens", onOpen !== null);
    setRows([]);

    // `sums` are rows that stay in sight above all others, each with a `title`. `scale` turns counts
    // into what is shown of them.
    function setRows(rows, sums = [], scale = 1) {
        Object.assign(state, { rows, sums, scale });
        order();
        redraw();
    }

    return {
        element: box,
        setRows,
        setEmptyText: (text) => setText(empty, text),
        // The row whose details are open, or null.
        setOpenRow: (row) => {
            state.openRow = row;
            draw();
        },
        focus: () => table.focus(),
        sort: () => ({ key: state.sort?.key ?? null, descending: state.descending }),
    };
}

function makeHeading(column, onClick) {
    const button = element(
        "button",
        { type: "button", title: column.help, click: onClick },
        column.label,
        column.suffix ? element("span", { class: "minor" }, ` ${column.suffix}`) : null,
    );
    return element("th", { scope: "col", class: columnClass(column), "aria-sort": "none" }, button);
}

function makeRow(columns) {
    const cells = columns.map((column) => {
        const bar = element("span", { class: "bar", "aria-hidden": "true" });
        const text = element("span", { class: "text" });
        return {
            element: element("td", { role: "gridcell", class: columnClass(column) }, bar, text),
            bar,
            text,
        };
    });
    return { element: element("tr", {}, ...cells.map((cell) => cell.element)), cells, at: -1 };
}

// One cell only: one that spanned all columns would bring back those that a narrow table leaves out.
function makeSpace() {
    return element("tr", { class: "space", "aria-hidden": "true" }, element("td"));
}

function setHeight(space, height) {
    const text = `${height}px`;
    if (space.style.height !== text) space.style.height = text;
}
