// The tab that compares the capture with an earlier one: what came, went, grew and shrank. Its rows are of
// subjects, senders and groups alike, so they aren't added up.

import { element } from "../shared/dom.js";
import { formatNumber } from "../shared/format.js";

const kKinds = { subjects: "subject", senders: "sender", groups: "group" };
const kMostBars = 12;

function rate(key, label, help, more = {}) {
    return { key, label, help: `${help} a second`, kind: "number", isState: true, ...more };
}

export const comparisonTable = {
    title: "Compared",
    sortBy: "difference",
    columns: [
        { key: "name", label: "Name", kind: "text", help: "Subject, sender, or group and port" },
        { key: "kind", label: "Of", kind: "text", drop: 1, help: "A subject, a sender or a group" },
        { key: "change", label: "Change", kind: "text", help: "Came, went, grew, shrank, or the same" },
        rate("messages_before", "Msgs before", "Messages of the earlier capture", {
            wide: true,
            drop: 2,
        }),
        rate("messages_now", "Msgs now", "Messages of this capture", { drop: 2 }),
        rate("bytes_before", "Bytes before", "Bytes of the earlier capture", {
            wide: true,
            drop: 1,
        }),
        rate("bytes_now", "Bytes now", "Bytes of this capture", { wide: true, drop: 1 }),
        rate("difference", "Difference", "By how many bytes the two differ", { wide: true }),
    ],
};

function numbers({ before, now }) {
    const bytes = [before, now].map((side) => side?.message_bytes_per_second ?? 0);
    return {
        messages_before: before?.messages_per_second ?? 0,
        messages_now: now?.messages_per_second ?? 0,
        bytes_before: bytes[0],
        bytes_now: bytes[1],
        difference: Math.abs(bytes[1] - bytes[0]),
    };
}

function nameOf({ subject, sender, scid, group, port }) {
    if (subject !== undefined) return subject;
    return sender === undefined ? `${group} :${port}` : `${sender}${scid === null ? "" : ` :${scid}`}`;
}

// As a table of the page's data. Without a difference a row has nothing to show.
export function comparisonData(comparison) {
    const rows = Object.entries(kKinds).flatMap(([table, kind]) =>
        comparison[table]
            .filter(({ change }) => change !== "same")
            .map((row) => ({
                ...row,
                ...numbers(row),
                kind,
                name: nameOf(row),
                words: `${kind} ${row.change}`,
            })),
    );
    return { row_count: rows.length, sums: numbers(comparison), rows };
}

function bar(side, value, most) {
    const drawn = element("span", { class: `bar ${side}`, "aria-hidden": "true" });
    drawn.style.width = `${((value / most) * 100).toFixed(1)}%`;
    return element("span", { class: "side" }, drawn, ` ${formatNumber(value)}`);
}

// The largest differences as pairs of bars, bytes a second before and now.
export function fillComparisonBars(list, rows) {
    const shown = [...rows].sort((a, b) => b.difference - a.difference).slice(0, kMostBars);
    const most = Math.max(...shown.map((row) => Math.max(row.bytes_before, row.bytes_now)), 1);
    list.replaceChildren(
        ...shown.map((row) =>
            element(
                "li",
                {},
                element("span", { class: "name", title: row.name }, row.name),
                element("span", { class: `change ${row.change}` }, row.change),
                bar("before", row.bytes_before, most),
                bar("now", row.bytes_now, most),
            ),
        ),
    );
}

export function makeComparisonBars() {
    return element("ol", {
        class: "compared",
        "aria-label": "The largest differences in bytes a second, before and now",
    });
}
