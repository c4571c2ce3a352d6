// What decides in the pages: filters, orders, numbers as text.

import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import test from "node:test";
import { makeHistory } from "../../watch/web/live/history.js";
import { readLink, writeLink } from "../../watch/web/live/link.js";
import { makeModels } from "../../watch/web/live/model.js";
import { exportForms } from "../../watch/web/shared/export.js";
import { readFilter } from "../../watch/web/shared/filter.js";
import { formatNarrow, formatNumber, formatShort, formatSpan } from "../../watch/web/shared/format.js";
import { blindText, notReadText } from "../../watch/web/shared/not_read.js";
import { layoutColumns } from "../../watch/web/shared/layout.js";
import { fillHoles, joinPoints, ratesOf } from "../../watch/web/shared/reduce.js";
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
    for (const [row, fitting, others] of [
        [subject,
            ["PRICES.>", "PRICES.*.NY", ">", "*.*.*", "prices.*.ny", 'gold "d.n', '!"old silver"', "gold",
                "gold :7501", "gold\t NY "],
            ["PRICES.Gold.NY.>", "PRICES.*", "!PRICES.> ", '"PRICES.*.NY"', "gold silver", "("]],
        [group,
            ["!PRICES.>", "10.0", "10.0.0.1", "10.0.0.", "239.255.0.1", "10.0.0.0/23", "0.0.0.0/0",
                "10.0.1.12/32", ":7500", "20000"],
            ["10.1", "999.1.1.1", "!999.1.1.1", "10.0.0.0/99", "words!=1", ">", "10.0.1.1", "10.0.2.0/23", ":75", "7501"]],
        [{ ...group, gaps: 3, payload_bytes: 250 },
            ["gaps>0 bytes<=2.5k"], ["gaps=3", "payload_bytes>2.5k"]],
    ]) {
        const fits = (text) => readFilter(text, { columns, scale: 10 }).fits(row);
        assert.deepEqual([fitting.filter((text) => !fits(text)), others.filter(fits)], [[], []]);
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
    const rows = [[9, "10.0.0.9"], [null, "9.0.0.1"], [10, "10.0.0.10"], [9, "x"]].map(([n, a]) => ({ n, a }));
    const order = (column, descending) => [...sortedIndices(rows, column, descending)];
    assert.deepEqual(order({ key: "n", kind: "number" }, true), [2, 0, 3, 1]);
    assert.deepEqual(order({ key: "n", kind: "number" }, false), [0, 3, 2, 1]);
    assert.deepEqual(order({ key: "a", kind: "address" }, false), [1, 0, 2, 3]);
    assert.deepEqual(order({ key: "a", kind: "text" }, true), [3, 1, 0, 2]);
    assert.deepEqual(order(null, true), [0, 1, 2, 3]);
});

test("numbers and times read well at every size", () => {
    const asText = (numbers, format) => numbers.map((number) => format(number)).join("; ");
    assert.equal(asText([0, 1234567, 0.04, 12.25, 12345.6, null], formatNumber), "0; 1,234,567; 0.04; 12.3; 12,346; –");
    assert.equal(asText([0, 9999, 10000, 12345678, 9999.5, 999950000], (number) => formatShort(number, "B")),
        "0 B; 9,999 B; 10 kB; 12.35 MB; 10 kB; 1,000 MB");
    assert.equal(asText([99999, 99999.5, 131268131, 999500], formatNarrow), "99,999; 100 k; 131 M; 1 M");
    assert.equal(asText([2, 59.96, 200, 7500, 90000], formatSpan), "2.0 s; 60.0 s; 3 min 20 s; 2 h 5 min; 1 d 1 h");
});

