// `pelmowatch serve` on a port that the system gives. PELMO_WATCH is the program.

import { spawn } from "node:child_process";
import { createInterface } from "node:readline";

// Resolves once it listens, to {url, stop}. Stop ends it and resolves to its status.
export async function serve(...options) {
    const words = ["serve", "--listen", "127.0.0.1:0", ...options];
    const child = spawn(process.env.PELMO_WATCH, words, { stdio: ["ignore", "ignore", "pipe"] });
    const ended = new Promise((done) => child.on("exit", done));
    const lines = [];
    for await (const line of createInterface({ input: child.stderr })) {
        lines.push(line);
        const [url] = line.match(/http:\/\/[\d.:]+\//) ?? [];
        if (url === undefined) continue;
        child.stderr.resume();
        return { url, stop: () => (child.kill("SIGTERM"), ended) };
    }
    throw new Error(`pelmowatch serve ended: ${lines.join("\n")}`);
}

// Resolves once the saved capture was read to its end.
export async function readWhole(url) {
    while ((await (await fetch(`${url}healthz`)).json()).source === "reading")
        await new Promise((done) => setTimeout(done, 50));
}
