// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The built programs, each with a data folder and ports of its own, on loopback.
import assert from "node:assert/strict";
import { spawn, spawnSync } from "node:child_process";
import { createSocket } from "node:dgram";
import { once } from "node:events";
import { existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from "node:fs";
import { createServer } from "node:net";
import { tmpdir } from "node:os";
import { join } from "node:path";
import { PATIENCE } from "./browser.js";

const BIN = process.env.QUILLMERE_BIN;

async function freeTcpPort() {
    const server = createServer().listen(0, "127.0.0.1");
    await once(server, "listening");
    const { port } = server.address();
    server.close();
    await once(server, "close");
    return port;
}

async function freeUdpPort() {
    const socket = createSocket("udp4").bind(0);
    await once(socket, "listening");
    const { port } = socket.address();
    socket.close();
    await once(socket, "close");
    return port;
}

/** A program that ends with this run, however the run ends. */
function launch(name, args, options) {
    return spawn("setpriv", ["--pdeathsig", "KILL", join(BIN, name), ...args], options);
}

async function kill(process) {
    if (process && process.exitCode === null && process.signalCode === null) {
        process.kill("SIGKILL");
        await once(process, "exit");
    }
}

async function waitFor(condition, what) {
    const deadline = performance.now() + PATIENCE;
    while (!condition()) {
        assert.ok(performance.now() < deadline, `waited in vain for ${what}`);
        await new Promise((resolve) => setTimeout(resolve, 10));
    }
}

/** The server, in the foreground. What it has stored stays while it is away. */
export class Server {
    #process = null;

    static async make() {
        const server = new Server();
        const memory = "/dev/shm"; // where a write takes no time
        server.folder = mkdtempSync(join(existsSync(memory) ? memory : tmpdir(), "quillmere-page-"));
        const data = join(server.folder, "Brackwater", "Quill Mere");
        mkdirSync(data, { recursive: true });
        server.database = join(data, "qmr.db");
        server.radioPort = await freeUdpPort();
        server.applicationPort = await freeTcpPort();
        const settings = `radioRegistrationPort=${server.radioPort}\napplicationPort=${server.applicationPort}\n`;
        writeFileSync(join(data, "qmr.cfg"), settings);
        return server;
    }

    get address() {
        return `127.0.0.1:${this.applicationPort}`;
    }

    async start() {
        const log = join(this.folder, "events");
        writeFileSync(log, "");
        const env = { ...process.env, QUILLMERE_APPDATA: this.folder, QUILLMERE_EVENTLOG: log };
        this.#process = launch("quillmere", ["-exec"], { env, stdio: ["ignore", "ignore", "inherit"] });
        await waitFor(() => readFileSync(log, "utf8").includes("Service started"), "the server");
    }

    async kill() {
        await kill(this.#process);
    }

    async remove() {
        await this.kill();
        rmSync(this.folder, { recursive: true });
    }

    /** What the database answers, a line each; its rows are changed only while the server is away. */
    sql(text) {
        const { status, stdout, stderr } = spawnSync("sqlite3", [this.database, text], { encoding: "utf8" });
        assert.equal(status, 0, stderr);
        return stdout.split("\n").filter((line) => line !== "");
    }

    /** Has quillmere-radio do that; it ends when all is acknowledged. */
    async radio(command, ...args) {
        await this.#tool("quillmere-radio", [command, "--server", `127.0.0.1:${this.radioPort}`, ...args]);
    }

    /** A confirmed registration, by default of the ESN that the address ends with. */
    async register(number, ...args) {
        const esn = (0x0011aabb22cc3300n + BigInt(number)).toString(16).padStart(16, "0");
        const suid = `12345.678.${(0x9abc00 + number).toString(16)}`;
        await this.radio("register", "--esn", esn, "--suid", suid, "--from", `127.0.0.${number}`, ...args);
        return esn.toUpperCase();
    }

    async report(esn, address) {
        await this.#tool("quillmere-watch", ["report", esn, address, "--server", this.address, "--for", "20"]);
    }

    async #tool(name, args) {
        const tool = launch(name, args, { stdio: ["ignore", "ignore", "pipe"] });
        let errors = "";
        tool.stderr.on("data", (data) => {
            errors += data;
        });
        const [code] = await once(tool, "exit");
        assert.equal(code, 0, `${name} ${args.join(" ")}: ${errors}`);
    }
}

export class Monitor {
    #process = null;

    static async make(...servers) {
        const monitor = new Monitor();
        monitor.port = await freeTcpPort();
        monitor.servers = servers;
        return monitor;
    }

    get origin() {
        return `http://127.0.0.1:${this.port}`;
    }

    async start() {
        const servers = this.servers.flatMap((server) => ["--server", server.address]);
        const args = ["--listen", `127.0.0.1:${this.port}`, ...servers];
        this.#process = launch("quillmere-monitor", args, { stdio: ["ignore", "ignore", "pipe"] });
        let said = "";
        this.#process.stderr.on("data", (data) => {
            said += data;
        });
        await waitFor(() => said.includes("serving at"), "the monitor");
    }

    async kill() {
        await kill(this.#process);
    }
}
