// The stream of events of the server, held open: what comes, and whether it does.

const kRetryFirstMs = 1000;
const kRetryMostMs = 10000;

// Only a live capture has an interval after the other for sure: a saved one may hold an hour of silence.
function isLive(source, snapshot) {
    if (source === null) return snapshot.file_bytes === undefined;
    return source.state === "live" || source.state === "down";
}

// onSource(object) is what is watched, and how that is; onText(text of a snapshot, snapshot); onState("live"
// or "lost") when that changes. Answers what closes it.
export function openStream({ onSource, onText, onState }) {
    let events = null;
    let source = null;
    let retryMs = kRetryFirstMs;
    let timer = 0;
    let silence = 0;

    function connect() {
        events = new EventSource("/events");
        events.addEventListener("open", () => {
            retryMs = kRetryFirstMs;
            onState("live");
        });
        events.addEventListener("source", (event) => {
            source = JSON.parse(event.data);
            if (!isLive(source, null)) clearTimeout(silence);
            onSource(source);
        });
        events.addEventListener("snapshot", (event) => {
            const snapshot = JSON.parse(event.data);
            watchSilence(snapshot);
            onText(event.data, snapshot);
        });
        events.addEventListener("error", () => {
            onState("lost");
            clearTimeout(silence);
            // The browser tries again by itself, except after an answer that is no stream.
            if (events.readyState === EventSource.CLOSED) retry();
        });
    }

    function retry() {
        timer = setTimeout(connect, retryMs);
        retryMs = Math.min(retryMs * 2, kRetryMostMs);
    }

    // A connection whose other end vanished without a word looks like a quiet one.
    function watchSilence(snapshot) {
        clearTimeout(silence);
        if (!isLive(source, snapshot)) return;
        const patienceMs = Math.min(1000 * (3 * snapshot.elapsed_seconds + 5), 2 ** 31 - 1);
        silence = setTimeout(() => {
            events.close();
            onState("lost");
            retry();
        }, patienceMs);
    }

    connect();
    return () => {
        clearTimeout(timer);
        clearTimeout(silence);
        events.close();
    };
}
