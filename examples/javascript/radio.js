#!/usr/bin/env node
// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// A radio: it registers with a server, keeps its registration, and deregisters when it is ended (Ctrl-C).

import dgram from "node:dgram";
import { lookup } from "node:dns/promises";
import { realpathSync } from "node:fs";
import { isIPv4 } from "node:net";
import { fileURLToPath } from "node:url";

const usage = `usage: radio.js HOST PORT [name=value ...]
  esn=0011AABB22CC33DD  16 hexadecimal digits; all zero: the server makes one
  suid=123456789ABCDE   14 hexadecimal digits: WACN (5), System (3), Unit (6)
  services=1,3          codes from 0 to 255, at most 255 of them; may be empty
  pending=0             1: the registration awaits confirmation
  local=0.0.0.0:PORT    address and port of the radio; PORT is the server's
  period=21600          seconds between registrations, at most 999999; when pending: 10`;

// --- The codec: bytes in and out, nothing else. All integers are little-endian.

const version = 3;
export const acknowledgement = 2;
const deregistrationOpcode = 3;
export const discoveryRequest = 4;
const extendedRegistration = 5;
const payloadSizes = new Map([
    [acknowledgement, 1],
    [discoveryRequest, 0],
]);
const noEsn = Buffer.alloc(8);

// The header: "QMRS", version (1 byte), ESN (8), opcode (1), length of the payload (2).
const headerSize = 16;

function datagram(esn, opcode, payload = Buffer.alloc(0)) {
    const length = Buffer.from([payload.length & 0xff, payload.length >> 8]);
    return Buffer.concat([Buffer.from("QMRS"), Buffer.from([version]), esn, Buffer.from([opcode]), length, payload]);
}

export function registration(esn, suid, pending, services) {
    const payload = Buffer.concat([suid, Buffer.from([pending, services.length]), Buffer.from(services)]);
    return datagram(esn, extendedRegistration, payload);
}

export function deregistration(esn) {
    return datagram(esn, deregistrationOpcode);
}

// What a server sends to a radio; null for anything else: whoever reaches the port can send to it.
export function decode(data) {
    if (data.length < headerSize || data.toString("latin1", 0, 4) !== "QMRS" || data[4] < 1 || data[4] > 3) {
        return null;
    }
    const opcode = data[13];
    const length = data.readUInt16LE(14);
    if (length !== payloadSizes.get(opcode) || data.length !== headerSize + length) {
        return null;
    }
    return { opcode, esn: data.subarray(5, 13) };
}

// --- The program.

const firstWait = 2; // seconds for an acknowledgement
const longestWait = 60;

function say(text) {
    console.log(text);
}

function hex(bytes) {
    return bytes.toString("hex").toUpperCase();
}

class Radio {
    constructor(options) {
        Object.assign(this, options);
        // A pending registration lapses: it is renewed in time, acknowledged or not.
        this.longestWait = this.pending ? Math.min(this.period, longestWait) : longestWait;
        this.server = null; // its address, as soon as it is known
        this.registered = false;
        this.leaving = false;
        this.timer = null; // of the wait for an acknowledgement, or between registrations
        // One socket for everything. It is not connected: acknowledgements come from the port that a registration was
        // sent to, but discovery requests may come from any port of the server.
        this.socket = dgram.createSocket("udp4");
    }

    run() {
        this.socket.once("error", (error) => {
            console.error(`radio.js: ${error.message}`);
            process.exitCode = 1;
        });
        this.socket.bind(this.local, () => {
            // An earlier datagram reached nobody (ICMP), or there is no network: as good as no answer.
            this.socket.removeAllListeners("error");
            this.socket.on("error", () => {});
            this.socket.on("message", (data, sender) => this.receive(data, sender));
            process.once("SIGINT", () => this.leave());
            process.once("SIGTERM", () => this.leave());
            this.register();
        });
    }

    register() {
        say(`registering ${hex(this.esn)} with ${this.host}:${this.port}`);
        this.registered = false;
        this.sendRegistration(Math.min(firstWait, this.longestWait));
    }

    sendRegistration(longest) {
        this.send(registration(this.esn, this.suid, this.pending, this.services));
        // Each wait is drawn by lot, so that a thousand radios do not march in step after a power cut. To register
        // twice does no harm: it may be the acknowledgement that was lost.
        const wait = (longest / 2) * (1 + Math.random());
        this.timer = setTimeout(() => {
            say("no acknowledgement, again");
            this.sendRegistration(Math.min(2 * longest, this.longestWait));
        }, wait * 1000);
    }

