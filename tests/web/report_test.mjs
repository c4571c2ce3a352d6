// report_test.mjs: the report of a sample in a browser, opened from disk, and with other data in it.
// PELMO_WATCH is the program.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath, pathToFileURL } from "node:url";
import test, { after, before } from "node:test";
import {
    count, haveInk, isUnbroken, launch, looksTest, openPage, pageTest, picture, readsWell, rowTexts, showsTrouble,
} from "./browser.mjs";
import { tables } from "../../watch/web/shared/tables.js";

const sample = fileURLToPath(new URL("../../samples/bus.pcap", import.meta.url));
const kData = /(<script type="application\/json"[^>]*>)(.*?)(?=<\/script>)/s;

let browser;
let folder;
let whole; // the page of the sample, as the program makes it
let data;
before(async () => {
    browser = await launch();
    folder = mkdtempSync(join(tmpdir(), "report"));
    const file = join(folder, "sample.html");
    execFileSync(process.env.PELMO_WATCH, ["report", "-r", sample, "-o", file]);
    whole = readFileSync(file, "utf8");
    data = JSON.parse(whole.match(kData)[2]);
});
after(async () => {
    await browser.close();
    rmSync(folder, { recursive: true });
});

function open(content, options) {
    const file = join(folder, "report.html");
    const json = JSON.stringify(content).replaceAll("<", "\\u003c");
    writeFileSync(file, whole.replace(kData, (all, head) => head + json));
    return openPage(browser, pathToFileURL(file).href, options);
}

pageTest("the page shows what the data holds", () => open(data), async ({ page, table }) => {
    await haveInk(page.locator("canvas"), 1000);
    const facts = await page.locator("#facts > div").evaluateAll((list) =>
        list.map(({ children }) => [children[0].textContent, children[1].firstChild.textContent]));
    assert.equal(Object.fromEntries(facts).Messages, count(data.totals.subjects.messages));
    assert.equal(Object.fromEntries(facts).Subjects, count(data.tables.subjects.rows.length));
    const faults = (await rowTexts(page.locator("#faults"))).map((row) => row.slice(0, 3).join());
    const [first] = Object.values(data.faults);
    const time = first.first_time.slice(11, 19);
    assert.ok(faults.includes([first.words, count(first.packets), time].join()));

    for (const [tab, { rows }] of Object.entries(data.tables)) {
        await page.click(`#tab-${tab}`);
        const shown = await table.locator("table").getAttribute("aria-rowcount");
        // Hosts of both ways have a line of each that isn't all zero, and two sums.
        const ways = rows.map((row) => ["_sent", "_received"].filter((way) =>
            Object.entries(row).some(([key, value]) => key.endsWith(way) && value > 0)).length);
        const lines = ways.reduce((sum, count) => sum + Math.max(count, 1), 0);
        const sums = tab === "retransmission" || tab === "point_to_point" ? 2 : 1;
        assert.equal(shown, String(lines + sums + 1));
    }
    await page.click("#tab-groups");
    const sums = await table.locator(".sums td").allTextContents();
    const totals = data.totals.multicast;
    assert.deepEqual(sums.slice(5, 7), [count(totals.data_packets), count(totals.payload_bytes)]);
    await table.getByRole("columnheader", { name: "Gaps" }).getByRole("button").click();
    const gaps = (await rowTexts(table)).map((row) => Number(row[10]));
    const wanted = data.tables.groups.rows.map((row) => row.missed_packets);
    assert.deepEqual(gaps, wanted.sort((a, b) => b - a));
});

test("a subject leads to its senders, and a sender to its subjects", async () => {
    const pairs = [["A.B", "10.0.0.1"], ["A.B", "10.0.0.2"], ["C", "10.0.0.2"]];
    const rows = pairs.map(([subject, sender]) => (
        { port: 7500, group: "239.0.0.1", subject, sender, scid: null, messages: 1, message_bytes: 9 }));
    const row = (more) => ({ ...data.tables.senders.rows[0], ...rows[0], ...more });
    const table = (list) => ({ row_count: list.length, sums: {}, rows: list });
    const { page, table: shown, close } = await open({ ...data, tables: {
        ...data.tables, subjects: table([row({ subject: "A.B" })]), senders: table([row({ sender: "10.0.0.2", subject: undefined })]),
        subject_senders: table(rows) } });
    for (const [tab, wanted] of [["subjects", ["10.0.0.1", "10.0.0.2"]], ["senders", ["10.0.0.2", "10.0.0.2"]]]) {
        await page.click(`#tab-${tab}`);
        await page.fill("#filter", "");
        await shown.locator("tbody tr[aria-selected]").first().click();
        assert.deepEqual((await rowTexts(shown)).map((cells) => cells[1]).sort(), wanted);
    }
    await close();
});

