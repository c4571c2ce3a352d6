// The page's head: what is watched, whether it lives, of when the numbers are; what was lost here; and the
// title and icon by which a page in another tab calls.

import { setAttribute, setText } from "../shared/dom.js";
import { formatCount, formatDateTime, formatSpan, formatTime, formatZone } from "../shared/format.js";
import { blindText, notReadText } from "../shared/not_read.js";
import { addTrouble, troubleWords } from "./trouble.js";

const byId = (id) => document.getElementById(id);

// What is watched, in short.
function sourceName({ interface: name, files, file_count: count }) {
    if (name) return name;
    return files?.length === 1 && !(count > 1) ? files[0].split("/").at(-1) : `${count ?? files?.length ?? 0} files`;
}

// States in which nothing comes that should.
const kDead = ["failed", "waiting"];

// A loss is shown for so long, so that the page doesn't jump with each interval.
const kLossMs = 60000;

export function makeHead() {
    const icon = document.querySelector("link[rel=icon]");
    const plainIcon = icon.href;
    const alarmIcon = plainIcon.replace("%232864b4", "%23b52d25");
    let connection = "connecting";
    let lostSince = null;
    let losses = []; // {timeMs, frames} of the last minute
    let missed = null; // trouble while the page was hidden
    const unread = {}; // frames by reason, since the page was opened
    let sawBus = false;
    let source = null; // as the server sent it

    const isDead = () => kDead.includes(source?.state);

    function showState() {
        const isLost = connection === "lost";
        const isConnected = connection === "live";
        byId("state").className = isLost || isDead() ? "lost" : isConnected ? (source?.state ?? "live") : "";
        setText(
            byId("state"),
            isLost ? "connection lost" : isConnected ? (source?.words ?? "connected") : "connecting",
        );
        byId("dead").hidden = !isDead();
        if (isDead())
            setText(
                byId("dead"),
                `No packets since ${formatTime(Date.parse(source.state_time))}: ${source.words}. What the page shows is the last it got.`,
            );
    }

    function showLost() {
        byId("lost").hidden = connection !== "lost";
        if (connection !== "lost") return;
        setText(
            byId("lost"),
            `The connection is lost since ${formatTime(lostSince)}. The page tries again by itself; what it shows is the last it got.`,
        );
    }

    function showSource() {
        if (source === null) return;
        const since = Date.parse(source.since_time);
        const parts = [
            sourceName(source),
            `on ${source.host}`,
            source.filter && `filter “${source.filter}”`,
            source.files === null && `since ${formatDateTime(since)}`,
        ];
        setText(byId("source"), parts.filter(Boolean).join(" · "));
        const files = source.files?.join("\n") ?? "";
        setAttribute(byId("source"), "title", `${byId("source").textContent}\n${files}`.trim());
    }

    function showTitle() {
        const name = source === null ? location.host : `${sourceName(source)} on ${source.host}`;
        const words = [
            connection === "lost" ? "connection lost" : isDead() ? source.words : "",
            troubleWords(missed, formatCount),
        ].filter(Boolean);
        document.title = `${words.length > 0 ? `(${words.join(", ")}) ` : ""}${name} – pelmowatch`;
        const wanted = words.length > 0 ? alarmIcon : plainIcon;
        if (icon.href !== wanted) icon.href = wanted;
    }

    function showLosses({ snapshot, timeMs }) {
        const frames =
            (snapshot.kernel_dropped_frames ?? 0) + (snapshot.interface_dropped_frames ?? 0);
        losses = losses.filter((loss) => loss.timeMs < timeMs && timeMs - loss.timeMs < kLossMs);
        if (frames > 0) losses.push({ timeMs, frames });
        const sum = losses.reduce((all, loss) => all + loss.frames, 0);
        byId("drops").hidden = sum === 0;
        setText(
            byId("drops"),
            sum === 0
                ? ""
                : `This machine lost ${formatCount(sum)} frames, last at ${formatTime(losses.at(-1).timeMs)}: gaps of that time may be its own.`,
        );
    }

    // Nothing of the bus so far is a warning; what else a mirror port brings is only said.
    function showUnread() {
        const text = notReadText(unread);
        const words = sawBus ? `Not the bus's since this page was opened: ${text}.` : blindText(unread);
        byId("unread").hidden = text === "";
        byId("unread").classList.toggle("warning", !sawBus);
        setText(byId("unread"), text === "" ? "" : words);
    }

    // Each interval, shown or not.
    function count(snapshot, hadBus) {
        sawBus ||= hadBus || snapshot.bus_packets > 0;
        for (const [key, frames] of Object.entries(snapshot.not_read ?? {}))
            unread[key] = (unread[key] ?? 0) + frames;
    }

    function show(model, isRate) {
        const { timeMs, elapsedSeconds, snapshot } = model;
        const isEmpty = timeMs === 0;
        setText(
            byId("time"),
            isEmpty ? "no packet" : `${formatDateTime(timeMs)} ${formatZone(timeMs)}`,
        );
        const step = snapshot.clock_step_seconds;
        const span = formatSpan(elapsedSeconds);
        const words = [
            isEmpty ? "" : isRate ? `rates a second over ${span}` : `counts of ${span}`,
            snapshot.skipped_seconds ? `after ${formatSpan(snapshot.skipped_seconds)} of silence` : "",
            step ? `the clock was set ${formatSpan(Math.abs(step))} ${step < 0 ? "back" : "on"}` : "",
        ];
        setText(byId("interval"), words.filter(Boolean).join(", "));
        showSource();
        showLosses(model);
        showUnread();
    }

    return {
        show,
        count,
        setSource: (now) => {
            source = now;
            showSource();
            showState();
            showTitle();
        },
        setConnection: (now) => {
            connection = now;
            if (now === "lost") lostSince ??= Date.now();
            else lostSince = null;
            showLost();
            showState();
            showTitle();
        },
        // Of an interval while the page was hidden; null once it is seen.
        addTrouble: (trouble) => {
            missed = trouble === null ? null : addTrouble(missed, trouble);
            showTitle();
        },
    };
}
