// Faults by kind. A snapshot tells those of its interval; the page keeps what it saw of each kind
// since it was opened, since a fault that comes once an hour is gone from the next snapshot.

import { formatDateTime, formatKey } from "../shared/format.js";

export const faultColumns = [
    { key: "title", label: "Fault", kind: "text", help: "Kind of fault" },
    {
        key: "packets",
        label: "Packets",
        kind: "number",
        wide: true,
        alert: "error",
        help: "Packets of this interval",
    },
    {
        key: "seen",
        label: "Seen",
        kind: "number",
        isState: true,
        help: "Packets since the page was opened",
    },
    {
        key: "first",
        label: "First",
        kind: "time",
        minor: true,
        help: "Time of the first packet since the page was opened",
    },
    { key: "last", label: "Last", kind: "time", help: "Time of the last packet" },
];

export function makeFaults() {
    const kinds = new Map();
    let lastTime = "";

    return {
        // A snapshot may come again after a reconnect.
        add(snapshot) {
            if (snapshot.time === lastTime) return;
            lastTime = snapshot.time;
            for (const row of kinds.values()) row.packets = 0;
            for (const [key, fault] of Object.entries(snapshot.faults)) {
                const row = kinds.get(key) ?? {
                    key,
                    title: formatKey(key),
                    seen: 0,
                    first: formatDateTime(Date.parse(fault.first_time)),
                };
                row.packets = fault.packets;
                row.seen += fault.packets;
                row.last = formatDateTime(Date.parse(fault.last_time));
                kinds.set(key, row);
            }
        },
        rows: () => [...kinds.values()],
    };
}
