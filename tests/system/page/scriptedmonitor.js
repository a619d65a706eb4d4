// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Stands in for quillmere-monitor where a test needs to say what it tells: the page's files, and events by the test's own words.
import { once } from "node:events";
import { readFileSync } from "node:fs";
import { createServer } from "node:http";
import { join } from "node:path";

const POLICY =
    "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self'; connect-src 'self'; base-uri 'none'; " +
    "form-action 'none'; frame-ancestors 'none'";
const FILES = {
    "/": ["index.html", "text/html; charset=utf-8"],
    "/page.js": ["page.js", "text/javascript; charset=utf-8"],
    "/page.css": ["page.css", "text/css; charset=utf-8"],
    "/icon.svg": ["icon.svg", "image/svg+xml"],
};

export class ScriptedMonitor {
    #streams = new Set();
    #server = null;
    port = 0;
    radios = new Map();
    histories = new Map();
    servers = [this.connected("127.0.0.1:9361")];
    registrations = 0;
    changes = 0;

    constructor(folder) {
        this.folder = folder;
    }

    get origin() {
        return `http://127.0.0.1:${this.port}`;
    }

    connected(server) {
        return { server, connected: true, since: new Date().toISOString(), changed: null, radios: 0, reason: null };
    }

    async start() {
        this.#server = createServer((request, answer) => this.#answer(request, answer));
        this.#server.listen(this.port, "127.0.0.1");
        await once(this.#server, "listening");
        this.port = this.#server.address().port;
    }

    async stop() {
        const closed = once(this.#server, "close");
        this.#server.close();
        this.#server.closeAllConnections();
        this.#streams.clear();
        await closed;
    }

    /** Radios as they are now; told at once. */
    tell(...radios) {
        for (const radio of radios) {
            const key = `${radio.server} ${radio.esn}`;
            if (radio.state === "gone") {
                this.radios.delete(key);
            } else {
                this.radios.set(key, radio);
            }
        }
        this.#send("radios", radios);
        this.tellStatus();
    }

    /** The whole table again, on the connections that are. */
    tellAnew() {
        this.#send("reset", {});
        this.#sendTable(this.#streams);
    }

    tellStatus() {
        this.#send("status", this.#status());
    }

    #status() {
        const states = {};
        const services = {};
        for (const { state, services: codes } of this.radios.values()) {
            states[state] = (states[state] ?? 0) + 1;
            for (const code of codes) {
                services[code] = (services[code] ?? 0) + 1;
            }
        }
        const { registrations, changes, servers } = this;
        const time = new Date().toISOString();
        return {
            time,
            started: time,
            version: "1.0.0",
            radios: this.radios.size,
            states,
            services,
            registrations,
            changes,
            servers,
        };
    }

    #rates() {
        const none = (count) => new Array(count).fill(0);
        const series = (count) => ({ registrations: none(count), changes: none(count) });
        return { time: new Date().toISOString(), seconds: series(900), minutes: series(1440) };
    }

    #send(kind, data, streams = this.#streams) {
        for (const stream of streams) {
            stream.write(`event: ${kind}\ndata: ${JSON.stringify(data)}\n\n`);
        }
    }

    #sendTable(streams) {
        this.#send("radios", [...this.radios.values()], streams);
        this.#send("snapshot", { radios: this.radios.size }, streams);
    }

    #answer(request, answer) {
        const { pathname } = new URL(request.url, this.origin);
        answer.setHeader("Content-Security-Policy", POLICY);
        answer.setHeader("X-Content-Type-Options", "nosniff");
        answer.setHeader("Referrer-Policy", "no-referrer");
        if (pathname in FILES) {
            const [file, type] = FILES[pathname];
            answer.setHeader("Content-Type", type);
            answer.end(readFileSync(join(this.folder, file)));
        } else if (pathname === "/api/events") {
            this.#stream(request, answer);
        } else if (pathname === "/api/rates") {
            this.#json(answer, this.#rates());
        } else {
            const esn = decodeURIComponent(pathname.replace("/api/radios/", ""));
            this.#json(answer, { radios: [], history: this.histories.get(esn) ?? [] });
        }
    }

    #json(answer, value) {
        answer.setHeader("Content-Type", "application/json");
        answer.end(JSON.stringify(value));
    }

    #stream(request, answer) {
        answer.setHeader("Content-Type", "text/event-stream");
        this.#send("status", this.#status(), [answer]);
        this.#sendTable([answer]);
        this.#streams.add(answer);
        const ticking = setInterval(() => this.#send("status", this.#status(), [answer]), 1000);
        request.on("close", () => {
            clearInterval(ticking);
            this.#streams.delete(answer);
        });
    }
}
