// page_picture.mjs CAPTURE FILE: a picture of the live page with the details of a row open.

import { launch, openPage } from "./browser.mjs";
import { readWhole, serve } from "./serve.mjs";

const [capture, file] = process.argv.slice(2);
const served = await serve("-r", capture, "--senders");
const browser = await launch();
await readWhole(served.url);
const { page, table, close } = await openPage(browser, served.url);
await table.locator("tbody tr:not(.space)").nth(1).click();
await page.waitForFunction(() => document.querySelector(".panel .value").textContent !== "–");
await page.mouse.move(0, 0);
await page.screenshot({ path: file });
await close();
await browser.close();
await served.stop();
