// A snapshot as the page shows it: hosts gathered into the rows of their port, group or subject.

import { tables } from "../shared/tables.js";

// The keys of the tables, in the order of the tabs.
export const tableNames = Object.keys(tables);

function numberKeys(name) {
    return tables[name].hostColumns
        .filter((column) => column.kind === "number" && !column.isState)
        .map((column) => column.key);
}

// Rows of the JSON are of one host each. Each becomes an entry of `hosts` of the row that it belongs
// to, whose numbers are sums.
function gather(hosts, keys, rowOf) {
    const rows = new Map();
    for (const host of hosts) {
        const place = rowOf(host);
        const key = `${place.port} ${place.group ?? ""}`;
        let row = rows.get(key);
        if (row === undefined) {
            row = { ...place, hosts: [], hostCount: 0 };
            for (const number of keys) row[number] = 0;
            rows.set(key, row);
        }
        host.address = host.sender ?? host.host;
        row.hosts.push(host);
        ++row.hostCount;
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

export function makeModel(snapshot) {
    const port = (host) => ({ port: host.port });
    return {
        snapshot,
        timeMs: Date.parse(snapshot.time),
        elapsedSeconds: snapshot.elapsed_seconds,
        rows: {
            multicast: gather(snapshot.multicast, numberKeys("multicast"), (host) => ({
                port: host.port,
                group: host.group,
            })),
            subjects: subjectRows(snapshot.subjects),
            retransmission: gather(
                snapshot.retransmission,
                numberKeys("retransmission"),
                (host) => ({ port: host.port, servicePort: host.service_port }),
            ),
            point_to_point: gather(snapshot.point_to_point, numberKeys("point_to_point"), port),
        },
    };
}
