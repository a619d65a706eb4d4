// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The table of radios: only the rows in sight are elements. The keyboard's focus is the table's; the row that it is at
// is told by aria-activedescendant.
import { COLUMNS, FRESH, markClass } from "./columns.js";
import { element, setAttribute, setText } from "./dom.js";
import { moved } from "./keys.js";
import { ageText, dateTimeText } from "./texts.js";
import { Viewport } from "./viewport.js";

export class Grid {
    #grid;
    #body;
    #head;
    #table;
    #options;
    #pool = [];
    #shown = []; // the rows that the pool's elements show
    #active = null; // the key of the row that the keyboard is at
    #activeIndex = -1;
    #pressed = null;

    /** options: onOpen(row), onSort(column), now() by the monitor's clock. */
    constructor(grid, table, options) {
        this.#grid = grid;
        this.#table = table;
        this.#options = options;
        this.#head = element("div", { role: "row", className: "row", attributes: { "aria-rowindex": 1 } });
        this.#body = element("div", { role: "rowgroup", className: "body" });
        for (const [index, column] of COLUMNS.entries()) {
            const button = element("button", { text: column.title, attributes: { type: "button" } });
            button.addEventListener("click", () => options.onSort(column.name));
            const cell = { role: "columnheader", className: column.name, attributes: { "aria-colindex": index + 1 } };
            this.#head.append(element("div", cell, [button]));
        }
        grid.append(element("div", { role: "rowgroup", className: "head" }, [this.#head]), this.#body);
        setAttribute(grid, "aria-colcount", COLUMNS.length);
        grid.addEventListener("scroll", () => this.draw());
        grid.addEventListener("keydown", (event) => this.#key(event));
        grid.addEventListener("focus", () => this.#enter());
        new ResizeObserver(() => this.draw()).observe(grid);
        this.#mouse();
    }

    focus() {
        this.#grid.focus({ preventScroll: true });
    }

    showOrder(column, descending) {
        for (const [index, cell] of [...this.#head.children].entries()) {
            if (COLUMNS[index].name === column) {
                cell.setAttribute("aria-sort", descending ? "descending" : "ascending");
            } else {
                cell.removeAttribute("aria-sort");
            }
        }
    }

    scrollToTop() {
        this.#grid.scrollTop = 0;
    }

    /** The first row in sight that is not about to move, with its distance from the top; null at the very top. */
    anchor() {
        const scrollTop = this.#grid.scrollTop;
        if (scrollTop === 0) {
            return null;
        }
        const viewport = this.#viewport();
        const top = viewport.toRows(scrollTop);
        const first = Math.max(0, Math.floor(top / viewport.rowHeight));
        const rows = this.#table.view.slice(first, first + viewport.page);
        const steady = rows.findIndex((row) => !row.stale);
        return steady < 0 ? null : { row: rows[steady], below: (first + steady) * viewport.rowHeight - top };
    }

    /** Draws the table as it is now, with the anchor where it was. */
    renew(anchor) {
        const viewport = this.#viewport();
        this.#resize(viewport);
        const index = anchor ? this.#table.indexOf(anchor.row) : -1;
        if (index >= 0) {
            this.#grid.scrollTop = viewport.toScroll(index * viewport.rowHeight - anchor.below);
        }
        const active = this.#table.row(this.#active);
        const at = active ? this.#table.indexOf(active) : -1;
        if (at >= 0) {
            this.#activeIndex = at;
        } else if (this.#active !== null) {
            // The row has gone: the keyboard goes on from where it was.
            this.#activeIndex = Math.min(this.#activeIndex, this.#table.view.length - 1);
            this.#active = this.#table.view[this.#activeIndex]?.key ?? null;
        }
        this.draw();
    }

    draw() {
        const viewport = this.#viewport();
        this.#resize(viewport);
        const scrollTop = this.#grid.scrollTop;
        const { first, end } = viewport.range(scrollTop);
        while (this.#pool.length < end - first) {
            this.#pool.push(this.#makeRow(this.#pool.length));
        }
        const now = this.#options.now();
        for (const [slot, parts] of this.#pool.entries()) {
            const row = this.#table.view[first + slot];
            parts.element.hidden = !row || first + slot >= end;
            if (!parts.element.hidden) {
                this.#fill(slot, row, now);
                this.#placeRow(parts, first + slot, viewport.place(first + slot, scrollTop));
            }
        }
        const active = this.#active === null ? -1 : this.#activeIndex;
        if (active >= first && active < end) {
            setAttribute(this.#grid, "aria-activedescendant", this.#pool[active - first].element.id);
        } else {
            this.#grid.removeAttribute("aria-activedescendant");
        }
    }

    #viewport() {
        const style = getComputedStyle(this.#grid);
        const rowHeight = Number.parseFloat(style.getPropertyValue("--row-height"));
        const height = Math.max(0, this.#grid.clientHeight - this.#head.offsetHeight);
        return new Viewport(this.#table.view.length, rowHeight, height);
    }

    #resize(viewport) {
        this.#body.style.height = `${viewport.extent}px`;
        setAttribute(this.#grid, "aria-rowcount", viewport.count + 1); // with the titles
    }

    #makeRow(slot) {
        const mark = element("span", { className: "mark", attributes: { "aria-hidden": "true" } });
        const state = element("span");
        const texts = [];
        const cells = COLUMNS.map((column, index) => {
            const attributes = { "aria-colindex": index + 1 };
            const cell = element("div", { role: "gridcell", className: column.name, attributes });
            texts.push(column.name === "state" ? state : cell);
            if (column.name === "state") {
                cell.append(mark, state);
            }
            return cell;
        });
        const made = element("div", { role: "row", className: "row", attributes: { id: `row-${slot}` } }, cells);
        this.#body.append(made);
        return { element: made, texts, mark };
    }

    #fill(slot, row, now) {
        const { element: made, texts, mark } = this.#pool[slot];
        if (this.#shown[slot] !== row) {
            this.#shown[slot] = row;
            for (const [index, column] of COLUMNS.entries()) {
                if (column.name !== "changed") {
                    setText(texts[index], column.text(row));
                }
            }
            mark.className = markClass(row.state);
            const changed = texts[COLUMNS.length - 1];
            changed.title = row.changed === null ? "not since the monitor started" : dateTimeText(row.changed);
            made.dataset.esn = row.esn;
            made.dataset.changed = row.changedText ?? "";
        }
        setText(texts[COLUMNS.length - 1], row.changed === null ? "-" : ageText(now - row.changed));
        made.classList.toggle("fresh", row.changed !== null && now - row.changed < FRESH);
    }

    #placeRow({ element: made }, index, top) {
        made.style.transform = `translateY(${top}px)`;
        setAttribute(made, "aria-rowindex", index + 2);
        const isActive = this.#active !== null && index === this.#activeIndex;
        setAttribute(made, "aria-selected", isActive);
        made.classList.toggle("odd", index % 2 === 1);
    }

    #moveTo(index) {
        this.#activeIndex = index;
        this.#active = this.#table.view[index].key;
        this.#grid.scrollTop = this.#viewport().reveal(index, this.#grid.scrollTop);
        this.draw();
    }

    #enter() {
        if (this.#active === null && this.#table.view.length > 0) {
            const viewport = this.#viewport();
            const first = Math.ceil(viewport.toRows(this.#grid.scrollTop) / viewport.rowHeight);
            this.#moveTo(Math.min(first, viewport.count - 1));
        }
    }

    #key(event) {
        if (event.target !== this.#grid || event.ctrlKey || event.altKey || event.metaKey) {
            return;
        }
        const row = this.#active === null ? undefined : this.#table.row(this.#active);
        if (event.key === "Enter" && row) {
            event.preventDefault();
            this.#options.onOpen(row);
            return;
        }
        const target = moved(event.key, this.#activeIndex, this.#table.view.length, this.#viewport().page);
        if (target !== null) {
            event.preventDefault();
            this.#moveTo(target);
        }
    }

    /** The row that a press began at is meant, whatever has taken its place until the click. */
    #mouse() {
        const rowAt = (event) => {
            const slot = this.#pool.findIndex((parts) => parts.element.contains(event.target));
            return slot < 0 ? null : this.#shown[slot];
        };
        this.#body.addEventListener("pointerdown", (event) => {
            this.#pressed = rowAt(event);
        });
        this.#body.addEventListener("click", () => {
            const row = this.#pressed && this.#table.row(this.#pressed.key);
            const index = row ? this.#table.indexOf(row) : -1;
            if (index >= 0) {
                this.#moveTo(index);
                this.#options.onOpen(row);
            }
        });
    }
}
