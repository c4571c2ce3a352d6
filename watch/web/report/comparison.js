// The tab that compares the capture with an earlier one: what came, went, grew and shrank. Its rows are of
// subjects, senders and groups alike, so they aren't added up.

import { element } from "../shared/dom.js";
import { formatDateTime, formatNumber, formatSpan } from "../shared/format.js";

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
        { key: "kind", label: "Of", kind: "text", fixed: 5.6, drop: 1, help: "A subject, a sender or a group" },
        { key: "change", label: "Change", kind: "text", fixed: 6.6, help: "Came, went, grew, shrank, or the same" },
        rate("messages_before", "Msgs before", "Messages of the earlier capture", {
            wide: true,
            drop: 2,
        }),
        rate("messages_now", "Msgs now", "Messages of this capture", { wide: true, drop: 2 }),
        rate("bytes_before", "Bytes before", "Bytes of the earlier capture", {
            wide: true,
            drop: 1,
        }),
        rate("bytes_now", "Bytes now", "Bytes of this capture", { wide: true, drop: 1 }),
        rate("difference", "Difference", "By how many bytes the two differ", { wide: true, least: 6.6 }),
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
    const sums = numbers(comparison);
    const change = sums.bytes_now < sums.bytes_before ? "shrank" : "grew";
    return { row_count: rows.length, sums: { ...sums, change: sums.difference > 0 ? change : "same" }, rows };
}

function bar(side, value, most) {
    const drawn = element("span", { class: `bar ${side}`, "aria-hidden": "true" });
    drawn.style.width = `${((value / most) * 100).toFixed(1)}%`;
    return element("span", { class: "side" }, drawn, ` ${formatNumber(value)}`);
}

// The largest differences as pairs of bars, bytes a second before and now.
export function fillComparisonBars(box, rows) {
    const shown = [...rows].sort((a, b) => b.difference - a.difference).slice(0, kMostBars);
    const most = Math.max(...shown.map((row) => Math.max(row.bytes_before, row.bytes_now)), 1);
    box.querySelector("ol").replaceChildren(
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

function sideName(title, { files, begin_time: time, elapsed_seconds: seconds }) {
    const name = files.split("/").at(-1);
    const begin = formatDateTime(Date.parse(time));
    return element("strong", {}, `${title}: ${name} from ${begin}, ${formatSpan(seconds)}`);
}

// Without a comparison there is nothing to show in it.
export function makeComparisonBars(comparison) {
    const title = "The largest differences, in bytes a second";
    const sides =
        comparison === undefined
            ? []
            : [sideName("Before", comparison.before), sideName("Now", comparison.now)];
    return element(
        "div",
        { class: "compared" },
        element("p", {}, element("span", { class: "title" }, title), ...sides),
        element("ol", { "aria-label": title }),
    );
}
