// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Who is away stands in the banner, with an age that goes on; it is read out when somebody goes or comes, not as it ages.
import { absences } from "./absence.js";
import { element, setText } from "./dom.js";

export class Banner {
    #banner;
    #live;

    constructor(banner, live) {
        this.#banner = banner;
        this.#live = live;
    }

    show(status, now, heard) {
        const away = absences(status, now, heard);
        while (this.#banner.children.length > away.length) {
            this.#banner.lastChild.remove();
        }
        while (this.#banner.children.length < away.length) {
            this.#banner.append(element("p"));
        }
        for (const [index, absence] of away.entries()) {
            setText(this.#banner.children[index], absence.shown);
        }
        const wasAway = !this.#banner.hidden;
        this.#banner.hidden = away.length === 0;
        if (away.length > 0 || wasAway) {
            setText(this.#live, away.map((absence) => absence.read).join(" ") || "All servers are connected.");
        }
        document.title = away.length > 0 ? "Away: Quillmere" : "Quillmere";
    }
}
