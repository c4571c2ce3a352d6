// live_test.mjs: the live page in a browser, as `pelmowatch serve` serves it with a sample. What no
// saved capture does comes from a server of the test's own. PELMO_WATCH is the program, PELMO_SITE
// the folder of the built page.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { fileURLToPath } from "node:url";
import test, { after, before } from "node:test";
import { inkOf, launch, openPage, picture, rowTexts } from "./browser.mjs";
import { readWhole, serve } from "./serve.mjs";
import { standServer } from "./stand_server.mjs";

const source = [
    "-r",
    fileURLToPath(new URL("../../samples/bus.pcap", import.meta.url)),
    "-u",
    "2",
    "--senders",
];
const text = execFileSync(process.env.PELMO_WATCH, ["json", ...source], { encoding: "utf8" });
const snapshots = text
    .trim()
    .split("\n")
    .map((line) => JSON.parse(line));

let browser;
let served;
before(async () => {
    browser = await launch();
    served = await serve(...source);
    await readWhole(served.url);
});
after(async () => {
    await browser.close();
    assert.equal(await served.stop(), 0);
});

async function open(options, url = served.url) {
    const opened = await openPage(browser, url, options);
    const table = opened.page.locator("#tables > .table:not([hidden])");
    await opened.page.locator("#time:not(:empty)").waitFor();
    return { ...opened, table };
}

async function close({ faults, close: closePage }) {
    await closePage();
    assert.deepEqual(faults, []);
}

async function openStand(snapshot) {
    const server = await standServer(process.env.PELMO_SITE);
    server.send(snapshot);
    const opened = await open({}, server.url);
    return {
        ...opened,
        server,
        close: async () => {
            await opened.close();
            await server.stop();
        },
    };
}

const count = (number) => number.toLocaleString("en-US");

function sumsByGroup(rows) {
    const sums = new Map();
    for (const row of rows) {
        const key = `${row.port} ${row.group}`;
        const sum = sums.get(key) ?? {
            hosts: 0,
            data_packets: 0,
            payload_bytes: 0,
            null_packets: 0,
            repeated_packets: 0,
            repeated_bytes: 0,
            missed_packets: 0,
            bad_packets: 0,
        };
        for (const name of Object.keys(sum)) sum[name] += name === "hosts" ? 1 : row[name];
        sums.set(key, sum);
    }
    return [...sums].map(([key, sum]) => [...key.split(" "), ...Object.values(sum).map(count)]);
}

test("the page shows what the server tells", async () => {
    const opened = await open();
    const { page, table } = opened;
    const latest = await (await fetch(`${served.url}snapshot.json`)).json();
    assert.deepEqual((await rowTexts(table)).sort(), sumsByGroup(latest.multicast).sort());
    const totals = latest.totals.multicast;
    assert.deepEqual(
        (await table.locator(".sums td").allTextContents()).slice(3),
        Object.values(totals).map(count),
    );
    const tiles = await page
        .locator(".tile")
        .evaluateAll((list) =>
            list.map((tile) =>
                [...tile.querySelectorAll(".label, .value")].map((part) => part.textContent),
            ),
        );
    assert.deepEqual(Object.fromEntries(tiles).Messages, count(latest.totals.subjects.messages));
    assert.deepEqual(Object.fromEntries(tiles).Gaps, count(totals.missed_packets));
    for (const canvas of await page.locator(".tiles canvas").all())
        assert.ok((await inkOf(canvas)) > 50);

    await page
        .locator(".tiles .u-over")
        .nth(5)
        .hover({ position: { x: 1, y: 5 } });
    const first = snapshots[0];
    assert.equal(await page.textContent("#pointed"), `totals at ${first.time.slice(11, 19)}`);
    assert.equal(
        await page.locator(".tile .value").nth(5).textContent(),
        count(first.totals.multicast.missed_packets),
    );

    await page.click("#rate");
    assert.equal(
        (await table.locator(".sums td").allTextContents())[3],
        (totals.data_packets / latest.elapsed_seconds).toFixed(1),
    );
    await page.click("#rate");
    for (const [name, rows] of [
        ["subjects", latest.subjects.length],
        ["faults", Object.keys(latest.faults).length],
    ]) {
        await page.click(`#tab-${name}`);
        assert.equal((await rowTexts(table)).length, rows);
    }
    await close(opened);
});

test("tables sort by a click and keep to a filter", async () => {
    const opened = await open();
    const { page, table } = opened;
    await page.click("#tab-subjects");
    const heading = table.getByRole("columnheader", { name: "Messages" });
    const messages = async () => (await rowTexts(table)).map((row) => Number(row[3]));
    await heading.getByRole("button").click();
    assert.equal(await heading.getAttribute("aria-sort"), "descending");
    const falling = await messages();
    assert.deepEqual(
        falling,
        [...falling].sort((a, b) => b - a),
    );
    await heading.getByRole("button").click();
    assert.equal(await heading.getAttribute("aria-sort"), "ascending");
    assert.deepEqual(await messages(), [...falling].reverse());

    const all = snapshots.at(-1).subjects;
    const [first] = all[0].subject.split(".");
    await page.fill("#filter", `${first}.> :${all[0].port}`);
    const fitting = all.filter(
        (row) => row.port === all[0].port && row.subject.startsWith(`${first}.`),
    );
    assert.deepEqual(
        (await rowTexts(table)).map((row) => row[0]).sort(),
        fitting.map((row) => row.subject).sort(),
    );
    assert.equal(await page.textContent("#fits"), `${fitting.length} of ${all.length}`);
    await page.press("#filter", "Escape");
    assert.equal((await rowTexts(table)).length, all.length);
    await close(opened);
});

