// live_test.mjs: the live page in a browser, as `pelmowatch serve` serves it with a sample. Where no
// saved capture makes the events that a test needs, the test hands them to the page.
// PELMO_WATCH is the program.

import assert from "node:assert/strict";
import { execFileSync } from "node:child_process";
import { fileURLToPath } from "node:url";
import test, { after, before } from "node:test";
import {
    count, haveInk, isUnbroken, launch, looksTest, openPage, pageTest, rowTexts, showsTrouble,
} from "./browser.mjs";
import { tables } from "../../watch/web/shared/tables.js";
import { readWhole, serve } from "./serve.mjs";

const sample = fileURLToPath(new URL("../../samples/bus.pcap", import.meta.url));
const source = ["-r", sample, "-u", "2", "--senders"];
const text = execFileSync(process.env.PELMO_WATCH, ["json", ...source], { encoding: "utf8" });
const snapshots = text.trim().split("\n").map((line) => JSON.parse(line));
const latest = snapshots.at(-1);

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

async function open(options) {
    const opened = await openPage(browser, served.url, options);
    await opened.page.locator("#time:not(:empty)").waitFor();
    return opened;
}

// A page whose events are those that the test gives it.
async function openWithout(url = served.url, first = snapshots[0]) {
    const standIn = () => {
        delete window.SharedWorker;
        window.EventSource = class extends EventTarget {
            constructor() {
                super();
                window.feed = this;
                window.feedCount = (window.feedCount ?? 0) + 1;
            }
            close() {}
        };
    };
    const opened = await openPage(browser, url, { before: standIn });
    const tell = (type, data) =>
        opened.page.evaluate(
            ([name, json]) => window.feed.dispatchEvent(new MessageEvent(name, { data: json })),
            [type, JSON.stringify(data)],
        );
    await tell("open");
    await tell("snapshot", first);
    return { ...opened, tell };
}

const isOf = ({ port, group }) => (host) => host.port === port && host.group === group;

// The texts of the rows of these hosts' groups.
function groupTexts(hosts) {
    const places = ["port", "group", "sender", "scid", "reliability_seconds"];
    return hosts.filter((host, i) => hosts.findIndex(isOf(host)) === i).map((host) => {
        const rows = hosts.filter(isOf(host));
        const sums = Object.values(sumsOf(rows, places));
        return [String(host.port), host.group, ...[rows.length, ...sums].map(count)];
    });
}

pageTest("the page shows what the server says", open, async ({ page, table }) => {
    assert.deepEqual((await rowTexts(table)).sort(), groupTexts(latest.multicast).sort());
    const totals = latest.totals.multicast;
    const sums = async () => (await table.locator(".sums td").allTextContents()).slice(3);
    assert.deepEqual(await sums(), Object.values(totals).map(count));
    const tiles = await page.locator(".tile").evaluateAll((list) =>
        list.map((tile) =>
            [...tile.querySelectorAll(".label, .value")].map((part) => part.textContent)));
    assert.equal(Object.fromEntries(tiles).Messages, count(latest.totals.subjects.messages));
    assert.equal(Object.fromEntries(tiles).Gaps, count(totals.missed_packets));
    await haveInk(page.locator(".tiles canvas"), 50);

    await page.locator(".tiles .u-over").nth(5).hover({ position: { x: 1, y: 5 } });
    const first = snapshots[0];
    assert.equal(await page.textContent("#pointed"), `totals at ${first.time.slice(11, 19)}`);
    const gaps = await page.locator(".tile .value").nth(5).textContent();
    assert.equal(gaps, count(first.totals.multicast.missed_packets));

    await page.click("#rate");
    assert.equal((await sums())[0], (totals.data_packets / latest.elapsed_seconds).toFixed(1));
    await page.click("#rate");
    await page.click("#tab-faults");
    assert.equal((await rowTexts(table)).length, Object.keys(latest.faults).length);
});

