// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { absences } from "../../../tools/monitor/page/src/absence.js";

const LOST = new Date(2026, 10, 23, 3, 27, 3).getTime();
const there = { server: "a:1", connected: true, since: new Date(LOST).toISOString(), radios: 3, reason: null };
const away = { ...there, server: "b:1", connected: false, reason: "connection refused" };

function shown(servers, now, heard = true) {
    return absences({ time: new Date(LOST).toISOString(), servers }, now, heard).map((absence) => absence.shown);
}

test("nothing is said while all are there", () => {
    assert.deepEqual(shown([there], LOST), []);
});

test("a server that is away is named, with the age of what it told", () => {
    const text = "b:1 is away: connection refused. Its 3 radios are shown as of 2 min ago, 03:27:03.";
    assert.deepEqual(shown([there, away], LOST + 125_000), [text]);
});

test("one radio is singular, and a reason may be missing", () => {
    const text = "b:1 is away. Its 1 radio is shown as of 5 s ago, 03:27:03.";
    assert.deepEqual(shown([{ ...away, radios: 1, reason: null }], LOST + 5000), [text]);
});

test("a server that never was there has told nothing", () => {
    assert.deepEqual(shown([{ ...away, since: null }], LOST), ["b:1 has not been reached yet: connection refused."]);
});

test("a monitor that is away comes before its servers, with the age of its last words", () => {
    assert.deepEqual(shown([away], LOST + 42_000, false), [
        "The monitor is away. What is shown is 42 s old, as of 03:27:03.",
    ]);
});

test("a monitor that never was there, and one that has not spoken yet", () => {
    assert.equal(absences(null, LOST, false)[0].shown, "The monitor cannot be reached.");
    assert.deepEqual(absences(null, LOST, true), []);
});

test("what is read out does not change as it ages", () => {
    const status = { time: new Date(LOST).toISOString(), servers: [away] };
    for (const heard of [true, false]) {
        assert.equal(absences(status, LOST + 1000, heard)[0].read, absences(status, LOST + 99_000, heard)[0].read);
    }
});