    // What is not wanted changes nothing, and no wait gets longer by it.
    receive(data, sender) {
        const message = decode(data);
        if (message && !this.registered && this.isAcknowledgement(message, sender)) {
            clearTimeout(this.timer);
            this.esn = message.esn;
            this.registered = true;
            say(`registered as ${hex(this.esn)}`);
            this.timer = setTimeout(() => this.register(), this.period * 1000);
        } else if (message && this.registered && this.isDiscoveryRequest(message, sender)) {
            clearTimeout(this.timer);
            say("discovery request");
            this.register();
        }
    }

    // A radio that has no ESN is known by the one that the server makes.
    ownEsn() {
        return this.esn.equals(noEsn) ? Buffer.concat([Buffer.from([0xf1]), this.suid]) : this.esn;
    }

    isAcknowledgement(message, sender) {
        const isFromServer = sender.address === this.server && sender.port === this.port;
        return message.opcode === acknowledgement && message.esn.equals(this.ownEsn()) && isFromServer;
    }

    isDiscoveryRequest(message, sender) {
        return message.opcode === discoveryRequest && message.esn.equals(this.esn) && sender.address === this.server;
    }

    async send(data) {
        const { leaving } = this;
        try {
            // Looked up each time: the server may have moved, and the name service may be back later than the radio.
            this.server = (await lookup(this.host, { family: 4 })).address;
        } catch {
            // No name service: the server is most likely where it was.
        }
        // A registration whose look-up took until now does not follow a deregistration.
        if (this.server && leaving === this.leaving) {
            // No network, or none yet: what counts is whether an acknowledgement comes.
            await new Promise((resolve) => this.socket.send(data, this.port, this.server, resolve));
        }
    }

    async leave() {
        if (this.leaving) {
            return; // SIGTERM after SIGINT
        }
        // Nothing that arrives while the name is looked up is to begin another wait.
        this.leaving = true;
        this.socket.removeAllListeners("message");
        clearTimeout(this.timer);
        // It is not answered, so there is nothing to wait for.
        await this.send(deregistration(this.ownEsn()));
        say("deregistered");
        this.socket.close();
    }
}

// null for what cannot be understood.
function parse([host, port, ...settings]) {
    const values = { esn: "0011AABB22CC33DD", suid: "123456789ABCDE", services: "1,3", pending: "0" };
    const patterns = {
        esn: /^[0-9A-Fa-f]{16}$/,
        suid: /^[0-9A-Fa-f]{14}$/,
        services: /^([0-9]{1,3}(,[0-9]{1,3})*)?$/,
        pending: /^[01]$/,
        local: /^[^:]+:[0-9]{1,5}$/,
        period: /^[1-9][0-9]{0,5}$/,
    };
    for (const setting of settings) {
        const [, name, value] = /^([a-z]+)=(.*)$/.exec(setting) ?? [];
        if (!Object.hasOwn(patterns, name) || !patterns[name].test(value)) {
            return null;
        }
        values[name] = value;
    }
    const [address, localPort] = (values.local ?? `0.0.0.0:${port}`).split(":");
    const services = values.services.split(",").filter(Boolean).map(Number);
    const isPort = (text) => /^[0-9]{1,5}$/.test(text) && Number(text) <= 65535;
    if (!isPort(port) || Number(port) === 0 || !isPort(localPort) || !isIPv4(address)) {
        return null;
    }
    if (services.length > 255 || services.some((code) => code > 255)) {
        return null;
    }
    return {
        host,
        port: Number(port),
        esn: Buffer.from(values.esn, "hex"),
        suid: Buffer.from(values.suid, "hex"),
        services,
        pending: Number(values.pending),
        local: { address, port: Number(localPort) },
        // A registration has to be made at least every 12 hours; a pending one lapses after 17 seconds.
        period: Number(values.period ?? (values.pending === "1" ? 10 : 21600)),
    };
}

// Only where this file is the program: others may want its codec.
if (process.argv[1] && realpathSync(process.argv[1]) === fileURLToPath(import.meta.url)) {
    const options = parse(process.argv.slice(2));
    if (options) {
        new Radio(options).run();
    } else {
        console.error(usage);
        process.exitCode = 2;
    }
}
