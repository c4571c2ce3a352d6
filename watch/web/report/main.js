// The report page: everything is in it, the data as JSON in a script element of its own.

import { showOverview } from "./overview.js";
import { showFaults, showTables } from "./tables.js";
import { showTimeline } from "./timeline.js";

const data = JSON.parse(document.getElementById("report-data").textContent);

showOverview(data);
showTimeline(data);
showFaults(data);
showTables(data);

document.addEventListener("keydown", (event) => {
    if (event.key !== "/" || event.target instanceof HTMLInputElement) return;
    document.getElementById("filter").focus();
    event.preventDefault();
});
