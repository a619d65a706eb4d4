// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

/** A radio as the monitor tells it. */
export function radio(esn, overrides = {}) {
    return {
        esn,
        wacn: "12345",
        system: "678",
        unit: "9ABCDE",
        address: "10.0.0.5",
        state: "registered",
        availability: 3,
        pending: false,
        services: [1, 3],
        server: "127.0.0.1:9361",
        changed: null,
        ...overrides,
    };
}

export function esn(number) {
    return number.toString(16).toUpperCase().padStart(16, "0");
}

/** The same numbers in each run. */
export function random(seed) {
    let state = seed;
    return (below) => {
        state = (Math.imul(state, 1664525) + 1013904223) >>> 0;
        return Math.floor((state / 2 ** 32) * below);
    };
}
