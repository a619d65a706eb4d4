// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// A radio as the monitor tells it, made into a row of the table: what is shown, and what it is searched and sorted by.
// A row never changes; a radio that changes gets another row, and the old one is marked stale.

const STATE_RANKS = ["registered", "pending", "unconfirmed", "unreachable"];

/** A radio's identity: several servers may each have one with the same ESN. */
export function keyOf(radio) {
    return `${radio.server} ${radio.esn}`;
}

function addressNumber(address) {
    return address.split(".").reduce((number, part) => number * 256 + Number(part), 0);
}

/** States that have a number instead of a name come last. */
function stateRank(state) {
    const rank = STATE_RANKS.indexOf(state);
    return rank < 0 ? STATE_RANKS.length + Number(state) : rank;
}

export function suidText(radio) {
    return `${radio.wacn}/${radio.system}/${radio.unit}`;
}

export function makeRow(radio) {
    return {
        key: keyOf(radio),
        esn: radio.esn,
        suid: suidText(radio),
        suidDigits: radio.wacn + radio.system + radio.unit,
        address: radio.address,
        addressNumber: radio.address === null ? null : addressNumber(radio.address),
        state: radio.state,
        stateRank: stateRank(radio.state),
        services: radio.services,
        servicesText: radio.services.join(", "),
        server: radio.server,
        changed: radio.changed === null ? null : Date.parse(radio.changed),
        changedText: radio.changed,
        generation: 0,
        stale: false,
    };
}
