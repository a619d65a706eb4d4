// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { columnsOf } from "../../../tools/monitor/page/src/rates.js";

const TIME = "2026-11-23T03:27:30.123Z";
const SECONDS = Date.UTC(2026, 10, 23, 3, 27, 30) / 1000;

test("the last number is of the last whole second", () => {
    const [times, registrations, changes] = columnsOf(TIME, 1, { registrations: [1, 2, 3], changes: [4, 5, 6] });
    assert.deepEqual(times, [SECONDS - 3, SECONDS - 2, SECONDS - 1]);
    assert.deepEqual(registrations, [1, 2, 3]);
    assert.deepEqual(changes, [4, 5, 6]);
});

test("the last number is of the last whole minute", () => {
    const [times] = columnsOf(TIME, 60, { registrations: [7, 8], changes: [9, 10] });
    assert.deepEqual(times, [SECONDS - 150, SECONDS - 90]);
});