pageTest("the keyboard reaches a row, opens it and comes back", open, async ({ page, table }) => {
    const focused = () =>
        page.evaluate(() => {
            const { activeElement } = document;
            return activeElement.getAttribute("role") ?? activeElement.tagName;
        });
    await page.focus("#tab-multicast");
    for (const wanted of ["INPUT", "SUMMARY", "SUMMARY", "grid"]) {
        await page.keyboard.press("Tab");
        assert.equal(await focused(), wanted);
    }
    await page.keyboard.press("ArrowDown");
    const textsOf = (row) => row.evaluate(({ cells }) => [...cells].map((cell) => cell.textContent));
    const current = await textsOf(table.locator("tr.current"));
    assert.deepEqual(current, (await rowTexts(table))[1]);
    const active = await table.locator("table").getAttribute("aria-activedescendant");
    assert.deepEqual(await textsOf(page.locator(`#${active}`)), current);

    await page.keyboard.press("Enter");
    const panel = page.locator(".panel");
    assert.equal(await panel.locator("h2").textContent(), current[1]);
    const hosts = latest.multicast.filter(
        (row) => row.group === current[1] && String(row.port) === current[0]);
    assert.equal((await rowTexts(panel)).length, hosts.length);
    await page.waitForFunction(() => document.querySelector(".panel .value").textContent !== "–");
    assert.equal(await panel.locator(".value").first().textContent(), `${current[4]} B`);
    await haveInk(panel.locator("canvas"), 1000);

    await page.keyboard.press("End");
    await page.keyboard.press("Enter");
    const place = await panel.locator(".place").textContent();
    assert.ok(hosts.some((host) => place.includes(host.sender)), place);
    await page.keyboard.press("Escape");
    await page.keyboard.press("Escape");
    assert.ok(await panel.isHidden());
    assert.equal(await focused(), "grid");
    assert.deepEqual(await textsOf(table.locator("tr.current")), current);
});

pageTest("a lost connection is shown, and what was missed comes", openWithout, async ({ page, table, tell }) => {
    await tell("error");
    await page.locator("#lost").waitFor();
    await page.waitForFunction(() => window.feedCount === 2); // the page connects again
    await tell("open");
    await tell("snapshot", snapshots[1]);
    await page.locator("#lost").waitFor({ state: "hidden" });
    const data = (await table.locator(".sums td").allTextContents())[3];
    assert.equal(data, count(snapshots[1].totals.multicast.data_packets));
});

