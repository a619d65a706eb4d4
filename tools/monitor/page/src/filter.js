// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import { makeSearch } from "./search.js";

/**
 * A function that tells whether a row is to be shown, or null if all are. query is what was typed; state, service and
 * server are texts, where "" stands for any.
 */
export function makeFilter({ query, state, service, server }) {
    const conditions = [];
    const search = makeSearch(query);
    if (search) {
        conditions.push(search);
    }
    if (state !== "") {
        conditions.push((row) => row.state === state);
    }
    if (service !== "") {
        const code = Number(service);
        conditions.push((row) => row.services.includes(code));
    }
    if (server !== "") {
        conditions.push((row) => row.server === server);
    }
    return conditions.length === 0 ? null : (row) => conditions.every((condition) => condition(row));
}
