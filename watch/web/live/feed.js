// The connection to the server: snapshots as they come while the page can be seen, and histories on
// request.

import { openStream } from "./stream.js";
import { troubleOf } from "./trouble.js";

// The page's policy takes no plain text for the address of a script.
function workerAddress() {
    const address = "/worker.js";
    if (globalThis.trustedTypes === undefined) return address;
    const policy = trustedTypes.createPolicy("worker", { createScriptURL: () => address });
    return policy.createScriptURL(address);
}

function isSeen() {
    return document.visibilityState === "visible";
}

// By the worker that all pages of the browser share.
function openShared(take) {
    const { port } = new SharedWorker(workerAddress(), { name: "pelmowatch" });
    port.addEventListener("message", ({ data }) => take(data));
    port.start();
    const report = () => port.postMessage({ isSeen: isSeen() });
    document.addEventListener("visibilitychange", report);
    addEventListener("pagehide", () => port.postMessage({ isGone: true }));
    addEventListener("pageshow", report);
    report();
}

// Where a browser has no such workers the page has a stream of its own, while it can be seen.
function openOwn(take) {
    let close = null;
    const follow = () => {
        if (isSeen() && close === null) {
            close = openStream({
                onSource: (source) => take({ source }),
                onText: (text, snapshot) => take({ snapshot }),
                onState: (state) => take({ state }),
            });
        } else if (!isSeen()) {
            close?.();
            close = null;
        }
    };
    document.addEventListener("visibilitychange", follow);
    addEventListener("pagehide", () => (close?.(), (close = null)));
    addEventListener("pageshow", follow);
    follow();
}

// onSnapshot(object); onSource(object), what is watched; onState("live" or "lost") when that changes; onTrouble(troubleOf a snapshot) for each
// that came while the page was hidden.
export function openFeed({ onSnapshot, onSource, onState, onTrouble }) {
    const take = ({ text, snapshot, source, state, trouble }) => {
        if (source !== undefined) onSource(source);
        if (state !== undefined) onState(state);
        if (trouble !== undefined) onTrouble(trouble);
        if (text !== undefined) onSnapshot(JSON.parse(text));
        if (snapshot !== undefined) {
            if (isSeen()) onSnapshot(snapshot);
            else onTrouble(troubleOf(snapshot));
        }
    };
    if (globalThis.SharedWorker === undefined) openOwn(take);
    else openShared(take);
}

// {interval_seconds, times, elapsed_seconds, series}; of the totals where no row is given. Null where the
// server doesn't have it.
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
