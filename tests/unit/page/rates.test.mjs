// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { Rates } from "../../../tools/monitor/page/src/rates.js";

const TIME = Date.UTC(2026, 10, 23, 3, 27, 30) / 1000;

function at(seconds, registrations = 0, changes = 0) {
    return { time: new Date((TIME + seconds) * 1000).toISOString(), registrations, changes };
}

function loaded() {
    const rates = new Rates();
    rates.load({
        time: new Date(TIME * 1000 + 123).toISOString(),
        seconds: { registrations: [1, 2, 3], changes: [4, 5, 6] },
        minutes: { registrations: [7, 8], changes: [9, 10] },
    });
    return rates;
}

test("the last number is of the last whole second, and minute", () => {
    const rates = loaded();
    assert.deepEqual(rates.seconds.columns(), [
        [TIME - 3, TIME - 2, TIME - 1],
        [1, 2, 3],
        [4, 5, 6],
    ]);
    assert.deepEqual(rates.minutes.columns(), [
        [TIME - 150, TIME - 90],
        [7, 8],
        [9, 10],
    ]);
});

test("a status tells the next second", () => {
    const rates = loaded();
    assert.equal(rates.add(at(1.2, 30, 60)), true);
    assert.deepEqual(rates.seconds.columns(), [
        [TIME - 2, TIME - 1, TIME],
        [2, 3, 30],
        [5, 6, 60],
    ]);
});

test("a second status within the same second tells nothing", () => {
    const rates = loaded();
    assert.equal(rates.add(at(0.5, 30, 60)), true);
    assert.deepEqual(rates.seconds.registrations, [1, 2, 3]);
});

test("more is to be known after a gap, a minute, a clock that was set back, and at the beginning", () => {
    assert.equal(loaded().add(at(2)), false);
    assert.equal(loaded().add(at(-3600)), false);
    assert.equal(new Rates().add(at(0)), false);
    const rates = loaded();
    for (let second = 1; second < 30; ++second) {
        assert.equal(rates.add(at(second)), true);
    }
    assert.equal(rates.add(at(30)), false);
});

test("a plot's numbers do not change under it", () => {
    const rates = loaded();
    const before = rates.seconds.columns();
    rates.add(at(1, 30, 60));
    assert.deepEqual(before[1], [1, 2, 3]);
});
