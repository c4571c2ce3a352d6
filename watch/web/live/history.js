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

// {times, elapsed, values(name)} of an answer of the server's, without its texts.
export function readKept(kept) {
    const times = kept.times.map(Number);
    return {
        times,
        elapsed: kept.elapsed_seconds ?? times.map(() => kept.interval_seconds),
        values: (name) => kept.series[name] ?? times.map(() => 0),
    };
}

export function makeHistory() {
    // {time, elapsed, numbers} of each interval, oldest first.
    let points = [];

    // A clock that was set back begins the history again.
    function add(point) {
        const last = points.at(-1);
        if (last !== undefined && point.time < last.time) points = [];
        if (last === undefined || point.time !== last.time) points.push(point);
        const first = points.findIndex(({ time }) => time > point.time - kHistorySeconds);
        if (first > 0) points = points.slice(first);
    }

    return {
        // Takes over what the server kept, and keeps what came while it was under way.
        replace(kept) {
            const { times, elapsed } = readKept(kept);
            const newer = points.filter(({ time }) => times.length > 0 && time > times.at(-1));
            const names = Object.keys(kept.series);
            const numbersAt = (i) => Object.fromEntries(names.map((name) => [name, kept.series[name][i]]));
            points = times.map((time, i) => ({ time, elapsed: elapsed[i], numbers: numbersAt(i) }));
            newer.forEach(add);
        },
        // A snapshot that is there already, as after a reconnect, isn't added again.
        append(snapshot) {
            add({
                time: Date.parse(snapshot.time) / 1000,
                elapsed: snapshot.elapsed_seconds,
                numbers: numbersOf(snapshot),
            });
        },
        times: () => points.map(({ time }) => time),
        elapsed: () => points.map(({ elapsed }) => elapsed),
        // 0 throughout for a name that never came.
        values: (name) => points.map(({ numbers }) => numbers[name] ?? 0),
    };
}