function compared() {
    const side = (messages, bytes) => ({ messages, message_bytes: bytes, messages_per_second: messages,
        message_bytes_per_second: bytes });
    const place = { port: 7500, group: "239.0.0.1" };
    const capture = (files, elapsed_seconds) => ({ files, begin_time: "2023-11-14T22:13:20.000000000Z", elapsed_seconds });
    return { factor: 1.25, is_whole: false, before: { ...capture("old/before.pcap", 60), ...side(10, 900) },
        now: { ...capture("now.pcap", 2), ...side(20, 1200) }, changes: {},
        subjects: [{ ...place, subject: "<b>.X", change: "grew", before: side(10, 100), now: side(20, 1000) },
            { ...place, subject: "OLD", change: "went", before: side(1, 800), now: null },
            { ...place, subject: "SAME", change: "same", before: side(1, 2), now: side(1, 2) }],
        senders: [{ sender: "10.0.0.1", scid: 17, change: "came", before: null, now: side(20, 200) }], groups: [] };
}

const openCompared = (options) => open({ ...data, comparison: compared() }, options);

pageTest("a comparison shows what changed, in a table and in bars", openCompared, async ({ page, table }) => {
    await page.click("#tab-comparison");
    const changes = async () => (await rowTexts(table)).map((row) => `${row[0]} ${row[2]} ${row.at(-1)}`);
    assert.deepEqual(await changes(), ["<b>.X grew 900", "OLD went 800", "10.0.0.1 :17 came 200"]);
    const widths = await page.locator(".compared li").evaluateAll((list) =>
        list.map((item) => [...item.querySelectorAll(".bar")].map((bar) => bar.style.width)));
    assert.deepEqual(widths, [["10%", "100%"], ["80%", "0%"], ["0%", "20%"]]);
    const sides = await page.locator(".compared strong").allTextContents();
    assert.deepEqual(sides, ["Before: before.pcap from 2023-11-14 22:13:20, 1 min", "Now: now.pcap from 2023-11-14 22:13:20, 2.0 s"]);
    assert.deepEqual((await table.locator(".sums td").allTextContents()).slice(2, 4), ["grew", "10"]);
    assert.match(await page.locator("#notice").textContent(), /more than the tables hold/);
    await page.fill("#filter", "came");
    assert.deepEqual(await changes(), ["10.0.0.1 :17 came 200"]);
    await page.click("#tab-subjects");
    assert.ok(!(await page.locator(".compared").isVisible()));
});

pageTest("a capture of nothing has no time and no charts", () => open({ ...data, capture: { ...data.capture, frames: 0 } }), async ({ page }) => {
    assert.equal(await page.locator("#span").textContent(), "No frames.");
    assert.ok(!(await page.locator("#timeline").isVisible()));
});

pageTest("charts show exact values, and zoom together", () => open(data), async ({ page }) => {
    const { times, series } = data.timeline;
    const chartOf = (title) => {
        const has = page.locator("strong", { hasText: new RegExp(`^${title}$`) });
        return page.locator(".chart").filter({ has });
    };
    const shows = async (title, number) => {
        assert.equal((await chartOf(title).locator(".value").allTextContents())[0], count(number));
    };
    const chart = chartOf("Messages");
    await shows("Messages", data.totals.subjects.messages);
    await chart.locator(".plot").focus();
    await page.keyboard.press("Home");
    for (let i = 0; i < 3; ++i) await page.keyboard.press("ArrowRight");
    await shows("Messages", series.subjects.messages[2]);
    await shows("Gaps", series.multicast.missed_packets[2]);
    const when = new Date(times[2] * 1000).toISOString().slice(0, 19).replace("T", " ");
    assert.equal(await chart.locator(".when").textContent(), when);

    const over = await chart.locator(".u-over").boundingBox();
    const y = over.y + over.height / 2;
    await page.mouse.move(over.x + over.width * 0.3, y);
    await page.mouse.down();
    await page.mouse.move(over.x + over.width * 0.7, y, { steps: 4 });
    await page.mouse.up();
    await page.mouse.move(5, 5);
    const begin = times[0] - 1;
    const partOf = (time) => (time - begin) / (times.at(-1) - begin);
    const inSight = (time) => partOf(time) >= 0.3 && partOf(time) <= 0.7;
    const gaps = series.multicast.missed_packets.filter((_, i) => inSight(times[i]));
    await shows("Gaps", gaps.reduce((sum, number) => sum + number, 0));
    await page.click("#all");
    await shows("Gaps", data.totals.multicast.missed_packets);
    await chart.locator(".plot").focus();
    await page.keyboard.press("+");
    assert.ok(await page.locator("#all").isVisible());
    await page.keyboard.press("0");
    assert.ok(await page.locator("#all").isHidden());
});

