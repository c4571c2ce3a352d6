// What the capture holds: its time, its files, the filter, and the sums.

import { element, setText } from "../shared/dom.js";
import { formatCount, formatDateTime, formatShort, formatSpan } from "../shared/format.js";
import { blindText, notReadSum, notReadText } from "../shared/not_read.js";

function fact(name, value, note = "") {
    return element(
        "div",
        {},
        element("dt", {}, name),
        element("dd", {}, value, note === "" ? null : element("small", {}, note)),
    );
}

function facts({ capture, totals }) {
    const { multicast, subjects, retransmission, point_to_point: pointToPoint } = totals;
    const unread = notReadSum(capture.not_read);
    const size = formatShort(capture.file_bytes || capture.read_bytes, "B");
    return [
        fact("Files", capture.files.join(", "), size),
        fact("Filter", capture.filter ?? "none"),
        fact(
            "Bus packets",
            formatCount(capture.bus_packets),
            `of ${formatCount(capture.frames)} frames`,
        ),
        fact("Messages", formatCount(subjects.messages), formatShort(subjects.message_bytes, "B")),
        fact(
            "Data packets",
            formatCount(multicast.data_packets),
            formatShort(multicast.payload_bytes, "B"),
        ),
        fact("Subjects", formatCount(capture.subjects), `on ${formatCount(capture.groups)} groups`),
        fact("Senders", formatCount(capture.senders), `on ${formatCount(capture.ports)} ports`),
        fact(
            "Gaps",
            formatCount(multicast.missed_packets),
            `${formatCount(multicast.repeated_packets)} repeats`,
        ),
        fact(
            "Requests",
            formatCount(retransmission.requests_sent),
            `${formatCount(retransmission.rejects_sent)} rejects`,
        ),
        fact(
            "Point to point",
            formatCount(pointToPoint.data_packets_sent),
            formatShort(pointToPoint.payload_bytes_sent, "B"),
        ),
        ...(unread === 0
            ? []
            : [fact("Not the bus's", formatCount(unread), notReadText(capture.not_read))]),
    ];
}

function notices({ capture, comparison }) {
    const words = [];
    if (capture.bus_packets === 0 && notReadSum(capture.not_read) > 0)
        words.push(blindText(capture.not_read));
    if (!capture.is_whole)
        words.push("The capture wasn't read to its end: the report covers what came before that.");
    const span = (Date.parse(capture.end_time) - Date.parse(capture.begin_time)) / 1000;
    if (Math.abs(span - capture.elapsed_seconds) > 1)
        words.push(
            `The clock was set during the capture: its ${formatSpan(capture.elapsed_seconds)} lie within ${formatSpan(span)} of the clock.`,
        );
    if (comparison?.is_whole === false)
        words.push(
            "The captures have more than the tables hold: rows may seem to have come or gone.",
        );
    return words;
}

export function showOverview(data) {
    const { capture } = data;
    const begin = Date.parse(capture.begin_time);
    const end = Date.parse(capture.end_time);
    const zone = Intl.DateTimeFormat().resolvedOptions().timeZone;
    const title =
        capture.files.length === 1
            ? capture.files[0].split("/").at(-1)
            : `${capture.files.length} files`;
    document.title = `${title} – pelmowatch`;
    setText(document.getElementById("title"), title);
    document
        .getElementById("span")
        .append(
            ...(capture.frames === 0
                ? ["No frames."]
                : [
                      `${formatDateTime(begin)} to ${formatDateTime(end)} ${zone}, `,
                      element("span", {}, formatSpan(capture.elapsed_seconds)),
                  ]),
        );
    document.getElementById("facts").append(...facts(data));
    const notice = document.getElementById("notice");
    const words = notices(data);
    notice.hidden = words.length === 0;
    setText(notice, words.join(" "));
    setText(
        document.getElementById("made"),
        `Made by ${data.program}. Numbers over time are those of intervals of ${formatSpan(data.timeline.interval_seconds)}.`,
    );
}
