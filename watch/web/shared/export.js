// A table as text to paste, as CSV, as JSON: the rows that the reader sees, in their order, with the
// columns that are shown and the numbers as they are shown (a count, or a rate a second), in full.

const names = { hostCount: "hosts", servicePort: "service_port" };

function valueOf(row, { key, kind, isState }, scale) {
    const value = row[key] ?? null;
    return kind === "number" && value !== null && !isState ? value * scale : value;
}

function grid({ columns, rows, scale }) {
    return rows.map((row) => columns.map((column) => valueOf(row, column, scale)));
}

// Names to the left, numbers to the right, as on the page.
function toText(content) {
    const { columns } = content;
    const lines = [
        columns.map(({ label }) => label),
        ...grid(content).map((values) => values.map((value) => String(value ?? "–"))),
    ];
    const widths = columns.map((_, i) => lines.reduce((most, line) => Math.max(most, line[i].length), 0));
    const pad = (text, i) =>
        columns[i].kind === "number" ? text.padStart(widths[i]) : text.padEnd(widths[i]);
    return lines.map((line) => `${line.map(pad).join("  ").trimEnd()}\n`).join("");
}

// RFC 4180. A text that a spreadsheet would take for a formula begins with a quote: anybody on the bus can
// send one.
function csvField(value) {
    if (typeof value === "number") return String(value);
    const text = String(value ?? "");
    const safe = /^[=+\-@\t\r]/.test(text) ? `'${text}` : text;
    return /[",\r\n]/.test(safe) ? `"${safe.replaceAll('"', '""')}"` : safe;
}

function toCsv(content) {
    const lines = [content.columns.map(({ key }) => names[key] ?? key), ...grid(content)];
    return lines.map((line) => `${line.map(csvField).join(",")}\r\n`).join("");
}

function toJson(content) {
    const { columns } = content;
    const objects = grid(content).map((values) =>
        Object.fromEntries(values.map((value, i) => [names[columns[i].key] ?? columns[i].key, value])),
    );
    return `[\n${objects.map((object) => JSON.stringify(object)).join(",\n")}\n]\n`;
}

export const exportForms = { text: toText, CSV: toCsv, JSON: toJson };
