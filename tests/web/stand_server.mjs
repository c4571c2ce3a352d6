// A server of the test's own, for what `pelmowatch serve` can't be made to do: it sends the snapshots
// that the test hands it, and hangs up when told to. It keeps no history.

import { createServer } from "node:http";
import { readFileSync } from "node:fs";
import { join } from "node:path";

const kFiles = {
    "/": ["index.html", "text/html; charset=utf-8"],
    "/page.js": ["page.js", "text/javascript; charset=utf-8"],
    "/page.css": ["page.css", "text/css; charset=utf-8"],
};
const kNoHistory = JSON.stringify({ interval_seconds: 1, times: [], series: {} });

// Listens on a port of the loopback that the system gives. `site` is the folder of the built page.
export async function standServer(site) {
    let latest = null;
    const streams = new Set();
    const eventOf = (snapshot) => `event: snapshot\ndata: ${JSON.stringify(snapshot)}\n\n`;

    function answer(response, type, body) {
        response.writeHead(200, { "Content-Type": type, "Cache-Control": "no-store" });
        response.end(body);
    }

    function stream(response) {
        response.writeHead(200, {
            "Content-Type": "text/event-stream",
            "Cache-Control": "no-store",
        });
        response.write("retry: 200\n\n");
        if (latest !== null) response.write(eventOf(latest));
        streams.add(response);
        response.on("close", () => streams.delete(response));
    }

    const server = createServer((request, response) => {
        const { pathname } = new URL(request.url, "http://localhost");
        const file = kFiles[pathname];
        if (file) answer(response, file[1], readFileSync(join(site, file[0])));
        else if (pathname === "/events") stream(response);
        else if (pathname === "/history.json") answer(response, "application/json", kNoHistory);
        else response.writeHead(404).end();
    });
    const listen = (port) => new Promise((done) => server.listen(port, "127.0.0.1", done));
    await listen(0);
    const { port } = server.address();
    return {
        url: `http://127.0.0.1:${port}/`,
        send(snapshot) {
            latest = snapshot;
            for (const response of streams) response.write(eventOf(snapshot));
        },
        async stop() {
            const closed = new Promise((done) => server.close(done));
            server.closeAllConnections();
            await closed;
        },
        comeBack: () => listen(port),
    };
}