test("a large report opens, and markup stays text", async () => {
    const hostile =
        "</script><script>window.broken = 1</script><img src=x onerror='window.broken = 1'>";
    const rows = Array.from({ length: 1000 }, (_, i) => ({
        port: 7500, group: "239.255.0.1", subject: i === 0 ? hostile : `CROWD.S${i}`,
        messages: 1000 - i, message_bytes: 100000 - i,
    }));
    const sums = { messages: 9000000, message_bytes: 900000000 };
    const { page, table, close } = await open({
        ...data,
        capture: { ...data.capture, files: [hostile], filter: hostile, is_whole: false },
        tables: { ...data.tables, subjects: { row_count: 200000, sums, rows } },
    });
    await table.locator("tbody tr:not(.space)").first().waitFor();
    assert.equal((await rowTexts(table))[0][0], hostile);
    const listed = rows.reduce((sum, row) => sum + row.messages, 0);
    const sumTexts = await table.locator(".sums").evaluateAll((list) =>
        list.map(({ cells }) => [cells[0].textContent, cells[3].textContent]));
    const others = ["199,000 others", count(9000000 - listed)];
    assert.deepEqual(sumTexts, [["Totals", "9,000,000"], others]);
    assert.ok(await page.locator("#notice").isVisible());
    await isUnbroken(page, 2);
    await close();
});

// With large numbers, and as many tabs as there can be.
function openLarge() {
    const large = (row) => Object.fromEntries(Object.entries(row).map(([key, value]) =>
        [key, typeof value === "number" && key !== "scid" ? 12347 * value : value]));
    const { senders: { row_count, sums, rows }, subjects } = data.tables;
    const senders = { row_count, sums: large(sums), rows: rows.map(large) };
    return open({ ...data, comparison: compared(), tables: { ...data.tables, subject_senders: subjects, senders } });
}

pageTest("columns of trouble are in sight at every width, and nothing is cut", openLarge, async ({ page, table }) => {
    const senders = tables.multicast.hostColumns.filter(({ isState }) => !isState);
    const [senderPlace, numbers] = [senders.slice(0, 2), senders.slice(2)];
    const messages = [{ key: "messages" }, { key: "message_bytes" }];
    for (const width of [768, 1024, 1366, 1920]) {
        await page.setViewportSize({ width, height: 800 });
        assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
        await page.click("#tab-senders");
        const sums = Object.entries(data.tables.senders.sums).map(([key, sum]) => [key, 12347 * sum]);
        await showsTrouble(table, [...senderPlace, ...messages, ...numbers], Object.fromEntries(sums));
        await readsWell(page.locator("#faults .table"));
        for (const name of ["senders", "groups", "retransmission", "point_to_point", "comparison"]) {
            await page.click(`#tab-${name}`);
            await readsWell(table);
        }
    }
});

pageTest("on paper there are all tables to a bound, and light colours", () => openCompared({ colorScheme: "dark" }), async ({ page }) => {
    await page.emulateMedia({ media: "print", colorScheme: "dark" });
    await page.evaluate(() => dispatchEvent(new Event("beforeprint")));
    const sections = await page.locator("#printed section").evaluateAll((list) =>
        list.map((section) => section.querySelectorAll("tbody tr:not(.sums)").length));
    assert.equal(sections.length, 1 + Object.values(data.tables).filter(({ rows }) => rows.length > 0).length);
    assert.equal(await page.locator("#printed .compared li:visible").count(), 3);
    assert.ok(sections.every((rows) => rows > 0 && rows <= 50), String(sections));
    assert.ok(await page.locator("#tables").isHidden());
    const ink = await page.evaluate(() => getComputedStyle(document.body).color.match(/\d+/)[0]);
    assert.ok(ink < 128);
    await picture(page, "report-print");
    await page.evaluate(() => dispatchEvent(new Event("afterprint")));
    assert.equal(await page.locator("#printed section").count(), 0);
});

looksTest("report", (options) => open(data, options));
