// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What a person types to find radios; tests/support/searchcases.json has it by examples, for every language.

const SUID_WIDTHS = [5, 3, 6];

function isDigits(text) {
    return /^[0-9A-F]*$/.test(text);
}

/** The beginnings of a SUID's digits that a text with this separator may mean. */
function suidReadings(text, separator) {
    const fields = text.split(separator);
    // A fourth field has no width to fit into.
    const fits = (field, index) => field.length <= SUID_WIDTHS[index] && isDigits(field);
    if (fields.length < 2 || !fields.every(fits)) {
        return [];
    }
    // A number in front of a separator is that number. The last may be that number, or its beginning as it is written.
    const last = fields.pop();
    if (fields.includes("")) {
        return [];
    }
    const front = fields.map((field, index) => field.padStart(SUID_WIDTHS[index], "0")).join("");
    return [front + last, front + last.padStart(SUID_WIDTHS[fields.length], "0")];
}

function withColons(esn) {
    return esn.replace(/..(?=.)/g, "$&:");
}

/** A function that tells whether a row is looked for, or null if all are. */
export function makeSearch(typed) {
    // Only letters that a number may have: other languages' letters have capitals that are such.
    const text = typed.trim().replace(/[a-f]/g, (letter) => letter.toUpperCase());
    if (text === "") {
        return null;
    }
    const suids = [...suidReadings(text, "/"), ...suidReadings(text, ".")];
    if (isDigits(text)) {
        suids.push(text);
    }
    const esnOf = text.includes(":") ? (row) => withColons(row.esn) : (row) => row.esn;
    return (row) =>
        esnOf(row).includes(text) ||
        suids.some((beginning) => row.suidDigits.startsWith(beginning)) ||
        (row.address ?? "").startsWith(text);
}
