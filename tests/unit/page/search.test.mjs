// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { test } from "node:test";
import { makeRow } from "../../../tools/monitor/page/src/radio.js";
import { makeSearch } from "../../../tools/monitor/page/src/search.js";
import { radio } from "./radios.mjs";

const cases = JSON.parse(readFileSync(new URL("../../support/searchcases.json", import.meta.url), "utf8"));

test("finds what every language finds", () => {
    assert.ok(cases.length > 80);
    for (const { query, esn, wacn, system, unit, address, matches, why } of cases) {
        const search = makeSearch(query);
        const row = makeRow(radio(esn, { wacn, system, unit, address }));
        assert.equal(search === null || search(row), matches, `"${query}": ${why}`);
    }
});

test("an empty text needs no search", () => {
    assert.equal(makeSearch(""), null);
    assert.equal(makeSearch("  "), null);
    assert.notEqual(makeSearch("0"), null);
});
