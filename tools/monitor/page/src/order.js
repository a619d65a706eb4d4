// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Orders of the table, and sorted arrays that are kept in order by merging what is new into them.

function compareValues(a, b) {
    return a < b ? -1 : a > b ? 1 : 0;
}

function compareLists(a, b) {
    const common = Math.min(a.length, b.length);
    for (let i = 0; i < common; ++i) {
        if (a[i] !== b[i]) {
            return a[i] - b[i];
        }
    }
    return a.length - b.length;
}

const COLUMNS = {
    esn: (a, b) => compareValues(a.esn, b.esn),
    suid: (a, b) => compareValues(a.suid, b.suid),
    address: (a, b) => a.addressNumber - b.addressNumber,
    state: (a, b) => a.stateRank - b.stateRank,
    services: (a, b) => compareLists(a.services, b.services),
    server: (a, b) => compareValues(a.server, b.server),
    changed: (a, b) => a.changed - b.changed,
};

/** Radios that have nothing to be sorted by in this column stand last, in either direction. */
const MISSING = {
    address: (row) => row.address === null,
    changed: (row) => row.changed === null,
};

/** An order without ties: rows that are equal in the column are in the order of ESN and server. */
export function comparator(column, descending) {
    const compare = COLUMNS[column];
    const missing = MISSING[column] ?? (() => false);
    const sign = descending ? -1 : 1;
    return (a, b) =>
        missing(a) - missing(b) ||
        sign * compare(a, b) ||
        compareValues(a.esn, b.esn) ||
        compareValues(a.server, b.server);
}

/** The rows of two sorted arrays that are not stale, in order. */
export function merged(sorted, added, compare) {
    const result = [];
    let next = 0;
    for (const row of sorted) {
        if (row.stale) {
            continue;
        }
        while (next < added.length && compare(added[next], row) < 0) {
            result.push(added[next++]);
        }
        result.push(row);
    }
    while (next < added.length) {
        result.push(added[next++]);
    }
    return result;
}

/** Where the row is in a sorted array, or -1. */
export function indexIn(sorted, row, compare) {
    let low = 0;
    let high = sorted.length;
    while (low < high) {
        const middle = (low + high) >> 1;
        if (compare(sorted[middle], row) < 0) {
            low = middle + 1;
        } else {
            high = middle;
        }
    }
    return sorted[low] === row ? low : -1;
}
