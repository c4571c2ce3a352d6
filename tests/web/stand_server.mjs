// A server of the test's own: the built pages, snapshots that the test hands it, and the histories
// of what it handed on. It answers as `pelmowatch serve` does, and can hang up.

import { createServer } from "node:http";
import { readFileSync } from "node:fs";
import { join } from "node:path";

const kFiles = {
    "/": ["index.html", "text/html; charset=utf-8"],
    "/page.js": ["page.js", "text/javascript; charset=utf-8"],
    "/page.css": ["page.css", "text/css; charset=utf-8"],
};

// The policy stands in the header that the real server sends it from.
function securityPolicy(header) {
    const text = readFileSync(header, "utf8");
    const lines = text.slice(text.indexOf("kWebContentSecurityPolicy")).split(";\n")[0];
    return [...lines.matchAll(/"([^"]*)"/g)].map((match) => match[1]).join("");
}

function flatNumbers(snapshot) {
    const numbers = { bus_packets: snapshot.bus_packets };
    for (const [table, totals] of Object.entries(snapshot.totals)) {
        for (const [name, value] of Object.entries(totals)) numbers[`${table}.${name}`] = value;
    }
    return numbers;
}

// Sums the numbers of the rows of `table` that the query names.
function rowNumbers(snapshot, query) {
    const fits = (row) => ["port", "group", "subject", "scid"].every((name) => !query.has(name) || String(row[name]) === query.get(name)) &&
        (!query.has("host") || [row.sender, row.host].includes(query.get("host")));
    const numbers = {};
    for (const row of snapshot[query.get("table")].filter(fits)) {
        for (const [name, value] of Object.entries(row)) {
            if (/_|messages/.test(name) && typeof value === "number") numbers[name] = (numbers[name] ?? 0) + value;
        }
    }
    return numbers;
}

function historyOf(snapshots, query) {
    const numbers = snapshots.map((snapshot) => (query.has("table") ? rowNumbers(snapshot, query) : flatNumbers(snapshot)));
    const names = new Set(numbers.flatMap((one) => Object.keys(one)));
    return {
        interval_seconds: snapshots[0]?.elapsed_seconds ?? 1,
        times: snapshots.map((snapshot) => Date.parse(snapshot.time) / 1000),
        series: Object.fromEntries([...names].map((name) => [name, numbers.map((one) => one[name] ?? 0)])),
    };
}

// Listens on a port of the loopback that the system gives.
export async function standServer(site, header) {
    const policy = securityPolicy(header);
    const sent = [];
    const streams = new Set();

    function answer(response, type, body) {
        response.writeHead(200, { "Content-Type": type, "Content-Security-Policy": policy, "Cache-Control": "no-store" });
        response.end(body);
    }

    function stream(response) {
        response.writeHead(200, { "Content-Type": "text/event-stream", "Cache-Control": "no-store" });
        response.write("retry: 200\n\n");
        if (sent.length > 0) response.write(eventOf(sent.at(-1)));
        streams.add(response);
        response.on("close", () => streams.delete(response));
    }

    const eventOf = (snapshot) => `event: snapshot\ndata: ${JSON.stringify(snapshot)}\n\n`;
    const server = createServer((request, response) => {
        const url = new URL(request.url, "http://localhost");
        const file = kFiles[url.pathname];
        if (file) answer(response, file[1], readFileSync(join(site, file[0])));
        else if (url.pathname === "/events") stream(response);
        else if (url.pathname === "/snapshot.json") answer(response, "application/json", JSON.stringify(sent.at(-1)));
        else if (url.pathname === "/history.json") answer(response, "application/json", JSON.stringify(historyOf(sent, url.searchParams)));
        else response.writeHead(404).end();
    });
    const listen = (port) => new Promise((done) => server.listen(port, "127.0.0.1", done));
    await listen(0);
    const { port } = server.address();
    return {
        url: `http://127.0.0.1:${port}/`,
        send(snapshot) {
            sent.push(snapshot);
            for (const response of streams) response.write(eventOf(snapshot));
        },
        async hangUp() {
            const closed = new Promise((done) => server.close(done));
            server.closeAllConnections();
            await closed;
        },
        comeBack: () => listen(port),
    };
}
