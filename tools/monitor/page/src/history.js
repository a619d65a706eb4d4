// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// One radio's changes since the monitor started, the latest first, as long as somebody looks at it.
import { markClass } from "./columns.js";
import { byId, element } from "./dom.js";
import { suidText } from "./radio.js";
import { dateTimeText } from "./texts.js";

/** As wide as the page is when the history takes all of it. */
const NARROW = "(max-width: 45rem)";

/** The changes of that server's radio, the latest first, each with the time, the state, and what else there is to tell. */
export function changesOf(told, server) {
    return told.history
        .filter((change) => change.server === server)
        .reverse()
        .map((change) => ({
            time: change.time,
            state: change.state,
            details: [
                suidText(change),
                change.address ?? "no address",
                change.services.length > 0 ? `services ${change.services.join(", ")}` : "no services",
            ],
        }));
}

function changeElement({ time, state, details }) {
    const when = element("time", { text: dateTimeText(Date.parse(time)), attributes: { datetime: time } });
    const mark = element("span", { className: markClass(state), attributes: { "aria-hidden": "true" } });
    const stateText = element("span", { className: "state" }, [mark, element("span", { text: state })]);
    const rest = details.map((detail) => element("span", { text: detail }));
    return element("li", {}, [when, " ", stateText, " ", element("span", { className: "details" }, rest)]);
}

export class History {
    #dialog = byId("history");
    #title = byId("history-title");
    #note = byId("history-note");
    #list = byId("history-list");
    #row = null;
    #asked = 0;

    #onClose;

    constructor(onClose) {
        this.#onClose = onClose;
        byId("history-close").addEventListener("click", () => this.close());
        this.#dialog.addEventListener("keydown", (event) => {
            if (event.key === "Escape") {
                event.preventDefault();
                this.close();
            }
        });
        // A phone's browser closes it by itself, too. The event comes later: it may be open again by then.
        this.#dialog.addEventListener("close", () => this.#dialog.open || this.close());
    }

    open(row, severalServers) {
        this.#row = row;
        this.#title.textContent = severalServers ? `${row.esn} at ${row.server}` : row.esn;
        this.#list.replaceChildren();
        this.#note.textContent = "Asking the monitor";
        if (!this.#dialog.open) {
            if (matchMedia(NARROW).matches) {
                this.#dialog.showModal();
            } else {
                this.#dialog.show();
            }
        }
        byId("history-close").focus();
        this.#ask();
    }

    close() {
        if (this.#row) {
            this.#row = null;
            this.#dialog.close();
            this.#onClose();
        }
    }

    /** Asks again when the radio has another row, or none, than what is shown. */
    renew(row) {
        if (this.#row && row !== this.#row) {
            this.#row = row ?? { ...this.#row };
            this.#ask();
        }
    }

    get key() {
        return this.#row?.key ?? null;
    }

    /** Of several answers only that to the last question is shown. */
    async #ask() {
        const question = ++this.#asked;
        const { esn, server } = this.#row;
        let told = { history: [] };
        let note = "";
        try {
            const answer = await fetch(`/api/radios/${encodeURIComponent(esn)}`);
            if (answer.ok) {
                told = await answer.json();
            } else if (answer.status !== 404) {
                note = "The monitor does not say.";
            }
        } catch {
            note = "The monitor is away.";
        }
        if (question === this.#asked && this.#row) {
            this.#show(changesOf(told, server), note);
        }
    }

    #show(changes, note) {
        if (note !== "") {
            this.#note.textContent = note; // beside what was told before
            return;
        }
        this.#note.textContent = changes.length > 0 ? "" : "No change since the monitor started.";
        this.#list.replaceChildren(...changes.map(changeElement));
    }
}
