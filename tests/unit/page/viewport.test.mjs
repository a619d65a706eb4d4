// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { TALLEST, Viewport } from "../../../tools/monitor/page/src/viewport.js";

test("has a few rows above and below those in sight, and no others", () => {
    const viewport = new Viewport(1000, 20, 100);
    assert.equal(viewport.extent, 20_000);
    assert.deepEqual(viewport.range(0), { first: 0, end: 13 });
    assert.deepEqual(viewport.range(410), { first: 12, end: 34 });
    assert.deepEqual(viewport.range(19_900), { first: 987, end: 1000 });
    assert.deepEqual(new Viewport(3, 20, 100).range(0), { first: 0, end: 3 });
    assert.deepEqual(new Viewport(0, 20, 100).range(0), { first: 0, end: 0 });
});

test("a table that has become short draws nothing beyond its end", () => {
    assert.deepEqual(new Viewport(3, 20, 100).range(5000), { first: 3, end: 3 });
});

test("places rows where the browser scrolls them", () => {
    const viewport = new Viewport(1000, 20, 100);
    assert.equal(viewport.place(7, 0), 140);
    assert.equal(viewport.place(7, 333), 140);
});

test("reveals a row by scrolling no farther than needed", () => {
    const viewport = new Viewport(1000, 20, 100);
    assert.equal(viewport.reveal(3, 30), 30);
    assert.equal(viewport.reveal(1, 30), 20);
    assert.equal(viewport.reveal(6, 30), 40);
    assert.equal(viewport.reveal(999, 0), 19_900);
});

test("a page is the whole rows in sight, one at least", () => {
    assert.equal(new Viewport(10, 20, 99).page, 4);
    assert.equal(new Viewport(10, 20, 100).page, 5);
    assert.equal(new Viewport(10, 20, 5).page, 1);
});

test("a table taller than browsers can have is scrolled in proportion, to its last row", () => {
    const viewport = new Viewport(1_000_000, 28, 560);
    assert.equal(viewport.extent, TALLEST);
    assert.equal(viewport.range(0).first, 0);
    assert.equal(viewport.place(0, 0), 0);
    const bottom = TALLEST - 560;
    assert.equal(viewport.range(bottom).end, 1_000_000);
    assert.ok(Math.abs(viewport.place(999_999, bottom) - (TALLEST - 28)) < 0.01);
    for (const index of [0, 19, 20, 345_678, 999_999]) {
        const scrollTop = viewport.reveal(index, 1_000_000);
        const place = viewport.place(index, scrollTop) - scrollTop;
        assert.ok(place > -0.01 && place < 560 - 28 + 0.01, `row ${index} is at ${place}`);
    }
    assert.equal(viewport.toScroll(viewport.toRows(4_000_000)), 4_000_000);
});
