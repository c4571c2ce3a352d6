// The tables of the bus: their columns, how rows are called, and which charts tell a row's story.
// The names of numbers are those of the JSON; a number that it gains needs a row here to be seen.
//
// A column's `drop` lets it go where there is little room, the highest first (layout.js); `wide` gives its
// numbers more of what there is, and `least` is what a long heading needs, in em; `fixed` is the width of
// texts that are all short, in em; `isExact` is for numbers that aren't shortened, as names of something;
// `alert` is the colour of a value above 0, for those that should be 0 on a sound bus.

const port = { key: "port", label: "Port", kind: "port", help: "UDP port" };
const group = { key: "group", label: "Group", kind: "address", help: "Destination address" };
const address = { key: "address", label: "Host", kind: "address", help: "Address of the host" };
const scid = {
    key: "scid",
    label: "SCid",
    kind: "port",
    drop: 1,
    help: "Service port that the sender gives; – where it gives none",
};
const hostCount = {
    key: "hostCount",
    label: "Hosts",
    kind: "number",
    isState: true,
    drop: 8,
    help: "Hosts of the row",
};

function number(key, label, help, more = {}) {
    return { key, label, help, kind: "number", ...more };
}

const multicast = [
    number("data_packets", "Data", "New data packets", { drop: 3 }),
    number("payload_bytes", "Bytes", "Payload bytes of new data packets", { wide: true }),
    number("null_packets", "Null", "Null packets: the sender had nothing to send", { drop: 9 }),
    number("repeated_packets", "Repeats", "Data packets that came again", { alert: "warning" }),
    number("repeated_bytes", "Repeat bytes", "Payload bytes of data packets that came again", {
        wide: true,
        drop: 5,
        alert: "warning",
    }),
    number("missed_packets", "Gaps", "Sequence numbers passed over", { alert: "warning" }),
    number("bad_packets", "Bad", "Packets with a fault", { alert: "error" }),
];

const reliability = number(
    "reliability_seconds",
    "Reliability",
    "Reliability in seconds, as the sender last gave it",
    { isState: true, drop: 4, heading: "Relia\u00adbility" },
);

const subjects = [
    number("messages", "Messages", "Messages on the subject", { wide: true, least: 6 }),
    number("message_bytes", "Bytes", "Bytes of the messages", { wide: true }),
];

// Packets between hosts are counted at both ends. A row shows what was sent; each of its hosts has a
// line of what it sent and one of what was sent to it (hostLines).
function bothSides(key, label, help, more = {}) {
    return { key, label, help, more };
}

function sent({ key, label, help, more }) {
    return number(`${key}_sent`, label, help, more);
}

function eitherWay({ key, label, help, more }) {
    return number(key, label, help, more);
}

const way = {
    key: "way",
    label: "Way",
    kind: "way",
    help: "out: what the host sent; in: what was sent to it",
};

const retransmission = [
    bothSides("requests", "Requests", "Retransmission requests", { alert: "warning", least: 5.6 }),
    bothSides("requested_packets", "Packets", "Packets asked for", { drop: 5 }),
    bothSides("rejects", "Rejects", "Requests refused", { alert: "error" }),
    bothSides("bad_packets", "Bad", "Packets with a fault", { alert: "error" }),
];

const pointToPoint = [
    bothSides("data_packets", "Data", "Data packets", { drop: 3 }),
    bothSides("payload_bytes", "Bytes", "Payload bytes", { wide: true }),
    bothSides("acknowledgement_requests", "Ack reqs", "Requests for an acknowledgement", {
        drop: 7,
    }),
    bothSides("acknowledgements", "Acks", "Acknowledgements", { drop: 6 }),
    bothSides("loss_reports", "Losses", "Reports of loss", { alert: "warning" }),
    bothSides("bad_packets", "Bad", "Packets with a fault", { alert: "error" }),
];

// A line of a chart, by its number; `colour` is a variable of the style sheet.
function line(key, label, colour) {
    return { key, label, colour };
}

