// The report on paper: all tables, each to a bound, in place of the one that scrolls; charts at the width
// of a page, and all in the colours of a light page.

import { resizeCharts } from "../shared/chart.js";
import { element } from "../shared/dom.js";
import { formatCount, formatNarrow, formatNumber } from "../shared/format.js";
import { layoutColumns } from "../shared/layout.js";

const kMostRows = 50;
const kChartPixels = 340;
// The width of a page in em of the smaller type that report.css gives to print.
const kPageEm = 64;

function cell(tag, value, { kind, isExact }, isCompact) {
    const format = isCompact && !isExact ? formatNarrow : formatNumber;
    const text = kind === "number" && value !== undefined ? format(value) : String(value ?? "–");
    return element(tag, { class: `kind-${kind}` }, text);
}

function printedTable({ title, columns, sums, rows, figure }) {
    const { shown, isCompact } = layoutColumns(columns, {}, null, kPageEm);
    const some = columns.filter(({ key }) => shown.has(key));
    const line = (row) => element("tr", {}, ...some.map((column) => cell("td", row[column.key], column, isCompact)));
    const sumLine = (sum) => {
        const cells = some.map((column, i) => {
            const value = i === 0 ? sum.title : (sum[column.key] ?? "");
            return cell("td", value, value === "" || i === 0 ? { kind: "text" } : column, isCompact);
        });
        return element("tr", { class: "sums" }, ...cells);
    };
    const heads = some.map(({ kind, label }) => element("th", { class: `kind-${kind}` }, label));
    const count =
        rows.length > kMostRows ? `, the first ${kMostRows} of ${formatCount(rows.length)}` : "";
    return element(
        "section",
        {},
        element("h2", {}, title, count),
        figure,
        element(
            "table",
            {},
            element("thead", {}, element("tr", {}, ...heads)),
            element("tbody", {}, ...sums.map(sumLine), ...rows.slice(0, kMostRows).map(line)),
        ),
    );
}

// contents() are {title, columns, sums, rows, figure} of each table, in the order that the reader chose;
// the figure, an element above the table, may be null.
export function preparePrint(contents) {
    const printed = element("div", { id: "printed" });
    document.getElementById("tables").after(printed);
    addEventListener("beforeprint", () => {
        document.documentElement.classList.add("printing");
        printed.replaceChildren(
            ...contents()
                .filter(({ rows }) => rows.length > 0)
                .map(printedTable),
        );
        resizeCharts(kChartPixels);
    });
    addEventListener("afterprint", () => {
        document.documentElement.classList.remove("printing");
        printed.replaceChildren();
        resizeCharts(null);
    });
}
