// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { comparator, indexIn, merged } from "../../../tools/monitor/page/src/order.js";
import { makeRow } from "../../../tools/monitor/page/src/radio.js";
import { esn, radio } from "./radios.mjs";

/** The numbers of radios in the order of a column. */
function sorted(column, descending, ...overrides) {
    const rows = overrides.map((override, index) => makeRow(radio(esn(index), override)));
    return rows.sort(comparator(column, descending)).map((row) => Number.parseInt(row.esn, 16));
}

test("sorts addresses by their numbers", () => {
    const addresses = [
        { address: "10.0.0.10" },
        { address: "9.255.255.255" },
        { address: "10.0.0.9" },
        { address: "192.0.0.1" },
    ];
    assert.deepEqual(sorted("address", false, ...addresses), [1, 2, 0, 3]);
    assert.deepEqual(sorted("address", true, ...addresses), [3, 0, 2, 1]);
});

test("radios without an address stand last in either direction", () => {
    const addresses = [{ address: null }, { address: "255.255.255.255" }, { address: null }, { address: "1.0.0.0" }];
    assert.deepEqual(sorted("address", false, ...addresses), [3, 1, 0, 2]);
    assert.deepEqual(sorted("address", true, ...addresses), [1, 3, 0, 2]);
});

test("radios that have not changed stand last in either direction", () => {
    const changes = [
        { changed: null },
        { changed: "2026-11-23T03:27:03.123Z" },
        { changed: "2026-11-23T03:27:03.124Z" },
    ];
    assert.deepEqual(sorted("changed", false, ...changes), [1, 2, 0]);
    assert.deepEqual(sorted("changed", true, ...changes), [2, 1, 0]);
});

test("sorts states from those that are well to those that are not, then numbers", () => {
    const states = ["10", "unreachable", "9", "unconfirmed", "pending", "registered"].map((state) => ({ state }));
    assert.deepEqual(sorted("state", false, ...states), [5, 4, 3, 1, 2, 0]);
});

test("sorts services code by code", () => {
    const services = [[10], [2, 1], [], [2], [2, 0, 7]].map((codes) => ({ services: codes }));
    assert.deepEqual(sorted("services", false, ...services), [2, 3, 4, 1, 0]);
});

test("sorts SUIDs, servers and ESNs as they are written", () => {
    assert.deepEqual(sorted("suid", false, { unit: "00000F" }, { system: "001" }, { wacn: "00001" }), [2, 1, 0]);
    assert.deepEqual(sorted("server", false, { server: "b:1" }, { server: "a:1" }), [1, 0]);
    assert.deepEqual(sorted("esn", true, {}, {}, {}), [2, 1, 0]);
});

test("what is equal stands in the order of ESN, then of server, in either direction", () => {
    for (const descending of [false, true]) {
        assert.deepEqual(sorted("state", descending, {}, {}, {}), [0, 1, 2]);
        const twins = ["b:1", "a:1"].map((server) => makeRow(radio(esn(1), { server })));
        assert.equal(twins.sort(comparator("state", descending))[0].server, "a:1");
    }
});

test("merges without what is stale", () => {
    const rows = [0, 1, 2, 3, 4, 5].map((number) => makeRow(radio(esn(number))));
    rows[2].stale = true;
    const compare = comparator("esn", false);
    const result = merged([rows[1], rows[2], rows[4]], [rows[0], rows[3], rows[5]], compare);
    assert.deepEqual(result, [rows[0], rows[1], rows[3], rows[4], rows[5]]);
});

test("finds each row's place, and that one has none", () => {
    const rows = [0, 1, 2, 3, 4].map((number) => makeRow(radio(esn(number))));
    const compare = comparator("esn", false);
    assert.deepEqual(
        rows.map((row) => indexIn(rows, row, compare)),
        [0, 1, 2, 3, 4],
    );
    assert.equal(indexIn(rows, makeRow(radio(esn(2))), compare), -1);
    assert.equal(indexIn(rows, makeRow(radio(esn(9))), compare), -1);
    assert.equal(indexIn([], rows[0], compare), -1);
});
