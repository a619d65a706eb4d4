// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The columns of the table, from left to right.

/** Radios that have changed so lately are marked. */
export const FRESH = 3000;

export const COLUMNS = [
    { name: "esn", title: "ESN", text: (row) => row.esn },
    { name: "suid", title: "SUID", text: (row) => row.suid },
    { name: "address", title: "Address", text: (row) => row.address ?? "-" },
    { name: "state", title: "State", text: (row) => row.state },
    { name: "services", title: "Services", text: (row) => row.servicesText || "-" },
    { name: "server", title: "Server", text: (row) => row.server },
    { name: "changed", title: "Changed", text: () => "" },
];

/** The names of states that have a mark of their own. */
export const STATES = ["registered", "pending", "unconfirmed", "unreachable"];

/** The class of a state's mark. */
export function markClass(state) {
    return `mark ${STATES.includes(state) ? state : "other"}`;
}
