// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { changesOf } from "../../../tools/monitor/page/src/history.js";
import { totalsOf } from "../../../tools/monitor/page/src/totals.js";
import { radio } from "./radios.mjs";

test("a history has the changes of its server's radio, the latest first", () => {
    const change = (time, overrides) => ({ ...radio("1", overrides), time });
    const history = [change("1", { server: "a:1" }), change("2", { server: "b:1" }), change("3", { server: "a:1" })];
    assert.deepEqual(
        changesOf({ history }, "a:1").map(({ time }) => time),
        ["3", "1"],
    );
});

test("a change says what the radio was then, and what it had not", () => {
    const history = [{ ...radio("1", { address: null, services: [], state: "gone" }), time: "1" }];
    const [change] = changesOf({ history }, "127.0.0.1:9361");
    assert.equal(change.state, "gone");
    assert.deepEqual(change.details, ["12345/678/9ABCDE", "no address", "no services"]);
    assert.deepEqual(
        changesOf({ history: [{ ...radio("1"), time: "1" }] }, "127.0.0.1:9361")[0].details[2],
        "services 1, 3",
    );
});

test("totals have all named states, and others that occur", () => {
    const states = { registered: 3, 7: 1 };
    const expected = [
        ["registered", 3],
        ["pending", 0],
        ["unconfirmed", 0],
        ["unreachable", 0],
        ["7", 1],
    ];
    assert.deepEqual(totalsOf({ states }), expected);
});
