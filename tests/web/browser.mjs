// A headless Chromium for tests of the pages: one browser a test file, a page that collects
// whatever goes wrong in it, and pictures where a folder for them is given (PELMO_PICTURES).

import assert from "node:assert/strict";
import { createRequire } from "node:module";
import { existsSync, mkdirSync } from "node:fs";
import { join } from "node:path";

const root = new URL("../../watch/web/", import.meta.url);
const { chromium } = createRequire(new URL("package.json", root))("playwright-core");

const program = ["/usr/bin/chromium", "/usr/bin/chromium-headless-shell"].find(existsSync);
const pictures = process.env.PELMO_PICTURES;

// Root has no sandbox of the browser's; what is loaded are pages of the tests' own.
export function launch() {
    assert.ok(program, "no Chromium: scripts/setup.sh installs it");
    return chromium.launch({
        executablePath: program,
        args: process.getuid() === 0 ? ["--no-sandbox"] : [],
    });
}

// A page in a context of its own, in UTC. `faults` gets console errors, exceptions and requests to
// anywhere but `url`.
export async function openPage(
    browser,
    url,
    { width = 1280, height = 800, colorScheme = "light" } = {},
) {
    const context = await browser.newContext({
        viewport: { width, height },
        colorScheme,
        timezoneId: "UTC",
    });
    context.setDefaultTimeout(10000);
    const page = await context.newPage();
    const faults = [];
    page.on(
        "console",
        (message) => ["error", "warning"].includes(message.type()) && faults.push(message.text()),
    );
    page.on("pageerror", (error) => faults.push(error.stack));
    page.on(
        "request",
        (request) =>
            !request.url().startsWith(url) &&
            !request.url().startsWith("data:") &&
            faults.push(request.url()),
    );
    await page.goto(url);
    return { page, faults, close: () => context.close() };
}

// How many pixels of the canvas aren't blank: 0 for a chart without anything drawn.
export function inkOf(canvas) {
    return canvas.evaluate((element) => {
        const { data } = element.getContext("2d").getImageData(0, 0, element.width, element.height);
        let ink = 0;
        for (let i = 3; i < data.length; i += 4) ink += data[i] > 0 ? 1 : 0;
        return ink;
    });
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
