// Why frames weren't read as packets of the bus, by the keys of the JSON's "not_read", in the words of
// watch/capture/peel.cc.

import { formatCount, formatKey } from "./format.js";

const kWords = {
    link_type: "of a link type that isn't read",
    not_ip: "not IP",
    ipv6: "IPv6",
    fragment: "fragments of IPv4 packets",
    not_udp: "not UDP",
    not_bus: "UDP but not of the bus",
    cut: "cut short by the capture",
    malformed: "with headers that contradict themselves",
    filtered: "left out by the filter",
};

export function notReadSum(counts) {
    return Object.values(counts ?? {}).reduce((sum, count) => sum + count, 0);
}

// "1 not IP, 2 IPv6"; empty where there are none.
export function notReadText(counts) {
    return Object.entries(counts ?? {})
        .filter(([, count]) => count > 0)
        .map(([key, count]) => `${formatCount(count)} ${kWords[key] ?? formatKey(key)}`)
        .join(", ");
}

// Of a capture of which nothing was the bus's; empty where there were no other frames.
export function blindText(counts) {
    const sum = notReadSum(counts);
    if (sum === 0) return "";
    const frames = sum === 1 ? "The only frame isn't" : `None of ${formatCount(sum)} frames is`;
    return `${frames} the bus's: ${notReadText(counts)}.`;
}
