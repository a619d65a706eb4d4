// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Which rows of a long table are in sight. Heights and places are in pixels.

/** Browsers lose count of taller elements: beyond this the scroll bar stands for the rows in proportion. */
export const TALLEST = 8_000_000;

/** Rows that are drawn above and below those in sight, for scrolling without gaps. */
const SPARE = 8;

export class Viewport {
    /** count rows of rowHeight are seen through a window of this height. */
    constructor(count, rowHeight, height) {
        this.count = count;
        this.rowHeight = rowHeight;
        this.height = height;
        this.full = count * rowHeight;
        this.extent = Math.min(this.full, TALLEST);
    }

    /** Where the rows' own scale has what the scroll bar says. */
    toRows(scrollTop) {
        return scrollTop * this.#proportion();
    }

    toScroll(top) {
        return top / this.#proportion();
    }

    /** The rows to draw, [first, end), when scrolled to there. */
    range(scrollTop) {
        const top = this.toRows(scrollTop);
        const first = Math.floor(top / this.rowHeight) - SPARE;
        const end = Math.ceil((top + this.height) / this.rowHeight) + SPARE;
        return { first: Math.max(0, Math.min(first, this.count)), end: Math.max(0, Math.min(end, this.count)) };
    }

    /** Where a row is to be drawn when scrolled to there. */
    place(index, scrollTop) {
        return scrollTop + index * this.rowHeight - this.toRows(scrollTop);
    }

    /** How far to scroll, from there, that the whole row is in sight: no farther than needed. */
    reveal(index, scrollTop) {
        const top = this.toRows(scrollTop);
        const rowTop = index * this.rowHeight;
        if (rowTop < top) {
            return this.toScroll(rowTop);
        }
        if (rowTop + this.rowHeight > top + this.height) {
            return this.toScroll(rowTop + this.rowHeight - this.height);
        }
        return scrollTop;
    }

    /** Whole rows in sight, one at least. */
    get page() {
        return Math.max(1, Math.floor(this.height / this.rowHeight));
    }

    #proportion() {
        return this.full > this.extent ? (this.full - this.height) / (this.extent - this.height) : 1;
    }
}
