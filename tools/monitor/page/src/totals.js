// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// How many radios there are in each state, as the monitor counts them.
import { markClass, STATES } from "./columns.js";
import { element, setText } from "./dom.js";
import { numberText } from "./texts.js";

/** All states with a name, and those with a number that occur. */
export function totalsOf(status) {
    const others = Object.keys(status.states).filter((state) => !STATES.includes(state));
    return [...STATES, ...others.sort()].map((state) => [state, status.states[state] ?? 0]);
}

export class Totals {
    #list;
    #items = new Map();

    constructor(list) {
        this.#list = list;
    }

    show(status) {
        const totals = [["all radios", status.radios], ...totalsOf(status)];
        for (const [name, item] of this.#items) {
            if (!totals.some(([state]) => state === name)) {
                item.element.remove();
                this.#items.delete(name);
            }
        }
        for (const [state, count] of totals) {
            setText(this.#item(state).number, numberText(count));
        }
    }

    #item(state) {
        if (!this.#items.has(state)) {
            const number = element("span", { className: "number" });
            const className = state === "all radios" ? "" : markClass(state);
            const mark = element("span", { className, attributes: { "aria-hidden": "true" } });
            const label = element("span", { className: "label" }, [mark, element("span", { text: state })]);
            const made = element("li", { attributes: { "data-state": state } }, [number, " ", label]);
            this.#list.append(made);
            this.#items.set(state, { element: made, number });
        }
        return this.#items.get(state);
    }
}
