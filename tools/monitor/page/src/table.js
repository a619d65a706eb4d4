// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// All radios, and those of them that somebody wants to see, both in order. What comes in is put aside until flush().
import { comparator, indexIn, merged } from "./order.js";
import { keyOf, makeRow } from "./radio.js";

export class Table {
    #rows = new Map();
    #added = [];
    #removed = false;
    #generation = 0;
    #compare = comparator("esn", false);
    #matches = null;
    #all = [];
    #view = [];

    /** What is shown, in order; as of the last flush. */
    get view() {
        return this.#view;
    }

    /** How many radios there are, shown or not; as of the last flush. */
    get total() {
        return this.#all.length;
    }

    row(key) {
        return this.#rows.get(key);
    }

    indexOf(row) {
        return indexIn(this.#view, row, this.#compare);
    }

    /** The table will be told anew. What it had stays in view until that is done. */
    begin() {
        ++this.#generation;
    }

    take(radios) {
        for (const radio of radios) {
            this.#drop(keyOf(radio));
            if (radio.state !== "gone") {
                const row = makeRow(radio);
                row.generation = this.#generation;
                this.#rows.set(row.key, row);
                this.#added.push(row);
            }
        }
    }

    /** The table has been told as a whole: what was not told since begin() is gone. */
    complete() {
        for (const row of this.#rows.values()) {
            if (row.generation !== this.#generation) {
                this.#drop(row.key);
            }
        }
    }

    setOrder(column, descending) {
        this.flush();
        this.#compare = comparator(column, descending);
        this.#all.sort(this.#compare);
        this.#choose();
    }

    /** Which rows are to be shown; null: all of them. */
    setFilter(matches) {
        this.flush();
        this.#matches = matches;
        this.#choose();
    }

    /** Brings the view up to date, and says whether there was anything to do: few rows are sorted, and all passed once. */
    flush() {
        if (this.#added.length === 0 && !this.#removed) {
            return false;
        }
        const added = this.#added.filter((row) => !row.stale).sort(this.#compare);
        this.#all = merged(this.#all, added, this.#compare);
        if (this.#matches) {
            this.#view = merged(this.#view, added.filter(this.#matches), this.#compare);
        } else {
            this.#view = this.#all;
        }
        this.#added = [];
        this.#removed = false;
        return true;
    }

    #drop(key) {
        const row = this.#rows.get(key);
        if (row) {
            row.stale = true;
            this.#rows.delete(key);
            this.#removed = true;
        }
    }

    #choose() {
        this.#view = this.#matches ? this.#all.filter(this.#matches) : this.#all;
    }
}
