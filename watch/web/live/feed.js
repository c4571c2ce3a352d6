// The connection to the server: snapshots as they come, and histories on request.

const kRetryFirstMs = 1000;
const kRetryMostMs = 10000;

// onSnapshot(object); onState("live" or "lost") when that changes.
export function openFeed({ onSnapshot, onState }) {
    let retryMs = kRetryFirstMs;
    let silence = 0;

    function connect() {
        const events = new EventSource("/events");
        events.addEventListener("open", () => {
            retryMs = kRetryFirstMs;
            onState("live");
        });
        events.addEventListener("snapshot", (event) => {
            const snapshot = JSON.parse(event.data);
            watchSilence(events, snapshot);
            onSnapshot(snapshot);
        });
        events.addEventListener("error", () => {
            onState("lost");
            clearTimeout(silence);
            // The browser tries again by itself, except behind an answer that is no stream.
            if (events.readyState === EventSource.CLOSED) retry();
        });
    }

    function retry() {
        setTimeout(connect, retryMs);
        retryMs = Math.min(retryMs * 2, kRetryMostMs);
    }

    // A connection whose other end vanished without a word looks like a quiet one. A saved capture
    // ends some time, and is silent from then on.
    function watchSilence(events, snapshot) {
        clearTimeout(silence);
        if (snapshot.file_bytes !== undefined) return;
        const patienceMs = Math.min(1000 * (3 * snapshot.elapsed_seconds + 5), 2 ** 31 - 1);
        silence = setTimeout(() => {
            events.close();
            onState("lost");
            retry();
        }, patienceMs);
    }

    connect();
}

// {interval_seconds, times, series}; of the totals where no row is given. Null where the server
// doesn't have it.
export async function fetchHistory(row = {}) {
    const query = String(
        new URLSearchParams(
            Object.entries(row).filter(([, value]) => value !== undefined && value !== null),
        ),
    );
    try {
        const answer = await fetch(query === "" ? "/history.json" : `/history.json?${query}`);
        return answer.ok ? await answer.json() : null;
    } catch {
        return null;
    }
}
