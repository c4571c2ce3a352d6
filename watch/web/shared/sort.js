// The order of rows, as indices: rows stay where they are, and equal ones keep their order.

import { addressNumber } from "./filter.js";

function sortKey(row, column) {
    const value = row[column.key];
    if (column.kind === "text") return value ?? "";
    return column.kind === "address" ? addressNumber(value) : (value ?? NaN);
}

// What has no value comes last, whichever way the order runs.
function compareNumbers(a, b, sign) {
    if (Number.isNaN(a)) return Number.isNaN(b) ? 0 : 1;
    if (Number.isNaN(b)) return -1;
    return sign * (a - b);
}

function compareTexts(a, b, sign) {
    if (a === b) return 0;
    return a < b ? -sign : sign;
}

export function sortedIndices(rows, column, descending) {
    const indices = Uint32Array.from(rows, (row, i) => i);
    if (!column) return indices;
    const sign = descending ? -1 : 1;
    const isText = column.kind === "text";
    const compare = isText ? compareTexts : compareNumbers;
    const keys = rows.map((row) => sortKey(row, column));
    return indices.sort((a, b) => compare(keys[a], keys[b], sign) || a - b);
}

// Names read well from the start, numbers from the largest.
export function sortsDescendingFirst(column) {
    return column.kind === "number";
}
