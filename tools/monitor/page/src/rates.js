// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

/**
 * Times in seconds since 1970, registrations and changes, as a plot has them. time: when the counts were told; step: the seconds
 * that each is of. The last is of the last whole step.
 */
export function columnsOf(time, step, { registrations, changes }) {
    const last = (Math.floor(Date.parse(time) / 1000 / step) - 1) * step;
    const first = last - (changes.length - 1) * step;
    return [changes.map((_, index) => first + index * step), registrations, changes];
}