test("the columns are those of the JSON", () => {
    const { $defs } = JSON.parse(readFileSync(new URL("../../docs/pelmowatch.schema.json", import.meta.url)));
    const places = ["port", "group", "sender", "host", "scid", "service_port"];
    for (const name of Object.keys(tables)) {
        const row = name === "subjects" ? "subject_sender" : name;
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

test("numbers are shortened first, then columns go by their rank, and chosen ones stay", () => {
    const { columns: all } = tables.multicast;
    const shownAt = (width, choices = {}, sort = "payload_bytes") => {
        const { isCompact, shown, least } = layoutColumns(all, choices, sort, width);
        const gone = all.filter(({ key }) => !shown.has(key)).map(({ key }) => key);
        return [isCompact, gone.join(), least <= width];
    };
    assert.deepEqual(shownAt(100), [false, "", true]);
    assert.deepEqual(shownAt(60), [true, "", true]);
    assert.deepEqual(shownAt(50), [true, "null_packets", true]);
    assert.deepEqual(shownAt(50, { null_packets: true }), [true, "hostCount", true]);
    assert.deepEqual(shownAt(50, {}, "null_packets"), [true, "hostCount", true]);
    assert.deepEqual(shownAt(100, { missed_packets: false }), [false, "missed_packets", true]);
    assert.deepEqual(shownAt(30), [true, "hostCount,data_packets,null_packets,repeated_bytes", true]);
    assert.equal(shownAt(20)[2], false);
});

test("points are joined, holes are zeros, and each interval has a rate of its own", () => {
    assert.deepEqual(joinPoints([0, 1, 1.5, 4], [6, 2, 4, null], 2), [{ from: 0, to: 2, min: 2, max: 6, mean: 4 }]);
    const even = fillHoles([10, 20, 30.5], [10, 10, 10], [[1, 2, 3]]);
    assert.deepEqual(even.times, [10, 20, 30.5]);
    assert.deepEqual(fillHoles([10, 3600], [10, 10], [[1, 2]]),
        { times: [10, 20, 3590, 3600], columns: [[1, 0, 0, 2]] });
    assert.deepEqual(ratesOf([20, 20, 5], [10, 4, 0]), [2, 5, null]);
});

const snapshotAt = (second, more = {}) => ({
    time: new Date(second * 1000).toISOString(),
    elapsed_seconds: 2,
    bus_packets: second,
    totals: {},
    faults: {},
    ...Object.fromEntries(Object.keys(tables).map((name) => [name, []])),
    ...more,
});

test("a history keeps what came while one was fetched, and begins again where the clock went back", () => {
    const history = makeHistory();
    const add = (...seconds) => seconds.forEach((second) => history.append(snapshotAt(second)));
    add(100, 102, 102, 104);
    history.replace({ interval_seconds: 2, times: [98, 102], elapsed_seconds: [2, 3], series: { bus_packets: [9, 8] } });
    assert.deepEqual(history.times(), [98, 102, 104]);
    assert.deepEqual([history.elapsed(), history.values("bus_packets")], [[2, 3, 2], [9, 8, 104]]);
    add(50, 52);
    assert.deepEqual([history.times(), history.values("none")], [[50, 52], [0, 0]]);
});

test("silent rows are kept for ten minutes, to a number, and come back", () => {
    const modelOf = makeModels({ mostRows: 3 });
    const at = (second, ...names) => {
        const row = (subject) => ({ port: 1, group: "g", subject, messages: 5 });
        const { subjects } = modelOf(snapshotAt(second, { subjects: names.map(row) })).rows;
        return subjects.map(({ subject, messages, silentSince }) =>
            silentSince === undefined ? `${subject}${messages}` : `${subject}${messages} ${silentSince / 1000}`);
    };
    at(100, "a", "b");
    assert.deepEqual(at(102, "b"), ["b5", "a0 100"]);
    assert.deepEqual(at(104, "a"), ["a5", "b0 102"]);
    assert.deepEqual(at(106, "c", "d"), ["c5", "d5", "a0 104"]);
    assert.deepEqual(at(703, "c"), ["c5", "a0 104", "d0 106"]);
    assert.deepEqual(at(705, "c"), ["c5", "d0 106"]);
});

test("tables are copied so that nothing in them is taken for something else", () => {
    const columns = [
        { key: "subject", label: "Subject", kind: "text" },
        { key: "hostCount", label: "Hosts", kind: "number", isState: true },
        { key: "n", label: "Data", kind: "number" },
    ];
    const rows = [{ subject: '=A,"B', hostCount: 2, n: 10 }, { subject: "C", n: null }];
    const content = { columns, rows, scale: 0.5 };
    assert.equal(exportForms.CSV(content), 'subject,hosts,n\r\n"\'=A,""B",2,5\r\nC,,\r\n');
    assert.equal(exportForms.text(content), 'Subject  Hosts  Data\n=A,"B        2     5\nC            –     –\n');
    assert.deepEqual(JSON.parse(exportForms.JSON(content))[0], { subject: '=A,"B', hosts: 2, n: 5 });
});

test("a link says all of a view, and a wrong one nothing", () => {
    const row = { port: 7500, group: "239.0.0.1", subject: "A&B=#<C>" };
    for (const open of [null, { row, host: null }, { row, host: { address: "10.0.0.1", scid: null } }, { totals: true }]) {
        const view = {
            table: "subjects", sort: { key: "messages", descending: true }, filter: '"a b" !c', isRate: true, isUtc: true, open,
        };
        assert.deepEqual(readLink(writeLink(view)), view);
    }
    assert.deepEqual(readLink("#port=-1&sort=&unit=x"), {
        table: null, sort: null, filter: "", isRate: false, isUtc: false, open: null,
    });
});

test("pages share a stream; hidden ones get trouble only; with the last it is closed", async () => {
    let connect;
    const streams = [];
    globalThis.self = { addEventListener: (name, listener) => (connect = listener) };
    globalThis.EventSource = class extends EventTarget {
        constructor() {
            super();
            streams.push(this);
        }
        close() {
            this.isClosed = true;
        }
    };
    await import("../../watch/web/live/worker.js");
    const page = () => {
        const port = Object.assign(new EventTarget(), { got: [], start() {}, postMessage: (message) => port.got.push(message) });
        connect({ ports: [port] });
        const say = (data) => port.dispatchEvent(new MessageEvent("message", { data }));
        return { got: port.got, say };
    };
    const [seen, hidden] = [page(), page()];
    seen.say({ isSeen: true });
    hidden.say({ isSeen: false });
    const totals = { multicast: { missed_packets: 3 }, retransmission: { rejects_sent: 0 } };
    const text = JSON.stringify(snapshotAt(100, { totals, file_bytes: 1 }));
    streams[0].dispatchEvent(new MessageEvent("snapshot", { data: text }));
    assert.deepEqual(seen.got, [{ text }]);
    assert.deepEqual(hidden.got, [{ trouble: { gaps: 3, rejects: 0, faults: 0 } }]);
    hidden.say({ isSeen: true });
    assert.deepEqual(hidden.got.at(-1), { text });
    seen.say({ isGone: true });
    hidden.say({ isGone: true });
    assert.deepEqual(streams.map(({ isClosed }) => isClosed), [true]);
});
