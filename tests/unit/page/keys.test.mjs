// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { moved } from "../../../tools/monitor/page/src/keys.js";

for (const [key, from, to] of [
    ["ArrowDown", 5, 6],
    ["ArrowDown", 99, 99],
    ["ArrowDown", -1, 0],
    ["ArrowUp", 5, 4],
    ["ArrowUp", 0, 0],
    ["ArrowUp", -1, 0],
    ["PageDown", 5, 15],
    ["PageDown", 95, 99],
    ["PageDown", -1, 10],
    ["PageUp", 15, 5],
    ["PageUp", 5, 0],
    ["Home", 50, 0],
    ["End", 50, 99],
    ["a", 50, null],
    ["toString", 50, null],
]) {
    test(`${key} leads from ${from} to ${to}`, () => {
        assert.equal(moved(key, from, 100, 10), to);
    });
}

test("an empty table has nowhere to go", () => {
    assert.equal(moved("Home", -1, 0, 10), null);
});
