// The tables of the bus: their columns, how rows are called, and which charts tell a row's story.
// The names of numbers are those of the JSON; a number that it gains needs a row here to be seen.
//
// A column's `minor` leaves it out where there is little room, `spare` where there is still less; `wide`
// gives it more of what there is; `alert` is the colour of a value
// above 0, for those that should be 0 on a sound bus.

const port = { key: "port", label: "Port", kind: "port", help: "UDP port" };
const group = { key: "group", label: "Group", kind: "address", help: "Destination address" };
const address = { key: "address", label: "Host", kind: "address", help: "Address of the host" };
const scid = {
    key: "scid",
    label: "SCid",
    kind: "port",
    help: "Service port that the sender tells; – where it tells none",
};
const hostCount = {
    key: "hostCount",
    label: "Hosts",
    kind: "number",
    minor: true,
    help: "Hosts of the row",
};

function number(key, label, help, more = {}) {
    return { key, label, help, kind: "number", ...more };
}

const multicast = [
    number("data_packets", "Data", "New data packets"),
    number("payload_bytes", "Bytes", "Payload bytes of new data packets", { wide: true }),
    number("null_packets", "Null", "Null packets: the sender had nothing to send", { minor: true }),
    number("repeated_packets", "Repeats", "Data packets that came again", {
        alert: "warning",
        spare: true,
    }),
    number("repeated_bytes", "Repeat bytes", "Payload bytes of data packets that came again", {
        wide: true,
        minor: true,
        alert: "warning",
    }),
    number("missed_packets", "Gaps", "Sequence numbers passed over", { alert: "warning" }),
    number("bad_packets", "Bad", "Packets with a fault", { alert: "error" }),
];

const reliability = number(
    "reliability_seconds",
    "Reliability",
    "Reliability in seconds that the sender last told",
    { minor: true, isState: true },
);

const subjects = [
    number("messages", "Messages", "Messages on the subject", { wide: true }),
    number("message_bytes", "Bytes", "Bytes of the messages", { wide: true }),
];

// Packets between hosts are counted at both ends. A row shows what was sent, its hosts show both.
function bothSides(key, label, help, more = {}) {
    return { key, label, help, more };
}

function sent({ key, label, help, more }) {
    return number(`${key}_sent`, label, help, more);
}

function sides(pairs) {
    return pairs.flatMap(({ key, label, help, more }) => [
        number(`${key}_sent`, label, `${help}, sent by the host`, {
            ...more,
            suffix: "out",
            isFirst: true,
        }),
        number(`${key}_received`, `in`, `${help}, sent to the host`, {
            ...more,
            minor: true,
            isSecond: true,
        }),
    ]);
}

const retransmission = [
    bothSides("requests", "Requests", "Retransmission requests", { alert: "warning" }),
    bothSides("requested_packets", "Packets", "Packets asked for"),
    bothSides("rejects", "Rejects", "Requests refused", { alert: "error" }),
    bothSides("bad_packets", "Bad", "Packets with a fault", { alert: "error" }),
];

const pointToPoint = [
    bothSides("data_packets", "Data", "Data packets"),
    bothSides("payload_bytes", "Bytes", "Payload bytes", { wide: true }),
    bothSides("acknowledgement_requests", "Ack reqs", "Requests for an acknowledgement", {
        minor: true,
    }),
    bothSides("acknowledgements", "Acks", "Acknowledgements", { minor: true }),
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
            { ...group, minor: true },
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
                minor: true,
                help: "Port of the service that the requests are about",
            },
            hostCount,
            ...retransmission.map(sent),
        ],
        hostColumns: [address, scid, ...sides(retransmission)],
        sortBy: "requests_sent",
        charts: [
            {
                title: "Requests and rejects",
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
        hostColumns: [address, scid, ...sides(pointToPoint)],
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
                lines: [
                    line("loss_reports_sent", "Losses", "amber"),
                    line("bad_packets_sent", "Bad", "red"),
                ],
            },
        ],
    },
};
