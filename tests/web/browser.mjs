// A headless Chromium for tests of the pages: one browser a test file, a page that collects
// whatever goes wrong in it, and pictures where a folder for them is given (PELMO_PICTURES).

import assert from "node:assert/strict";
import { createRequire } from "node:module";
import { existsSync, mkdirSync, readFileSync } from "node:fs";
import { join } from "node:path";
import test from "node:test";

const root = new URL("../../watch/web/", import.meta.url);
const packages = createRequire(new URL("package.json", root));
const { chromium } = packages("playwright-core");
const { formatNarrow, formatNumber } = await import(new URL("shared/format.js", root));

const program = ["/usr/bin/chromium", "/usr/bin/chromium-headless-shell"].find(existsSync);
const pictures = process.env.PELMO_PICTURES;

// Root has no sandbox of the browser's; what is loaded are pages of the tests' own.
export function launch() {
    assert.ok(program, "no Chromium: scripts/setup.sh installs it");
    const args = process.getuid() === 0 ? ["--no-sandbox"] : [];
    return chromium.launch({ executablePath: program, args });
}

// A page in a context of its own, in UTC. `table` is the table that is shown. close() fails when
// there were console errors, exceptions or requests to anywhere but `url`. `before` runs in the page
// before its scripts.
export async function openPage(browser, url, { width = 1280, height = 800, colorScheme, before } = {}) {
    const viewport = { width, height };
    const context = await browser.newContext({ viewport, colorScheme, timezoneId: "UTC" });
    context.setDefaultTimeout(10000);
    const page = await context.newPage();
    if (before) await page.addInitScript(before);
    const faults = [];
    page.on("console", (message) => {
        if (["error", "warning"].includes(message.type())) faults.push(message.text());
    });
    page.on("pageerror", (error) => faults.push(error.stack));
    page.on("request", (request) => {
        if (![url, "data:"].some((begin) => request.url().startsWith(begin)))
            faults.push(request.url());
    });
    await page.goto(url);
    const close = async () => {
        await context.close();
        assert.deepEqual(faults, []);
    };
    return { page, table: page.locator("#tables > .table:not([hidden])"), close };
}

// A test of a page that `open` resolves to; it is closed at the end, and then has had no faults.
export function pageTest(name, open, body) {
    test(name, async () => {
        const opened = await open();
        await body(opened);
        await opened.close();
    });
}

export const count = (number) => number.toLocaleString("en-US");

// Each chart has something drawn: so many pixels that aren't blank.
export async function haveInk(canvases, least) {
    for (const canvas of await canvases.all()) {
        const ink = await canvas.evaluate((element) => {
            const area = [0, 0, element.width, element.height];
            const { data } = element.getContext("2d").getImageData(...area);
            return data.filter((byte, i) => i % 4 === 3 && byte > 0).length;
        });
        assert.ok(ink > least, `${ink} pixels`);
    }
}

// Markup in texts of the bus did nothing: the page has the scripts that it came with.
export async function isUnbroken(page, scripts) {
    const found = await page.evaluate(() => [
        window.broken ?? null, document.scripts.length, document.images.length,
    ]);
    assert.deepEqual(found, [null, scripts, 0]);
}

// The columns of trouble of a table lie within it and the window, with these numbers in the row of sums.
export async function showsTrouble(table, columns, numbers) {
    const { width, cells } = await table.evaluate((box) => {
        const inside = box.getBoundingClientRect();
        const sums = [...box.querySelector("tr.sums").cells];
        return { width: innerWidth, cells: [...box.querySelectorAll("th")].map((heading, i) => {
            const { left, right, width } = heading.getBoundingClientRect();
            const isIn = width > 0 && left >= inside.left && right <= Math.min(inside.right, innerWidth) + 0.5;
            return { isIn, isWhole: sums[i].scrollWidth <= sums[i].clientWidth, text: sums[i].textContent };
        }) };
    });
    columns.forEach(({ key, label, alert }, i) => {
        if (!alert) return;
        const what = `${label} at ${width}: ${JSON.stringify(cells[i])}, ${numbers[key]}`;
        assert.ok(cells[i].isIn && cells[i].isWhole, what);
        assert.ok([formatNumber, formatNarrow].some((format) => format(numbers[key]) === cells[i].text), what);
    });
}

// No word of a heading is broken, and neither a heading nor a number is cut, by whatever the table is sorted.
export async function readsWell(table) {
    const wrong = await table.evaluate(async (box) => {
        const isCut = ({ clientWidth, scrollWidth }) => clientWidth > 0 && scrollWidth > clientWidth;
        const isBroken = ({ firstChild: text }) => [...text.data.matchAll(/[^ \u00ad]+/g)].some(({ 0: word, index }) => {
            const range = document.createRange();
            range.setStart(text, index);
            range.setEnd(text, index + word.length);
            return range.getClientRects().length > 1;
        });
        const found = [];
        const shown = () => [...box.querySelectorAll("th button")].filter((button) => button.checkVisibility());
        for (let place = 0; place < shown().length; ++place) {
            shown()[place].click();
            await new Promise((drawn) => requestAnimationFrame(() => requestAnimationFrame(drawn)));
            const cells = [...box.querySelectorAll("td:is(.kind-number, .kind-clock, .kind-time)")];
            found.push(...shown().filter((button) => isCut(button) || isBroken(button)), ...cells.filter(isCut));
        }
        return found.map((each) => `${each.textContent} at ${innerWidth}: ${each.scrollWidth} in ${each.clientWidth}`);
    });
    assert.deepEqual(wrong, []);
}

// What axe-core finds wrong for those who can't see, or see little.
export async function isAccessible(page) {
    await page.evaluate(readFileSync(packages.resolve("axe-core/axe.min.js"), "utf8"));
    const found = await page.evaluate(async () => (await window.axe.run()).violations.map(
        ({ id, nodes }) => `${id}: ${nodes.map(({ target, failureSummary }) => `${target} ${failureSummary}`).slice(0, 3)}`));
    assert.deepEqual(found, []);
}

// The texts of the rows that a table draws, below its headings and sums.
export function rowTexts(table) {
    return table
        .locator("tbody tr:not(.space)")
        .evaluateAll((rows) => rows.map((row) => [...row.cells].map((cell) => cell.textContent)));
}

export async function picture(page, name) {
    if (!pictures) return;
    mkdirSync(pictures, { recursive: true });
    await page.screenshot({ path: join(pictures, `${name}.png`) });
}

// The page is accessible in light and dark, wide and narrow, as it is and after `more` was done on it.
export function looksTest(name, open, more = () => {}) {
    for (const colorScheme of ["light", "dark"])
        for (const [width, height] of [[1280, 800], [400, 860]])
            pageTest(`${name} in ${colorScheme} at ${width}`, () => open({ width, height, colorScheme }), async (opened) => {
                const { page } = opened;
                const background = await page.evaluate(
                    () => getComputedStyle(document.body).backgroundColor.match(/\d+/)[0]);
                assert.equal(background < 128, colorScheme === "dark");
                await isAccessible(page);
                await picture(page, `${name}-${colorScheme}-${width}`);
                if (await more(opened)) {
                    await isAccessible(page);
                    await picture(page, `${name}-details-${colorScheme}-${width}`);
                }
                assert.ok(await page.evaluate(() => document.documentElement.scrollWidth <= innerWidth));
            });
}
