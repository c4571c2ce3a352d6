// What a link to the page holds after its "#": the table, its order, the filter, the unit, the zone and
// what is open. A link may come from anybody: what it doesn't say, or says wrongly, is as it was.

function numberOf(text) {
    return text !== null && /^\d+$/.test(text) ? Number(text) : undefined;
}

function readSort(text) {
    if (text === null || text === "") return null;
    return { key: text.replace(/^-/, ""), descending: text.startsWith("-") };
}

function readOpen(values) {
    const text = (name) => values.get(name) ?? undefined;
    if (values.has("fault")) return { fault: values.get("fault") };
    if (values.has("totals")) return { totals: true };
    const port = numberOf(values.get("port"));
    if (port === undefined) return null;
    const row = { port, group: text("group"), subject: text("subject") };
    const address = text("host");
    return { row, host: address === undefined ? null : { address, scid: numberOf(values.get("scid")) ?? null } };
}

// {table, sort: {key, descending} or null, filter, isRate, isUtc, open}, where open is {row, host}, with
// the host perhaps null, or {fault} or {totals: true} or null.
export function readLink(hash) {
    const values = new URLSearchParams(hash.replace(/^#/, ""));
    return {
        table: values.get("table"),
        sort: readSort(values.get("sort")),
        filter: values.get("filter") ?? "",
        isRate: values.get("unit") === "rate",
        isUtc: values.get("zone") === "utc",
        open: readOpen(values),
    };
}

export function writeLink({ table, sort, filter, isRate, isUtc, open }) {
    const { row = {}, host, fault, totals } = open ?? {};
    const values = {
        table,
        sort: sort && `${sort.descending ? "-" : ""}${sort.key}`,
        filter: filter || null,
        unit: isRate ? "rate" : null,
        zone: isUtc ? "utc" : null,
        fault,
        totals: totals ? "1" : null,
        port: row.port,
        group: row.group,
        subject: row.subject,
        host: host?.address,
        scid: host?.scid,
    };
    const said = Object.entries(values).filter(([, value]) => value !== null && value !== undefined);
    return `#${new URLSearchParams(said)}`;
}
