// report_test.mjs: the report of a sample in a browser, opened from disk, and with other data in it.
// PELMO_WATCH is the program.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { fileURLToPath, pathToFileURL } from "node:url";
import test, { after, before } from "node:test";
import { inkOf, launch, openPage, picture, rowTexts } from "./browser.mjs";

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

async function open(content, options) {
    const file = join(folder, "report.html");
    const json = JSON.stringify(content).replaceAll("<", "\\u003c");
    writeFileSync(
        file,
        whole.replace(kData, (all, head) => head + json),
    );
    const opened = await openPage(browser, pathToFileURL(file).href, options);
    return { ...opened, table: opened.page.locator("#tables > .table:not([hidden])") };
}

async function close({ faults, close: closePage }) {
    await closePage();
    assert.deepEqual(faults, []);
}

const count = (number) => number.toLocaleString("en-US");
const chartOf = (page, title) =>
    page
        .locator(".chart")
        .filter({ has: page.locator("strong", { hasText: new RegExp(`^${title}$`) }) });

test("the page tells what the data holds", async () => {
    const opened = await open(data);
    const { page, table } = opened;
    for (const canvas of await page.locator("canvas").all())
        assert.ok((await inkOf(canvas)) > 1000);
    const facts = Object.fromEntries(
        await page
            .locator("#facts > div")
            .evaluateAll((list) =>
                list.map((fact) => [
                    fact.children[0].textContent,
                    fact.children[1].firstChild.textContent,
                ]),
            ),
    );
    assert.equal(facts.Messages, count(data.totals.subjects.messages));
    assert.equal(facts.Subjects, count(data.tables.subjects.rows.length));
    const faults = await rowTexts(page.locator("#faults"));
    const [first] = Object.values(data.faults);
    assert.ok(
        faults.some(
            (row) =>
                row[0] === first.words &&
                row[1] === count(first.packets) &&
                row[2] === first.first_time.slice(11, 19),
        ),
    );

    for (const [tab, rows] of Object.entries(data.tables)) {
        await page.click(`#tab-${tab}`);
        assert.equal(
            await table.locator("table").getAttribute("aria-rowcount"),
            String(rows.rows.length + 2),
        );
    }
    await page.click("#tab-groups");
    const sums = await table.locator(".sums td").allTextContents();
    assert.deepEqual(sums.slice(5, 7), [
        count(data.totals.multicast.data_packets),
        count(data.totals.multicast.payload_bytes),
    ]);
    await table.getByRole("columnheader", { name: "Gaps" }).getByRole("button").click();
    const gaps = (await rowTexts(table)).map((row) => Number(row[10]));
    assert.deepEqual(
        gaps,
        data.tables.groups.rows.map((row) => row.missed_packets).sort((a, b) => b - a),
    );
    await close(opened);
});

test("a capture of nothing has no time and no charts", async () => {
    const opened = await open({ ...data, capture: { ...data.capture, frames: 0 } });
    assert.equal(await opened.page.locator("#span").textContent(), "No frames.");
    assert.ok(!(await opened.page.locator("#timeline").isVisible()));
    await close(opened);
});

test("charts tell exact values, and zoom together", async () => {
    const opened = await open(data);
    const { page } = opened;
    const { times, series } = data.timeline;
    const chart = chartOf(page, "Messages");
    const caption = async (title) =>
        (await chartOf(page, title).locator(".value").allTextContents())[0];
    assert.equal(await caption("Messages"), count(data.totals.subjects.messages));
    await chart.locator(".plot").focus();
    await page.keyboard.press("Home");
    for (let i = 0; i < 3; ++i) await page.keyboard.press("ArrowRight");
    assert.equal(await caption("Messages"), count(series.subjects.messages[2]));
    assert.equal(await caption("Gaps"), count(series.multicast.missed_packets[2]));
    assert.equal(
        await chart.locator(".when").textContent(),
        new Date(times[2] * 1000).toISOString().slice(0, 19).replace("T", " "),
    );

    const over = await chart.locator(".u-over").boundingBox();
    const y = over.y + over.height / 2;
    await page.mouse.move(over.x + over.width * 0.3, y);
    await page.mouse.down();
    await page.mouse.move(over.x + over.width * 0.7, y, { steps: 4 });
    await page.mouse.up();
    await page.mouse.move(5, 5);
    const [begin, end] = [times[0] - 1, times.at(-1)];
    const inSight = series.multicast.missed_packets.filter(
        (gaps, i) =>
            times[i] >= begin + 0.3 * (end - begin) && times[i] <= begin + 0.7 * (end - begin),
    );
    assert.equal(await caption("Gaps"), count(inSight.reduce((sum, gaps) => sum + gaps, 0)));
    await page.click("#all");
    assert.equal(await caption("Gaps"), count(data.totals.multicast.missed_packets));
    await chart.locator(".plot").focus();
    await page.keyboard.press("+");
    assert.ok(await page.locator("#all").isVisible());
    await page.keyboard.press("0");
    assert.ok(await page.locator("#all").isHidden());
    await close(opened);
});

// 1,000 rows of 200,000, with names that would like to be more than text.
test("a large report opens at once, and markup stays text", async () => {
    const hostile =
        "</script><script>window.broken = 1</script><img src=x onerror='window.broken = 1'>";
    const rows = Array.from({ length: 1000 }, (_, i) => ({
        port: 7500,
        group: "239.255.0.1",
        subject: i === 0 ? hostile : `CROWD.S${i}`,
        messages: 1000 - i,
        message_bytes: 100000 - i,
    }));
    const sums = { messages: 9000000, message_bytes: 900000000 };
    const times = Array.from({ length: 8640 }, (_, i) => 1700000000 + 10 * i);
    const series = Object.fromEntries(
        Object.entries(data.timeline.series).map(([name, columns]) => [
            name,
            Object.fromEntries(
                Object.keys(columns).map((key) => [key, times.map((time, i) => i % 97)]),
            ),
        ]),
    );
    const capture = { ...data.capture, files: [hostile], filter: hostile, is_whole: false };
    const begin = Date.now();
    const opened = await open({
        ...data,
        capture,
        timeline: { interval_seconds: 10, times, series },
        tables: { ...data.tables, subjects: { row_count: 200000, sums, rows } },
    });
    const { page, table } = opened;
    await table.locator("tbody tr:not(.space)").first().waitFor();
    assert.ok(Date.now() - begin < 10000, `${Date.now() - begin} ms`);
    assert.equal((await rowTexts(table))[0][0], hostile);
    const listed = rows.reduce((sum, row) => sum + row.messages, 0);
    const sumTexts = await table
        .locator(".sums")
        .evaluateAll((list) =>
            list.map((row) => [row.cells[0].textContent, row.cells[3].textContent]),
        );
    assert.deepEqual(sumTexts, [
        ["Totals", "9,000,000"],
        ["199,000 others", count(9000000 - listed)],
    ]);
    assert.ok(await page.locator("#notice").isVisible());
    assert.deepEqual(
        await page.evaluate(() => [
            window.broken ?? null,
            document.scripts.length,
            document.images.length,
        ]),
        [null, 2, 0],
    );
    await close(opened);
});

test("light and dark, wide and narrow fit their window", async () => {
    for (const [width, colorScheme] of [
        [1280, "light"],
        [1280, "dark"],
        [400, "light"],
        [400, "dark"],
    ]) {
        const opened = await open(data, { width, colorScheme });
        assert.ok(
            await opened.page.evaluate(() => document.documentElement.scrollWidth <= innerWidth),
        );
        await picture(opened.page, `report-${colorScheme}-${width}`);
        await close(opened);
    }
});
