// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The monitor's events. A connection that ends, or that says nothing for too long, is made anew.

/** The monitor says something each second. */
const SILENCE = 5000;
const PAUSE = 1000;

export class Stream {
    #handlers;
    #environment;
    #source = null;
    #silence = null;

    /**
     * handlers: begin() where the table is told from its beginning, away() for the end of a connection, and one for each
     * other kind of event, with its data.
     * environment: what of the browser is used.
     */
    constructor(handlers, environment = globalThis) {
        this.#handlers = handlers;
        this.#environment = environment;
    }

    open() {
        const source = new this.#environment.EventSource("/api/events");
        this.#source = source;
        source.addEventListener("open", () => this.#handlers.begin());
        source.addEventListener("reset", () => this.#handlers.begin());
        source.addEventListener("error", () => this.#lost());
        for (const kind of ["status", "radios", "snapshot"]) {
            source.addEventListener(kind, (event) => {
                this.#listen();
                this.#handlers[kind](JSON.parse(event.data));
            });
        }
        this.#listen();
    }

    #listen() {
        this.#environment.clearTimeout(this.#silence);
        this.#silence = this.#environment.setTimeout(() => this.#lost(), SILENCE);
    }

    #lost() {
        this.#environment.clearTimeout(this.#silence);
        this.#source.close();
        this.#handlers.away();
        this.#environment.setTimeout(() => this.open(), PAUSE);
    }
}
