// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Registrations and changes in each of the last seconds and minutes. Times are whole seconds since 1970.

class Series {
    constructor(step, counts, time) {
        this.step = step;
        this.registrations = counts.registrations;
        this.changes = counts.changes;
        this.last = (Math.floor(time / step) - 1) * step;
    }

    /** For a plot: times, registrations, changes. */
    columns() {
        const first = this.last - (this.changes.length - 1) * this.step;
        return [this.changes.map((_, index) => first + index * this.step), this.registrations, this.changes];
    }
}

export class Rates {
    seconds = null;
    minutes = null;

    /** What /api/rates told. */
    load(told) {
        const time = Date.parse(told.time) / 1000;
        this.seconds = new Series(1, told.seconds, time);
        this.minutes = new Series(60, told.minutes, time);
    }

    /** Takes the last second from a status. False: there is more to be known than it tells, /api/rates is to be asked. */
    add(status) {
        if (!this.seconds) {
            return false;
        }
        const time = Date.parse(status.time) / 1000;
        const second = Math.floor(time) - 1;
        if (second === this.seconds.last + 1) {
            this.seconds.registrations = [...this.seconds.registrations.slice(1), status.registrations];
            this.seconds.changes = [...this.seconds.changes.slice(1), status.changes];
            this.seconds.last = second;
        }
        const minute = (Math.floor(time / 60) - 1) * 60;
        return second <= this.seconds.last && second >= this.seconds.last - 60 && minute <= this.minutes.last;
    }
}
