// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { ageText, clockText, countText, dateTimeText } from "../../../tools/monitor/page/src/texts.js";

for (const [milliseconds, text] of [
    [-5000, "0 s"],
    [0, "0 s"],
    [999, "0 s"],
    [1000, "1 s"],
    [59_999, "59 s"],
    [60_000, "1 min"],
    [3_599_999, "59 min"],
    [3_600_000, "1 h"],
    [86_399_999, "23 h"],
    [86_400_000, "1 d"],
    [100 * 86_400_000, "100 d"],
]) {
    test(`${milliseconds} ms ago is ${text}`, () => {
        assert.equal(ageText(milliseconds), text);
    });
}

test("times are local, with all their digits", () => {
    const time = new Date(2026, 0, 2, 3, 4, 5).getTime();
    assert.equal(clockText(time), "03:04:05");
    assert.equal(dateTimeText(time), "2026-01-02 03:04:05");
});

test("one radio is singular", () => {
    assert.equal(countText(0, "radio"), "0 radios");
    assert.equal(countText(1, "radio"), "1 radio");
    assert.equal(countText(100_000, "radio"), "100,000 radios");
});
