#!/usr/bin/env node
// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// An application: it follows the radios of a server, keeps a table of them, and connects anew by itself.

import { realpathSync } from "node:fs";
import net from "node:net";
import { fileURLToPath } from "node:url";

const usage = `usage: application.js HOST PORT [report=ESN@ADDRESS]
  report=0011AABB22CC33DD@127.0.0.2  tells the server, once, that this radio cannot be reached at this address`;

// --- The codec: bytes in and out, nothing else. All integers are little-endian, addresses too.

const version = 4;
const noticeType = 1;
const reportType = 2;
const largestPayload = 277;
const states = ["gone", "unreachable", "unconfirmed", "registered"];
const gone = 0;

// The header: "QMRA", version (1 byte), type (1), length of the payload (2).
const headerSize = 8;
// A notice's payload: ESN (8), SUID (7), pending (1), address (4), availability (1), service count (1), services.
const noticeSize = 22;

// The stream cannot be understood, and nothing in it tells where the next message begins.
export class Lost extends Error {}

export function hex(bytes) {
    return bytes.toString("hex").toUpperCase();
}

function decodeNotice(payload) {
    if (payload.length < noticeSize || payload.length !== noticeSize + payload[21]) {
        throw new Lost("a notice whose length and service count disagree");
    }
    const [pending, availability] = [payload[15], payload[20]];
    return {
        esn: hex(payload.subarray(0, 8)),
        suid: hex(payload.subarray(8, 15)),
        pending,
        address: [...payload.subarray(16, 20)].reverse().join("."),
        availability,
        services: [...payload.subarray(noticeSize)],
        state: pending ? "pending" : (states[availability] ?? String(availability)),
        // Whether the radio is in no table any more.
        removes: !pending && availability === gone,
    };
}

// Cuts what comes into messages. What TCP delivers may end anywhere: the rest stays for the next time.
export class Reader {
    rest = Buffer.alloc(0);

    *notices(data) {
        this.rest = Buffer.concat([this.rest, data]);
        while (this.rest.length >= headerSize) {
            const length = this.rest.readUInt16LE(6);
            if (this.rest.toString("latin1", 0, 4) !== "QMRA" || this.rest[4] !== version || length > largestPayload) {
                throw new Lost("not a message of this protocol");
            }
            if (this.rest.length < headerSize + length) {
                return;
            }
            const type = this.rest[5];
            const payload = this.rest.subarray(headerSize, headerSize + length);
            this.rest = this.rest.subarray(headerSize + length);
            // A later server may have more to say: other types are skipped.
            if (type === noticeType) {
                yield decodeNotice(payload);
            }
        }
    }
}

export function report(esn, address) {
    const header = Buffer.from([...Buffer.from("QMRA"), version, reportType, 12, 0]);
    return Buffer.concat([header, esn, Buffer.from(address.split(".").map(Number).reverse())]);
}

// --- The program. Times are in milliseconds.

const firstPause = 1000; // before the next attempt to connect
const longestPause = 60000;
const connecting = 10000; // an attempt may take so long
const silence = 2000; // without a notice, ends a table: a server sends it without pauses
const keepAliveIdle = 20000;

function say(text) {
    console.log(text);
}

class Application {
    constructor({ host, port, toReport }) {
        Object.assign(this, { host, port, toReport });
        this.pause = firstPause;
        this.table = new Map(); // notices by ESN; the old table is in use until a new one is complete
        this.told = null; // the ESNs of the new table so far; null: it is complete
        this.last = null; // the last of them
        this.timer = null; // of the next attempt, of this one, or of the silence that ends a table
    }

    run() {
        const stop = () => {
            clearTimeout(this.timer);
            this.socket.removeAllListeners("close");
            this.socket.destroy();
        };
        process.once("SIGINT", stop);
        process.once("SIGTERM", stop);
        this.connect();
    }

    connect() {
        let reason = "the server has closed the connection";
        const reader = new Reader();
        // A server whose network is cut off says nothing, like one where nothing happens. TCP asks in the silence. Node
        // sets when it begins; the probes are ten, a second apart, where its platform layer can set that. While a report is
        // on its way TCP does not ask: for that it has a patience of its own, of many minutes.
        this.socket = net.connect({
            host: this.host,
            port: this.port,
            family: 4,
            keepAlive: true,
            keepAliveInitialDelay: keepAliveIdle,
        });
        this.timer = setTimeout(() => this.socket.destroy(new Error("no answer")), connecting);
        this.socket.on("connect", () => {
            say(`connected to ${this.host}:${this.port}`);
            this.told = new Set();
            this.last = "";
            this.awaitSilence();
        });
        this.socket.on("data", (data) => {
            try {
                for (const notice of reader.notices(data)) {
                    this.take(notice);
                }
            } catch (error) {
                this.socket.destroy(error);
            }
        });
        this.socket.on("error", (error) => {
            reason = error.message;
        });
        this.socket.on("close", () => {
            say(`disconnected: ${reason}`);
            clearTimeout(this.timer);
            // Drawn by lot, so that a thousand applications do not come at once when a server is back.
            this.timer = setTimeout(() => this.connect(), (this.pause / 2) * (1 + Math.random()));
            this.pause = Math.min(2 * this.pause, longestPause);
        });
    }

    // A quiet server is healthy: once the table is complete, there is no end to the wait.
    awaitSilence() {
        clearTimeout(this.timer);
        this.timer = setTimeout(() => {
            // It may be the program that was held up: what waits in the socket, or its end, is read first.
            const { last } = this;
            setImmediate(() => {
                if (this.told && this.last === last && this.socket.readable) {
                    this.complete();
                }
            });
        }, silence);
    }

    take(notice) {
        // A table is told in the order of the ESNs and has no mark at its end. What is out of order is a change. As
        // capital digits they are in the order of their bytes.
        if (this.told && notice.esn <= this.last) {
            this.complete();
        }
        if (this.told) {
            this.told.add(notice.esn);
            this.last = notice.esn;
            this.awaitSilence();
        }
        if (notice.removes) {
            this.table.delete(notice.esn);
        } else {
            this.table.set(notice.esn, notice);
        }
        say(`${notice.esn} ${notice.state} ${notice.address} ${notice.services.join(",") || "-"}`);
    }

    complete() {
        clearTimeout(this.timer);
        for (const esn of [...this.table.keys()].filter((known) => !this.told.has(known)).sort()) {
            this.table.delete(esn);
            say(`${esn} left`);
        }
        this.told = null;
        this.pause = firstPause;
        say(`table complete: ${this.table.size} radios`);
        if (this.toReport) {
            const { esn, address } = this.toReport;
            this.socket.write(report(esn, address));
            this.toReport = null;
            say(`reported ${hex(esn)} at ${address}`);
        }
    }
}

// null for what cannot be understood.
function parse([host, port, ...settings]) {
    let toReport = null;
    for (const setting of settings) {
        const [, esn, address] = /^report=([0-9A-Fa-f]{16})@(.+)$/.exec(setting) ?? [];
        if (!esn || !net.isIPv4(address)) {
            return null;
        }
        toReport = { esn: Buffer.from(esn, "hex"), address };
    }
    if (!/^[0-9]{1,5}$/.test(port) || Number(port) < 1 || Number(port) > 65535) {
        return null;
    }
    return { host, port: Number(port), toReport };
}

// Only where this file is the program: others may want its codec.
if (process.argv[1] && realpathSync(process.argv[1]) === fileURLToPath(import.meta.url)) {
    const options = parse(process.argv.slice(2));
    if (options) {
        new Application(options).run();
    } else {
        console.error(usage);
        process.exitCode = 2;
    }
}
