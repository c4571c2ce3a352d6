// The stream of all pages of a browser, which holds six connections to a server at most: the seventh page
// would never load. Pages that can be seen get each snapshot; hidden ones get what may be trouble only.
//
// A page sends {isSeen}, and {isGone: true} when it is left. It gets {state}, {source}, {text} of a snapshot,
// or {trouble}.

import { openStream } from "./stream.js";
import { troubleOf } from "./trouble.js";

const pages = new Map(); // whether it can be seen, by port
let close = null;
let state = null;
let source = null;
let latest = null;

function sendToAll(message) {
    for (const port of pages.keys()) port.postMessage(message);
}

function open() {
    close = openStream({
        onSource: (now) => {
            source = now;
            sendToAll({ source });
        },
        onText: (text, snapshot) => {
            latest = text;
            const trouble = troubleOf(snapshot);
            for (const [port, isSeen] of pages) port.postMessage(isSeen ? { text } : { trouble });
        },
        onState: (now) => {
            state = now;
            sendToAll({ state });
        },
    });
}

// With the last page the stream goes, so that the server doesn't count a browser without pages.
function onMessage(port, { isSeen, isGone }) {
    if (isGone) {
        pages.delete(port);
        if (pages.size > 0) return;
        close?.();
        close = state = source = latest = null;
        return;
    }
    const isNew = !pages.has(port);
    const wasSeen = pages.get(port) ?? false;
    pages.set(port, isSeen);
    if (close === null) open();
    if (isNew && source !== null) port.postMessage({ source });
    if (isNew && state !== null) port.postMessage({ state });
    if (isSeen && !wasSeen && latest !== null) port.postMessage({ text: latest });
}

self.addEventListener("connect", ({ ports: [port] }) => {
    port.addEventListener("message", ({ data }) => onMessage(port, data));
    port.start();
});
