// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

/** The row that a key leads to from this one (-1: none yet), or null where the key means nothing to a table. */
export function moved(key, index, count, page) {
    const last = count - 1;
    const targets = {
        ArrowDown: index + 1,
        ArrowUp: index - 1,
        PageDown: Math.max(index, 0) + page,
        PageUp: index - page,
        Home: 0,
        End: last,
    };
    if (count === 0 || !Object.hasOwn(targets, key)) {
        return null;
    }
    return Math.min(Math.max(targets[key], 0), last);
}