export const tables = {
    multicast: {
        title: "Multicast",
        columns: [port, group, hostCount, ...multicast],
        hostColumns: [{ ...address, label: "Sender" }, scid, ...multicast, reliability],
        sortBy: "payload_bytes",
        charts: [
            { title: "Payload bytes", unit: "B", lines: [line("payload_bytes", "Bytes", "blue")] },
            {
                title: "Packets",
                lines: [line("data_packets", "Data", "blue"), line("null_packets", "Null", "grey")],
            },
            {
                title: "Trouble",
                bars: true,
                lines: [
                    line("missed_packets", "Gaps", "amber"),
                    line("repeated_packets", "Repeats", "violet"),
                    line("bad_packets", "Bad", "red"),
                ],
            },
        ],
    },
    subjects: {
        title: "Subjects",
        columns: [
            { key: "subject", label: "Subject", kind: "text", help: "Subject" },
            port,
            { ...group, drop: 5 },
            ...subjects,
        ],
        hostColumns: [{ ...address, label: "Sender" }, scid, ...subjects],
        sortBy: "message_bytes",
        charts: [
            { title: "Messages", lines: [line("messages", "Messages", "blue")] },
            { title: "Message bytes", unit: "B", lines: [line("message_bytes", "Bytes", "blue")] },
        ],
    },
    retransmission: {
        title: "Retransmission",
        columns: [
            port,
            {
                key: "servicePort",
                label: "Service",
                kind: "port",
                drop: 9,
                help: "Port of the service that the requests are about",
            },
            hostCount,
            ...retransmission.map(sent),
        ],
        hostColumns: [address, scid, way, ...retransmission.map(eitherWay)],
        ways: retransmission.map(({ key }) => key),
        sortBy: "requests_sent",
        charts: [
            {
                title: "Requests and rejects",
                bars: true,
                lines: [
                    line("requests_sent", "Requests", "amber"),
                    line("rejects_sent", "Rejects", "red"),
                ],
            },
            {
                title: "Packets asked for",
                lines: [line("requested_packets_sent", "Packets", "blue")],
            },
        ],
    },
    point_to_point: {
        title: "Point to point",
        columns: [port, hostCount, ...pointToPoint.map(sent)],
        hostColumns: [address, scid, way, ...pointToPoint.map(eitherWay)],
        ways: pointToPoint.map(({ key }) => key),
        sortBy: "payload_bytes_sent",
        charts: [
            {
                title: "Payload bytes",
                unit: "B",
                lines: [line("payload_bytes_sent", "Bytes", "blue")],
            },
            {
                title: "Packets",
                lines: [
                    line("data_packets_sent", "Data", "blue"),
                    line("acknowledgement_requests_sent", "Ack requests", "grey"),
                    line("acknowledgements_sent", "Acks", "green"),
                ],
            },
            {
                title: "Trouble",
                bars: true,
                lines: [
                    line("loss_reports_sent", "Losses", "amber"),
                    line("bad_packets_sent", "Bad", "red"),
                ],
            },
        ],
    },
};

const suffixes = { out: "_sent", in: "_received" };

// The name of a number of a host's line, or of a row, in the JSON.
export function numberName(key, way) {
    return key.replace(/_sent$/, suffixes[way] ?? "_sent");
}

// Hosts as their table shows them: a line of each way that isn't all zero where the table counts both.
export function hostLines(name, hosts) {
    const ways = tables[name]?.ways;
    if (ways === undefined) return hosts;
    return hosts.flatMap((host) => {
        const lines = Object.entries(suffixes).map(([wayName, suffix]) => ({
            ...host,
            way: wayName,
            ...Object.fromEntries(ways.map((key) => [key, host[key + suffix]])),
        }));
        const busy = lines.filter((one) => ways.some((key) => one[key] > 0));
        return busy.length === 0 ? lines.slice(0, 1) : busy;
    });
}