test("a capture with nothing of the bus is named, and forgotten once there is some", async (t) => {
    const empty = await serve("-r", sample, "--filter", "tcp");
    t.after(empty.stop);
    const first = { ...snapshots[0], bus_packets: 0, not_read: { not_ip: 1 } };
    const { page, tell, close } = await openWithout(empty.url, first);
    assert.equal(await page.textContent("#unread.warning"), "The only frame isn't the bus's: 1 not IP.");
    await tell("snapshot", { ...snapshots[1], not_read: { ipv6: 3 } });
    assert.match(await page.textContent("#unread:not(.warning)"), /^Not the bus's .* 3 IPv6\.$/);
    await close();
});

pageTest("200,000 subjects draw few rows, and markup stays text", openWithout, async ({ page, table }) => {
    await page.click("#tab-subjects");
    const hostile = [
        "<script>window.broken = 1</script>", "<img src=x onerror='window.broken = 1'>", "\"'&amp;</td>",
    ];
    await page.evaluate(([snapshot, names]) => {
        const subjects = Array.from({ length: 200000 }, (_, i) => ({
            port: 7500, group: "239.255.0.1", subject: names[i] ?? `CROWD.${i % 50}.S${i}`,
            messages: i < 3 ? 1e9 - i : 1 + (i % 97), message_bytes: i < 3 ? 1e9 - i : 10 * i,
        }));
        const data = JSON.stringify({ ...snapshot, time: "2023-11-14T22:20:00.000000000Z", subjects });
        window.feed.dispatchEvent(new MessageEvent("snapshot", { data }));
    }, [latest, hostile]);
    await page.locator("#tab-subjects .count", { hasText: "200,000" }).waitFor();
    const names = async () => (await rowTexts(table)).map((row) => row[0]);
    assert.deepEqual((await names()).slice(0, 3), hostile);
    await page.fill("#filter", "CROWD.7.*");
    assert.equal(await page.textContent("#fits"), "4,000 of 200,000");
    await page.press("#filter", "Escape");
    await table.locator("table").press("End");
    assert.equal((await names()).at(-1), "CROWD.3.S3");
    assert.ok((await table.locator("tr").count()) < 100);
    await table.locator("table").press("Home");
    await table.locator("table").press("Enter");
    assert.equal(await page.textContent(".panel h2"), "<script>window.broken = 1</script>");
    await isUnbroken(page, 1);
});

// Sums of numbers; of those that go both ways, of what was sent.
function sumsOf(rows, without = []) {
    const sums = {};
    for (const row of rows)
        for (const [name, number] of Object.entries(row).filter(([key]) => !without.includes(key))) {
            const key = name.replace(/_sent$/, "");
            sums[key] = (sums[key] ?? 0) + number;
        }
    return sums;
}

pageTest("columns of trouble are in sight at every width, beside the details too", openWithout, async ({ page, table }) => {
    const hosts = page.locator(".panel .table");
    for (const name of ["multicast", "retransmission", "point_to_point"]) {
        await page.click(`#tab-${name}`);
        const host = snapshots[0][name][0];
        const { columns, hostColumns } = tables[name];
        const link = new URLSearchParams({ table: name, port: host.port, ...(host.group && { group: host.group }) });
        for (const width of [768, 1024, 1366, 1920]) {
            await page.setViewportSize({ width, height: 800 });
            await page.evaluate((hash) => (location.hash = hash), `${link}&zone=${width}`);
            await hosts.locator(".sums").first().waitFor();
            await page.evaluate(() => new Promise((done) => requestAnimationFrame(() => setTimeout(done, 0))));
            await showsTrouble(hosts, hostColumns, sumsOf(snapshots[0][name].filter(isOf(host))));
            await showsTrouble(table, columns, snapshots[0].totals[name]);
            if (width >= 1366) assert.equal(await hosts.locator("th:visible").count(), hostColumns.length);
        }
        await page.keyboard.press("Escape");
    }
});

pageTest("a link holds the view, and a reload keeps it", open, async ({ page, table }) => {
    await page.click("#tab-subjects");
    const heading = table.getByRole("columnheader", { name: "Messages" });
    await heading.getByRole("button").click();
    await heading.getByRole("button").click();
    const messages = (await rowTexts(table)).map((row) => Number(row[3]));
    assert.deepEqual(messages, messages.toSorted((a, b) => a - b));
    await page.fill("#filter", "!nothing");
    await page.click("#rate");
    await table.locator("tbody tr:not(.space)").nth(2).click();
    const opened = await page.textContent(".panel h2");
    await page.click("#menus summary >> nth=0");
    await page.getByLabel("Group").uncheck();
    await page.waitForFunction(() => location.hash.includes("&subject="));
    await page.reload();
    await table.locator("tbody tr:not(.space)").first().waitFor();
    assert.equal(await heading.getAttribute("aria-sort"), "ascending");
    assert.equal(await page.inputValue("#filter"), "!nothing");
    assert.equal(await page.getAttribute("#rate", "aria-pressed"), "true");
    assert.equal(await page.textContent(".panel h2"), opened);
    assert.ok(await table.getByRole("columnheader", { name: "Group" }).isHidden());
    await page.evaluate(() => (location.hash = "table=__proto__&sort=-x&port=1e9&filter=%22<b>&fault"));
    await page.waitForFunction(() => document.querySelector("#understood").textContent.includes("<b>"));
    assert.equal(await page.getAttribute("#tab-subjects", "aria-selected"), "true");
});

pageTest("a press opens what was pressed, and the order holds under the pointer", openWithout, async ({ page, table, tell }) => {
    await page.click("#tab-subjects");
    const names = async () => (await rowTexts(table)).map((row) => row[0]);
    const bytes = snapshots[0].subjects.map((row) => row.message_bytes).reverse();
    const subjects = snapshots[0].subjects.map((row, i) => ({ ...row, message_bytes: bytes[i] }));
    const before = await names();
    const row = table.locator("tbody tr:not(.space)").first();
    await row.dispatchEvent("pointerdown");
    await tell("snapshot", { ...snapshots[0], time: "2023-11-14T22:13:24.000000000Z", subjects });
    const after = await names();
    assert.notEqual(after[0], before[0]);
    await row.dispatchEvent("click");
    assert.equal(await page.textContent(".panel h2"), before[0]);
    await page.keyboard.press("Escape");

    await row.hover();
    await tell("snapshot", { ...snapshots[0], time: "2023-11-14T22:13:26.000000000Z" });
    assert.deepEqual(await names(), after);
    assert.notEqual(await page.textContent("#held"), "");
    await page.mouse.move(5, 5);
    assert.deepEqual(await names(), before);
});

pageTest("the head says what is watched, and that it died", openWithout, async ({ page, tell }) => {
    const source = {
        host: "gw1", interface: "eth0", files: null, filter: "udp", since_time: snapshots[0].begin_time,
        interval_seconds: 2, is_paced: false, state: "live", state_time: snapshots[0].time, words: "live", reason: null,
    };
    await tell("source", source);
    assert.equal(await page.textContent("#source"), "eth0 · on gw1 · filter “udp” · since 2023-11-14 22:13:20");
    assert.equal(await page.title(), "eth0 on gw1 – pelmowatch");
    await tell("source", { ...source, state: "failed", words: "capture failed: gone" });
    assert.equal(await page.textContent("#state"), "capture failed: gone");
    assert.ok(await page.locator("#dead").isVisible());
    assert.equal(await page.title(), "(capture failed: gone) eth0 on gw1 – pelmowatch");
});

pageTest("a fault leads to its packets and its senders", openWithout, async ({ page, table, tell }) => {
    const times = { first_time: "2023-11-14T22:13:21.5Z", last_time: "2023-11-14T22:13:23.5Z" };
    const fault = { words: "no UDP checksum", packets: 3, ...times, first_frame: 1007, last_frame: 1009, last_sender: "10.0.0.2" };
    const [host] = snapshots[0].multicast;
    const quiet = { multicast: [], retransmission: [], point_to_point: [] };
    await tell("snapshot", {
        ...snapshots[1], ...quiet, faults: { udp_checksum_missing: fault }, multicast: [{ ...host, bad_packets: 3 }],
    });
    await tell("snapshot", { ...snapshots[2], ...quiet, faults: {} });
    assert.equal(await page.textContent("#tab-faults .count"), "1");
    await page.click("#tab-faults");
    await page.fill("#filter", "checksum 10.0.0.2");
    await table.locator("tbody tr:not(.space)").click();
    const place = await page.textContent(".panel .place");
    assert.equal(place, "first 2023-11-14 22:13:21, frame 1,007; last 2023-11-14 22:13:23, frame 1,009");
    const senders = await rowTexts(page.locator(".panel"));
    assert.deepEqual(senders, [["Multicast", String(host.port), host.group, host.sender, "3"]]);
    await page.locator(".jumps button").click();
    assert.equal(await page.inputValue("#filter"), "10.0.0.2");
    assert.equal(await page.getAttribute("#tab-multicast", "aria-selected"), "true");
});

pageTest("what is in sight is copied", open, async ({ page, table }) => {
    await page.context().grantPermissions(["clipboard-read", "clipboard-write"]);
    await page.fill("#filter", "239.255.0.1");
    await page.getByText("Copy", { exact: true }).click();
    await page.getByText("as JSON").click();
    await page.getByText("Copied").waitFor();
    const copied = JSON.parse(await page.evaluate(() => navigator.clipboard.readText()));
    assert.deepEqual(
        copied.map((row) => [row.group, count(row.payload_bytes)]),
        (await rowTexts(table)).map((row) => [row[1], row[4]]));
});

// Browsers hold six connections to a server.
test("the seventh page of a browser loads", async () => {
    const context = await browser.newContext();
    for (let i = 0; i < 7; ++i) {
        const page = await context.newPage();
        await page.goto(served.url);
        await page.locator("#time:not(:empty)").waitFor({ timeout: 10000 });
    }
    await context.close();
});

looksTest("live", open, async ({ page, table }) => {
    await table.locator("tbody tr:not(.space)").first().click();
    await page.waitForFunction(() => document.querySelector(".panel .value").textContent !== "–");
    return true;
});
