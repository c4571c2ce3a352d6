// What of a snapshot asks for a look, as a hidden page says it in its title.

const kinds = [
    ["gaps", ({ totals }) => totals.multicast.missed_packets],
    ["rejects", ({ totals }) => totals.retransmission.rejects_sent],
    ["faults", ({ faults }) => Object.values(faults).reduce((sum, { packets }) => sum + packets, 0)],
];

export function troubleOf(snapshot) {
    return Object.fromEntries(kinds.map(([name, count]) => [name, count(snapshot)]));
}

export function addTrouble(sum, more) {
    return Object.fromEntries(kinds.map(([name]) => [name, (sum?.[name] ?? 0) + more[name]]));
}

// "3 gaps, 1 faults"; empty where there is none.
export function troubleWords(trouble, format) {
    return Object.entries(trouble ?? {})
        .filter(([, count]) => count > 0)
        .map(([name, count]) => `${format(count)} ${count === 1 ? name.slice(0, -1) : name}`)
        .join(", ");
}