test("the keyboard reaches a row, opens it and comes back", async () => {
    const opened = await open();
    const { page, table } = opened;
    const focused = () =>
        page.evaluate(
            () => document.activeElement.getAttribute("role") ?? document.activeElement.tagName,
        );
    await page.focus("#tab-multicast");
    await page.keyboard.press("Tab");
    assert.equal(await focused(), "INPUT");
    await page.keyboard.press("Tab");
    assert.equal(await focused(), "grid");
    await page.keyboard.press("ArrowDown");
    const currentText = () =>
        table
            .locator("tr.current")
            .evaluate((row) => [...row.cells].map((cell) => cell.textContent));
    const current = await currentText();
    assert.deepEqual(current, (await rowTexts(table))[1]);
    const active = await table.locator("table").getAttribute("aria-activedescendant");
    assert.equal(
        await page.locator(`#${active}`).evaluate((row) => row.cells[1].textContent),
        current[1],
    );

    await page.keyboard.press("Enter");
    const panel = page.locator(".panel");
    assert.equal(await panel.locator("h2").textContent(), current[1]);
    const hosts = snapshots
        .at(-1)
        .multicast.filter((row) => row.group === current[1] && String(row.port) === current[0]);
    assert.equal((await rowTexts(panel)).length, hosts.length);
    await page.waitForFunction(() => document.querySelector(".panel .value").textContent !== "–");
    assert.equal(await panel.locator(".value").first().textContent(), `${current[4]} B`);
    for (const canvas of await panel.locator("canvas").all())
        assert.ok((await inkOf(canvas)) > 1000);

    await page.keyboard.press("End");
    await page.keyboard.press("Enter");
    const place = await panel.locator(".place").textContent();
    assert.ok(
        hosts.some((host) => place.includes(host.sender)),
        place,
    );
    await page.keyboard.press("Escape");
    await page.keyboard.press("Escape");
    assert.ok(await panel.isHidden());
    assert.equal(await focused(), "grid");
    assert.deepEqual(await currentText(), current);
    await close(opened);
});

test("a lost connection is told, and what was missed comes", async () => {
    const opened = await openStand(snapshots[0]);
    const { page, server } = opened;
    await server.stop();
    await page.locator("#lost").waitFor();
    opened.faults.length = 0;
    server.send(snapshots[1]);
    await server.comeBack();
    await page.locator("#lost").waitFor({ state: "hidden" });
    const data = (await page.locator(".sums td").allTextContents())[3];
    assert.equal(data, count(snapshots[1].totals.multicast.data_packets));
    // The browser itself tells of connections that were refused meanwhile.
    opened.faults.splice(
        0,
        opened.faults.length,
        ...opened.faults.filter((fault) => !fault.includes("ERR_CONNECTION")),
    );
    await close(opened);
});

// 200,000 subjects, among them some that would like to be more than text.
function crowd() {
    const hostile = [
        "<script>window.broken = 1</script>",
        "<img src=x onerror='window.broken = 1'>",
        "\"'&amp;</td>",
    ];
    const subjects = Array.from({ length: 200000 }, (_, i) => ({
        port: 7500,
        group: "239.255.0.1",
        subject: hostile[i] ?? `CROWD.${i % 50}.S${i}`,
        messages: i < 3 ? 1e9 - i : 1 + (i % 97),
        message_bytes: i < 3 ? 1e9 - i : 10 * i,
    }));
    return { ...snapshots.at(-1), time: "2023-11-14T22:20:00.000000000Z", subjects };
}

test("200,000 subjects are as quick as ten, and markup stays text", async () => {
    const opened = await openStand(snapshots[0]);
    const { page, table, server } = opened;
    await page.click("#tab-subjects");
    server.send(crowd());
    await page.locator("#tab-subjects .count", { hasText: "200,000" }).waitFor();
    assert.deepEqual(
        (await rowTexts(table)).slice(0, 3).map((row) => row[0]),
        crowd()
            .subjects.slice(0, 3)
            .map((row) => row.subject),
    );
    const begin = Date.now();
    await page.fill("#filter", "CROWD.7.*");
    assert.equal(await page.textContent("#fits"), "4,000 of 200,000");
    await page.fill("#filter", "");
    await table.locator("table").press("End");
    assert.equal((await rowTexts(table)).at(-1)[0], "CROWD.3.S3");
    assert.ok(Date.now() - begin < 10000);
    assert.ok((await table.locator("tr").count()) < 100);
    await table.locator("table").press("Home");
    await table.locator("table").press("Enter");
    assert.equal(await page.textContent(".panel h2"), "<script>window.broken = 1</script>");
    assert.deepEqual(
        await page.evaluate(() => [
            window.broken ?? null,
            document.scripts.length,
            document.images.length,
        ]),
        [null, 1, 0],
    );
    await close(opened);
});

test("light and dark, wide and narrow fit their window", async () => {
    for (const [width, height] of [
        [1280, 800],
        [400, 860],
    ]) {
        for (const colorScheme of ["light", "dark"]) {
            const opened = await open({ width, height, colorScheme });
            const { page, table } = opened;
            const background = await page.evaluate(() =>
                getComputedStyle(document.body).backgroundColor.match(/\d+/g).map(Number),
            );
            assert.equal(background[0] < 128, colorScheme === "dark");
            await picture(page, `live-${colorScheme}-${width}`);
            await table.locator("tbody tr:not(.space)").first().click();
            await page.waitForFunction(
                () => document.querySelector(".panel .value").textContent !== "–",
            );
            assert.ok(
                await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth),
            );
            await picture(page, `details-${colorScheme}-${width}`);
            await close(opened);
        }
    }
});
