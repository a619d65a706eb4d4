// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Numbers and times as people read them. Times are milliseconds since 1970.

const UNITS = [
    [86_400_000, "d"],
    [3_600_000, "h"],
    [60_000, "min"],
    [1000, "s"],
];

/** How long ago that is, in its largest whole unit. Clocks may differ a little: what is yet to come is now. */
export function ageText(milliseconds) {
    for (const [length, unit] of UNITS) {
        if (milliseconds >= length) {
            return `${Math.floor(milliseconds / length)} ${unit}`;
        }
    }
    return "0 s";
}

function two(number) {
    return String(number).padStart(2, "0");
}

/** The local time of day. */
export function clockText(time) {
    const date = new Date(time);
    return `${two(date.getHours())}:${two(date.getMinutes())}:${two(date.getSeconds())}`;
}

/** The local date and time of day. */
export function dateTimeText(time) {
    const date = new Date(time);
    return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())} ${clockText(time)}`;
}

export function numberText(number) {
    return number.toLocaleString("en");
}

export function countText(number, singular) {
    return `${numberText(number)} ${singular}${number === 1 ? "" : "s"}`;
}
