// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import assert from "node:assert/strict";
import { test } from "node:test";
import { makeFilter } from "../../../tools/monitor/page/src/filter.js";
import { makeRow } from "../../../tools/monitor/page/src/radio.js";
import { radio } from "./radios.mjs";

const ANY = { query: "", state: "", service: "", server: "" };
const row = makeRow(radio("0011AABB22CC33DD", { services: [1, 13], state: "unreachable", server: "a:1" }));

test("nothing asked for needs no filter", () => {
    assert.equal(makeFilter(ANY), null);
});

for (const [what, asked, expected] of [
    ["its state", { state: "unreachable" }, true],
    ["another state", { state: "registered" }, false],
    ["one of its services", { service: "13" }, true],
    ["a service that only looks like one of its", { service: "3" }, false],
    ["its server", { server: "a:1" }, true],
    ["the beginning of its server's name", { server: "a:" }, false],
    ["a server whose name goes on", { server: "a:11" }, false],
    ["its ESN", { query: "33dd" }, true],
    ["another ESN", { query: "44dd" }, false],
    ["all that it is", { query: "33dd", state: "unreachable", service: "1", server: "a:1" }, true],
    ["all that it is but one", { query: "33dd", state: "unreachable", service: "2", server: "a:1" }, false],
]) {
    test(`${what}: ${expected ? "shown" : "left out"}`, () => {
        assert.equal(makeFilter({ ...ANY, ...asked })(row), expected);
    });
}
