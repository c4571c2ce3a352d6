// Which columns a table of some width shows, and how wide. Widths are in em.
//
// Numbers give way before names: they are shortened first. What then still doesn't fit goes by the
// columns' `drop`, the highest first. A column without it, which those of trouble are, always shows, and
// so does one that the reader chose or that sorts the rows: then names are cut, and at last the table
// scrolls.

const kFull = { port: 5.4, address: 10.4, number: 6.8, wide: 9.4, time: 13, clock: 7.4, way: 4.4, text: 16 };
const kCompact = { port: 4.3, address: 9.1, number: 4.6, wide: 4.6, time: 12, clock: 5.8, way: 2.9, text: 10 };
// Where even the columns that always show don't fit, names are cut.
const kLeast = { ...kCompact, port: 3.6, address: 6.6, text: 7 };
// The first column and the last have more room, at the table's edges.
const kEdge = 0.65;

function widthOf(column, widths) {
    if (column.fixed !== undefined) return column.fixed;
    const width = widths[column.wide && column.kind === "number" ? "wide" : column.kind];
    return Math.max(width, column.least ?? 0);
}

function sumOf(columns, widths) {
    return columns.reduce((sum, column) => sum + widthOf(column, widths), 2 * kEdge);
}

// `choices` are {key: shown or not} of the columns that the reader chose about, `sortKey` that of the
// column that sorts. Answers {isCompact, shown: keys, widths: em by key, least: em of all together}.
export function layoutColumns(columns, choices, sortKey, available) {
    let shown = columns.filter(({ key }) => choices[key] !== false);
    const isCompact = sumOf(shown, kFull) > available;
    let widths = isCompact ? kCompact : kFull;
    while (sumOf(shown, widths) > available) {
        const goes = shown
            .filter(({ key, drop }) => drop !== undefined && !choices[key] && key !== sortKey)
            .sort((a, b) => b.drop - a.drop)[0];
        if (goes === undefined) break;
        shown = shown.filter((column) => column !== goes);
    }
    if (sumOf(shown, widths) > available) widths = kLeast;
    return {
        isCompact,
        shown: new Set(shown.map(({ key }) => key)),
        widths: Object.fromEntries(
            shown.map((column, i) => {
                const edges = (i === 0) + (i === shown.length - 1);
                return [column.key, widthOf(column, widths) + edges * kEdge];
            }),
        ),
        least: sumOf(shown, widths),
    };
}
