// Faults by kind, and who sent bad packets. A snapshot has those of its interval; the page keeps what it saw
// since it was opened, since a fault that comes once an hour is gone from the next snapshot.

import { formatCount, formatDateTime, formatKey } from "../shared/format.js";

export const faultColumns = [
    { key: "words", label: "Fault", kind: "text", help: "What is wrong with the packets" },
    {
        key: "packets",
        label: "Packets",
        kind: "number",
        alert: "error",
        least: 5.6,
        help: "Packets of this interval",
    },
    {
        key: "seen",
        label: "Seen",
        kind: "number",
        isState: true,
        alert: "error",
        help: "Packets since the page was opened",
    },
    { key: "sender", label: "Last sender", kind: "address", help: "Who sent the last of them" },
    {
        key: "first",
        label: "First",
        kind: "time",
        drop: 2,
        help: "Time of the first packet since the page was opened",
    },
    { key: "last", label: "Last", kind: "time", drop: 1, help: "Time of the last packet" },
];

export const badColumns = [
    { key: "title", label: "Table", kind: "text", help: "Kind of traffic" },
    { key: "port", label: "Port", kind: "port", help: "UDP port" },
    { key: "group", label: "Group", kind: "address", help: "Destination address" },
    { key: "address", label: "Sender", kind: "address", help: "Address of the sender" },
    {
        key: "bad",
        label: "Bad",
        kind: "number",
        isState: true,
        alert: "error",
        help: "Packets with a fault since the page was opened",
    },
];

// Who sends forged packets may have any number of addresses.
const kMostSenders = 10000;

const kBadTables = [
    ["multicast", "Multicast", ({ bad_packets: bad }) => bad],
    ["retransmission", "Retransmission", ({ bad_packets_sent: bad }) => bad],
    ["point_to_point", "Point to point", ({ bad_packets_sent: bad }) => bad],
];

// Where a packet is in a saved capture; empty live.
function placeOf(frame, file) {
    if (frame === undefined) return "";
    return `, frame ${formatCount(frame)}${file === undefined ? "" : ` of ${file}`}`;
}

export function makeFaults() {
    const kinds = new Map();
    const senders = new Map();
    let lastTime = "";

    function addKind(key, fault) {
        const row = kinds.get(key) ?? {
            key,
            words: fault.words ?? formatKey(key),
            seen: 0,
            firstMs: Date.parse(fault.first_time),
            firstPacket: placeOf(fault.first_frame, fault.first_file),
        };
        row.packets = fault.packets;
        row.seen += fault.packets;
        row.lastMs = Date.parse(fault.last_time);
        row.lastPacket = placeOf(fault.last_frame, fault.last_file);
        row.sender = fault.last_sender ?? null;
        row.hosts = row.sender === null ? [] : [{ address: row.sender }];
        kinds.set(key, row);
    }

    function addSenders(table, title, badOf, hosts) {
        for (const host of hosts) {
            const bad = badOf(host);
            if (!(bad > 0)) continue;
            const address = host.sender ?? host.host;
            const key = `${table} ${host.port} ${host.group} ${address}`;
            const row = senders.get(key);
            if (row !== undefined) row.bad += bad;
            else if (senders.size < kMostSenders)
                senders.set(key, { key, table, title, port: host.port, group: host.group, address, bad });
        }
    }

    return {
        // A snapshot may come again after a reconnect.
        add(snapshot) {
            if (snapshot.time === lastTime) return;
            lastTime = snapshot.time;
            for (const row of kinds.values()) row.packets = 0;
            for (const [key, fault] of Object.entries(snapshot.faults)) addKind(key, fault);
            for (const [table, title, badOf] of kBadTables)
                addSenders(table, title, badOf, snapshot[table]);
        },
        // Times as text are those of the zone that is shown.
        rows: () =>
            [...kinds.values()].map((row) => ({
                ...row,
                first: formatDateTime(row.firstMs),
                last: formatDateTime(row.lastMs),
            })),
        senders: () => [...senders.values()],
    };
}
