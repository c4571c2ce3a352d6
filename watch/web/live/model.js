// What the page shows of the bus: the rows of the last interval, hosts gathered into the rows of their
// port, group or subject, and those that have fallen silent, with zeros, for ten minutes.

import { tables } from "../shared/tables.js";

// The keys of the tables, in the order of the tabs.
export const tableNames = Object.keys(tables);

export const kKeepMs = 10 * 60 * 1000;
export const kMostRows = 200000;

const identities = ["port", "group", "subject", "sender", "host", "scid", "service_port", "reliability_seconds"];

// A row as it is while nothing comes of it.
function silenced(row, timeMs) {
    const zeros = Object.entries(row).map(([key, value]) => [
        key,
        typeof value === "number" && !identities.includes(key) ? 0 : value,
    ]);
    const silent = { ...Object.fromEntries(zeros), silentSince: timeMs };
    if (row.senders) silent.senders = row.senders.map((sender) => silenced(sender, timeMs));
    return silent;
}

// Rows by key: those of the last interval, and silent ones in the order in which they fell silent.
function makeKeeper(keyOf, keepMs, mostRows) {
    let active = new Map();
    let activeMs = 0;
    const silent = new Map();

    function forget(timeMs) {
        for (const [key, { silentSince }] of silent) {
            const age = timeMs - silentSince;
            if (age >= 0 && age < keepMs && active.size + silent.size <= mostRows) break;
            silent.delete(key);
        }
    }

    // The rows of the interval and the silent ones. The clock may have been set back: what fell silent in
    // its future goes.
    return (rows, timeMs) => {
        const before = active;
        active = new Map(rows.map((row) => [keyOf(row), row]));
        for (const key of active.keys()) silent.delete(key);
        for (const [key, row] of before) {
            if (!active.has(key)) silent.set(key, silenced(row, activeMs));
        }
        activeMs = timeMs;
        forget(timeMs);
        return [...rows, ...silent.values()];
    };
}

function numberKeys(name) {
    const { hostColumns, ways } = tables[name];
    if (ways !== undefined) return ways.flatMap((key) => [`${key}_sent`, `${key}_received`]);
    return hostColumns
        .filter((column) => column.kind === "number" && !column.isState)
        .map((column) => column.key);
}

// Rows of the JSON are of one host each. Each becomes an entry of `hosts` of the row that it belongs
// to, whose numbers are sums. A row is silent when all its hosts are.
function gather(hosts, keys, rowOf) {
    const rows = new Map();
    for (const host of hosts) {
        const place = rowOf(host);
        const key = `${place.port} ${place.group ?? ""}`;
        let row = rows.get(key);
        if (row === undefined) {
            row = { ...place, hosts: [], hostCount: 0, silentSince: host.silentSince };
            for (const number of keys) row[number] = 0;
            rows.set(key, row);
        }
        host.address = host.sender ?? host.host;
        row.hosts.push(host);
        if (host.silentSince === undefined) ++row.hostCount;
        if (host.silentSince === undefined) row.silentSince = undefined;
        else if (row.silentSince < host.silentSince) row.silentSince = host.silentSince;
        for (const number of keys) row[number] += host[number] ?? 0;
    }
    return [...rows.values()];
}

// Subjects may be many: their rows are those of the JSON.
function subjectRows(subjects) {
    for (const row of subjects) {
        row.hosts = row.senders ?? null;
        for (const host of row.hosts ?? []) host.address = host.sender;
    }
    return subjects;
}

const hostKey = ({ port, group, sender, host, scid, service_port: service }) =>
    `${port} ${group} ${sender ?? host} ${scid} ${service}`;

const places = {
    multicast: ({ port, group }) => ({ port, group }),
    retransmission: ({ port, service_port: servicePort }) => ({ port, servicePort }),
    point_to_point: ({ port }) => ({ port }),
};

// modelOf(snapshot) for one snapshot after the other.
export function makeModels({ keepMs = kKeepMs, mostRows = kMostRows } = {}) {
    const keep = Object.fromEntries(
        tableNames.map((name) => [
            name,
            makeKeeper(
                name === "subjects"
                    ? ({ port, group, subject }) => `${port} ${group} ${subject}`
                    : hostKey,
                keepMs,
                mostRows,
            ),
        ]),
    );

    function rowsOf(name, rows, timeMs) {
        const all = keep[name](rows, timeMs);
        if (name === "subjects") return subjectRows(all);
        return gather(all, numberKeys(name), places[name]);
    }

    return (snapshot) => {
        const timeMs = Date.parse(snapshot.time);
        return {
            snapshot,
            timeMs,
            elapsedSeconds: snapshot.elapsed_seconds,
            rows: Object.fromEntries(
                tableNames.map((name) => [name, rowsOf(name, snapshot[name], timeMs)]),
            ),
        };
    };
}
