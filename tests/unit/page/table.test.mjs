// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { comparator } from "../../../tools/monitor/page/src/order.js";
import { makeRow } from "../../../tools/monitor/page/src/radio.js";
import { Table } from "../../../tools/monitor/page/src/table.js";
import { esn, radio, random } from "./radios.mjs";

const shown = (table) => table.view.map((row) => Number.parseInt(row.esn, 16));

function filled(...numbers) {
    const table = new Table();
    table.begin();
    table.take(numbers.map((number) => radio(esn(number))));
    table.complete();
    table.flush();
    return table;
}

test("shows nothing before it is flushed", () => {
    const table = filled(2);
    table.take([radio(esn(1))]);
    assert.deepEqual(shown(table), [2]);
    assert.equal(table.flush(), true);
    assert.deepEqual(shown(table), [1, 2]);
    assert.equal(table.flush(), false);
});

test("a radio that changes has one row, the last", () => {
    const table = filled(1, 2);
    table.take([radio(esn(1), { state: "unconfirmed" }), radio(esn(1), { state: "unreachable" })]);
    table.flush();
    assert.deepEqual(
        table.view.map(({ state }) => state),
        ["unreachable", "registered"],
    );
    assert.equal(table.total, 2);
});

test("a radio that is gone is taken out, also one that came and went between", () => {
    const table = filled(1, 2);
    table.take([
        radio(esn(3)),
        radio(esn(3), { state: "gone" }),
        radio(esn(1), { state: "gone" }),
        radio(esn(4), { state: "gone" }),
    ]);
    assert.equal(table.flush(), true);
    assert.equal(table.flush(), false);
    assert.deepEqual(shown(table), [2]);
    assert.equal(table.row(makeRow(radio(esn(1))).key), undefined);
});

test("a radio of the same ESN at another server is another", () => {
    const table = filled(1);
    table.take([radio(esn(1), { server: "a:1" })]);
    table.flush();
    assert.deepEqual(
        table.view.map(({ server }) => server),
        ["127.0.0.1:9361", "a:1"],
    );
});

test("what is not told anew is gone when all has been told, not before", () => {
    const table = filled(1, 2, 3);
    table.begin();
    table.take([radio(esn(2))]);
    table.flush();
    assert.deepEqual(shown(table), [1, 2, 3]);
    table.complete();
    table.flush();
    assert.deepEqual(shown(table), [2]);
});

test("keeps the filter and the order for what comes later", () => {
    const table = filled(1, 2);
    table.setOrder("esn", true);
    table.setFilter((row) => row.state === "registered");
    table.take([radio(esn(3)), radio(esn(4), { state: "pending" }), radio(esn(2), { state: "pending" })]);
    table.flush();
    assert.deepEqual(shown(table), [3, 1]);
    assert.equal(table.total, 4);
    table.setFilter(null);
    assert.deepEqual(shown(table), [4, 3, 2, 1]);
});

test("a new order or filter has what was not flushed yet", () => {
    const table = filled(1);
    table.take([radio(esn(2))]);
    table.setOrder("esn", true);
    assert.deepEqual(shown(table), [2, 1]);
    table.take([radio(esn(3))]);
    table.setFilter(() => true);
    assert.deepEqual(shown(table), [3, 2, 1]);
});

test("what changes is sorted, and not what is there", () => {
    const table = filled(...Array(1000).keys());
    table.setOrder("state", true);
    table.take([radio(esn(1), { state: "pending" }), radio(esn(5), { state: "gone" }), radio(esn(2000))]);
    const lengths = [];
    const sort = Array.prototype.sort;
    Array.prototype.sort = function (compare) {
        lengths.push(this.length);
        return sort.call(this, compare);
    };
    try {
        table.flush();
    } finally {
        Array.prototype.sort = sort;
    }
    assert.deepEqual(lengths, [2]);
});

test("knows where a row is", () => {
    const table = filled(1, 2, 3);
    table.setFilter((row) => row.esn !== esn(2));
    const row = (number) => table.row(makeRow(radio(esn(number))).key);
    assert.equal(table.indexOf(row(3)), 1);
    assert.equal(table.indexOf(row(2)), -1);
});

test("is what sorting and filtering everything anew would make of it, whatever happens", () => {
    const states = ["registered", "pending", "unconfirmed", "unreachable", "gone"];
    const columns = ["esn", "suid", "address", "state", "services", "server", "changed"];
    for (let seed = 1; seed <= 60; ++seed) {
        const pick = random(seed);
        const table = new Table();
        let model = new Map();
        let told = null; // since a beginning, which of the model's
        let order = comparator("esn", false);
        let filter = () => true;
        for (let step = 0; step < 60; ++step) {
            const what = pick(20);
            if (what === 0) {
                const [column, descending] = [columns[pick(columns.length)], pick(2) === 1];
                table.setOrder(column, descending);
                order = comparator(column, descending);
            } else if (what === 1) {
                const state = states[pick(4)];
                filter = pick(3) === 0 ? () => true : (row) => row.state === state;
                table.setFilter(pick(3) === 0 && filter({ state: "" }) ? null : filter);
            } else if (what === 2 && told === null) {
                table.begin();
                told = new Map();
            } else if (what === 3 && told !== null) {
                table.complete();
                model = told;
                told = null;
            } else {
                const radios = [];
                for (let count = pick(8); count > 0; --count) {
                    const changed = pick(4) === 0 ? null : new Date(1_000_000 + pick(50)).toISOString();
                    const services = [pick(3), pick(3)];
                    const address = pick(5) === 0 ? null : `10.0.0.${pick(256)}`;
                    const server = `${pick(2)}:1`;
                    const said = radio(esn(pick(12)), { changed, services, address, server, state: states[pick(5)] });
                    const row = makeRow(said);
                    for (const known of [model, told]) {
                        known?.delete(row.key);
                        if (said.state !== "gone") {
                            known?.set(row.key, row);
                        }
                    }
                    radios.push(said);
                }
                table.take(radios);
            }
            table.flush();
            const bare = ({ esn, server, state, changed, address }) =>
                `${esn} ${server} ${state} ${changed} ${address}`;
            const expected = [...model.values()].filter(filter).sort(order).map(bare);
            assert.deepEqual(table.view.map(bare), expected, `seed ${seed}, step ${step}`);
            assert.equal(table.total, model.size);
        }
    }
});
