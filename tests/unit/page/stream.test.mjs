// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { Stream } from "../../../tools/monitor/page/src/stream.js";

/** The browser's part: connections that the test plays, and timers that it runs. */
class Environment {
    sources = [];
    timers = new Map();
    #timer = 0;

    EventSource = ((environment) =>
        class {
            listeners = {};
            isClosed = false;

            constructor(url) {
                this.url = url;
                environment.sources.push(this);
            }

            addEventListener(kind, listener) {
                this.listeners[kind] = listener;
            }

            close() {
                this.isClosed = true;
            }

            play(kind, data) {
                this.listeners[kind]({ data: JSON.stringify(data) });
            }
        })(this);

    setTimeout = (action, pause) => {
        this.timers.set(++this.#timer, { action, pause });
        return this.#timer;
    };

    clearTimeout = (timer) => this.timers.delete(timer);

    /** The only timer that is armed. */
    expire() {
        assert.equal(this.timers.size, 1);
        const [[timer, { action }]] = this.timers;
        this.timers.delete(timer);
        action();
    }
}

function opened() {
    const environment = new Environment();
    const seen = [];
    const handlers = {
        begin: () => seen.push("begin"),
        away: () => seen.push("away"),
        status: (data) => seen.push(["status", data]),
        radios: (data) => seen.push(["radios", data]),
        snapshot: (data) => seen.push(["snapshot", data]),
    };
    new Stream(handlers, environment).open();
    return { environment, seen, source: environment.sources[0] };
}

test("hands on what the monitor tells", () => {
    const { environment, seen, source } = opened();
    assert.equal(source.url, "/api/events");
    source.play("open");
    source.play("status", { radios: 1 });
    source.play("radios", [1]);
    source.play("snapshot", { radios: 1 });
    assert.deepEqual(seen, ["begin", ["status", { radios: 1 }], ["radios", [1]], ["snapshot", { radios: 1 }]]);
    assert.equal(environment.timers.size, 1);
});

test("a reset is a beginning", () => {
    const { seen, source } = opened();
    source.play("reset", {});
    assert.deepEqual(seen, ["begin"]);
});

test("a connection that ends is made anew after a pause", () => {
    const { environment, seen, source } = opened();
    source.play("error");
    assert.deepEqual(seen, ["away"]);
    assert.ok(source.isClosed);
    assert.equal(environment.sources.length, 1);
    environment.expire();
    assert.equal(environment.sources.length, 2);
    environment.sources[1].play("status", {});
    assert.deepEqual(seen, ["away", ["status", {}]]);
});

test("a connection that says nothing is given up, each event puts that off", () => {
    const { environment, seen, source } = opened();
    assert.equal(environment.timers.size, 1);
    const [before] = environment.timers.keys();
    source.play("status", {});
    assert.ok(!environment.timers.has(before));
    environment.expire();
    assert.deepEqual(seen, [["status", {}], "away"]);
    assert.ok(source.isClosed);
    environment.expire();
    assert.equal(environment.sources.length, 2);
});
