// What decides in the pages: filters, orders, numbers as text.

import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import test from "node:test";
import { readFilter } from "../../watch/web/shared/filter.js";
import {
    formatNarrow,
    formatNumber,
    formatShort,
    formatSpan,
} from "../../watch/web/shared/format.js";
import { blindText, notReadText } from "../../watch/web/shared/not_read.js";
import { sortedIndices } from "../../watch/web/shared/sort.js";
import { tables } from "../../watch/web/shared/tables.js";

const hosts = [
    { address: "10.0.0.1", scid: 20000 },
    { address: "10.0.1.12", scid: null },
];
const group = { port: 7500, group: "239.255.0.1", hosts };
const subject = { port: 7501, group: "239.255.0.2", subject: "PRICES.Gold.NY", hosts: null };

const columns = [
    { key: "gaps", label: "Gaps", kind: "number" },
    { key: "payload_bytes", label: "Bytes", kind: "number" },
];

test("a filter fits what its words say", () => {
    for (const [text, row, fits] of [
        ["PRICES.>", subject, true],
        ["PRICES.Gold.NY.>", subject, false],
        ["PRICES.*.NY", subject, true],
        ["PRICES.*", subject, false],
        [">", subject, true],
        ["*.*.*", subject, true],
        ["prices.*.ny", subject, true],
        ["!PRICES.> ", subject, false],
        ["!PRICES.>", group, true],
        ['"PRICES.*.NY"', subject, false],
        ['gold "d.n', subject, true],
        ['!"old silver"', subject, true],
        ["10.0", group, true],
        ["10.1", group, false],
        ["999.1.1.1", group, false],
        ["!999.1.1.1", group, false],
        ["10.0.0.0/99", group, false],
        ["gaps>0 bytes<=2.5k", { ...group, gaps: 3, payload_bytes: 250 }, true],
        ["gaps=3", { ...group, gaps: 3 }, false],
        ["payload_bytes>2.5k", { ...group, payload_bytes: 250 }, false],
        ["words!=1", group, false],
        ["gold", subject, true],
        ["gold silver", subject, false],
        ["gold :7501", subject, true],
        [">", group, false],
        ["10.0.0.1", group, true],
        ["10.0.0.", group, true],
        ["10.0.1.1", group, false],
        ["239.255.0.1", group, true],
        ["10.0.0.0/23", group, true],
        ["10.0.2.0/23", group, false],
        ["0.0.0.0/0", group, true],
        ["10.0.1.12/32", group, true],
        [":7500", group, true],
        [":75", group, false],
        ["20000", group, true],
        ["7501", group, false],
        ["(", subject, false],
        ["gold\t NY ", subject, true],
    ]) {
        const filter = readFilter(text, { columns, scale: 10 });
        assert.equal(filter.fits(row), fits, `${text} of ${row.subject ?? row.group}`);
    }
    assert.equal(readFilter("  ").fits, null);
});

test("a filter says how it was understood, and what can't be", () => {
    for (const [text, words, error] of [
        ["PRICES.> !10.0.0.0/8", "subjects PRICES.> and not network 10.0.0.0/8", null],
        ["10.0 :7500 gold", "addresses 10.0… and port 7500 and text “gold”", null],
        ["gaps>=1k", "Gaps >= 1k", null],
        ["gold 10.0.0.0/33", "text “gold”", "10.0.0.0/33 is no network"],
        ["10.0.0.300 :70000", "", "10.0.0.300 is no address, :70000 is no port"],
        ["rejects>0", "", "no column rejects here"],
    ]) {
        const filter = readFilter(text, { columns });
        assert.deepEqual([filter.words, filter.error], [words, error]);
    }
});

test("rows sort by value, equal ones keep their order, none comes last", () => {
    const rows = [
        { n: 9, a: "10.0.0.9" },
        { n: null, a: "9.0.0.1" },
        { n: 10, a: "10.0.0.10" },
        { n: 9, a: "x" },
    ];
    const order = (column, descending) => [...sortedIndices(rows, column, descending)];
    assert.deepEqual(order({ key: "n", kind: "number" }, true), [2, 0, 3, 1]);
    assert.deepEqual(order({ key: "n", kind: "number" }, false), [0, 3, 2, 1]);
    assert.deepEqual(order({ key: "a", kind: "address" }, false), [1, 0, 2, 3]);
    assert.deepEqual(order({ key: "a", kind: "text" }, true), [3, 1, 0, 2]);
    assert.deepEqual(order(null, true), [0, 1, 2, 3]);
});

test("numbers and times read well at every size", () => {
    assert.deepEqual([0, 1234567, 0.04, 12.25, 12345.6, null].map(formatNumber), [
        "0",
        "1,234,567",
        "0.04",
        "12.3",
        "12,346",
        "–",
    ]);
    assert.deepEqual(
        [0, 9999, 10000, 12345678, 9999.5, 999950000].map((n) => formatShort(n, "B")),
        ["0 B", "9,999 B", "10 kB", "12.35 MB", "10 kB", "1,000 MB"],
    );
    assert.deepEqual([99999, 1234567].map(formatNarrow), ["99,999", "1,235 k"]);
    assert.deepEqual([2, 59.96, 200, 7500, 90000].map(formatSpan), [
        "2.0 s",
        "60.0 s",
        "3 min 20 s",
        "2 h 5 min",
        "1 d 1 h",
    ]);
});

test("the columns are those of the JSON", () => {
    const { $defs } = JSON.parse(
        readFileSync(new URL("../../docs/pelmowatch.schema.json", import.meta.url)),
    );
    const rows = {
        multicast: "multicast",
        subjects: "subject_sender",
        retransmission: "retransmission",
        point_to_point: "point_to_point",
    };
    const places = ["port", "group", "sender", "host", "scid", "service_port"];
    for (const [name, row] of Object.entries(rows)) {
        const numbers = Object.keys($defs[row].properties).filter((key) => !places.includes(key));
        const { hostColumns, ways } = tables[name];
        const keys = hostColumns.filter(({ kind }) => kind === "number").map(({ key }) => key);
        const bothWays = keys.flatMap((key) => [`${key}_sent`, `${key}_received`]);
        assert.deepEqual((ways === undefined ? keys : bothWays).sort(), numbers.sort(), name);
        if (ways !== undefined) assert.deepEqual([...ways].sort(), keys.sort(), name);
    }
});

test("reasons for what isn't read are the program's", () => {
    const source = readFileSync(new URL("../../watch/capture/peel.cc", import.meta.url), "utf8");
    const rows = [...source.match(/kRows\[\] = \{(.*?)\n\};/s)[1].matchAll(/\{"(\w+)", "([^"]+)"\}/g)].slice(1);
    assert.equal(rows.length, 9);
    for (const [, key, words] of rows) assert.equal(notReadText({ [key]: 2, none: 0 }), `2 ${words}`);
    assert.equal(blindText({ not_ip: 1 }), "The only frame isn't the bus's: 1 not IP.");
    assert.equal(blindText({ not_ip: 1, cut: 2000 }),
        "None of 2,001 frames is the bus's: 1 not IP, 2,000 cut short by the capture.");
    assert.equal(blindText({}) + notReadText(undefined), "");
});
