// The totals of the last 15 minutes: what the server kept when the page came, and each snapshot
// since. A series has a name like "multicast.payload_bytes", "bus_packets" or "faults.packets".

export const kHistorySeconds = 15 * 60;

// All numbers of a snapshot beside its rows.
export function numbersOf(snapshot) {
    const numbers = {};
    for (const [name, value] of Object.entries(snapshot)) {
        if (typeof value === "number") numbers[name] = value;
    }
    for (const [table, totals] of Object.entries(snapshot.totals)) {
        for (const [name, value] of Object.entries(totals)) numbers[`${table}.${name}`] = value;
    }
    numbers["faults.packets"] = 0;
    for (const [key, fault] of Object.entries(snapshot.faults)) {
        numbers[`faults.${key}`] = fault.packets;
        numbers["faults.packets"] += fault.packets;
    }
    numbers.lost_frames =
        (snapshot.kernel_dropped_frames ?? 0) + (snapshot.interface_dropped_frames ?? 0);
    return numbers;
}

export function makeHistory() {
    let times = [];
    let series = new Map();

    function trim() {
        const first = times.findIndex((time) => time > times.at(-1) - kHistorySeconds);
        if (first <= 0) return;
        times = times.slice(first);
        for (const [name, values] of series) series.set(name, values.slice(first));
    }

    return {
        // Takes over what the server kept.
        replace(kept) {
            times = kept.times.map(Number);
            series = new Map(Object.entries(kept.series));
        },
        // A snapshot that is there already, as after a reconnect, isn't added again.
        append(snapshot) {
            const time = Date.parse(snapshot.time) / 1000;
            if (times.length > 0 && time <= times.at(-1)) return;
            const numbers = numbersOf(snapshot);
            for (const name of Object.keys(numbers)) {
                if (!series.has(name)) series.set(name, new Array(times.length).fill(0));
            }
            times.push(time);
            for (const [name, values] of series) values.push(numbers[name] ?? 0);
            trim();
        },
        times: () => times,
        // 0 throughout for a name that never came.
        values: (name) => series.get(name) ?? new Array(times.length).fill(0),
    };
}
