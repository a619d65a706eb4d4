// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What a person asks of the table: a search, and one state, service and server, or any.
import { STATES } from "./columns.js";
import { byId, element, setText } from "./dom.js";
import { countText, numberText } from "./texts.js";
import { totalsOf } from "./totals.js";

/** Typing is followed when it pauses. */
const PAUSE = 150;
/** What is found is read out when it has settled. */
const READING_PAUSE = 600;

function soon(action, pause) {
    let timer = 0;
    return () => {
        clearTimeout(timer);
        timer = setTimeout(action, pause);
    };
}

/** The choices of a list, the chosen one among them whether or not it still occurs. */
function setChoices(select, values) {
    const wanted = ["", ...new Set(select.value === "" ? values : [...values, select.value])];
    const present = [...select.options].map((option) => option.value);
    if (wanted.join("\n") !== present.join("\n")) {
        const chosen = select.value;
        const option = (value) => element("option", { text: value || "any", attributes: { value } });
        select.replaceChildren(...wanted.map(option));
        select.value = chosen;
    }
}

export class Controls {
    #form = byId("controls");
    #query = byId("query");
    #state = byId("state");
    #service = byId("service");
    #server = byId("server");
    #count = byId("count");
    #live = byId("count-live");
    #readOut = soon(() => setText(this.#live, this.#count.textContent), READING_PAUSE);

    constructor(onChange) {
        const changed = () => {
            onChange(this.asked);
            this.#readOut();
        };
        this.#form.addEventListener("submit", (event) => event.preventDefault());
        this.#query.addEventListener("input", soon(changed, PAUSE));
        for (const select of [this.#state, this.#service, this.#server]) {
            select.addEventListener("change", changed);
        }
        setChoices(this.#state, STATES);
    }

    get asked() {
        return {
            query: this.#query.value,
            state: this.#state.value,
            service: this.#service.value,
            server: this.#server.value,
        };
    }

    offer(status) {
        setChoices(
            this.#state,
            totalsOf(status).map(([state]) => state),
        );
        setChoices(
            this.#service,
            Object.keys(status.services).sort((a, b) => a - b),
        );
        setChoices(
            this.#server,
            status.servers.map(({ server }) => server),
        );
        document.body.classList.toggle("several-servers", status.servers.length > 1);
    }

    showCount(shown, total, isComplete) {
        const all = countText(total, "radio");
        const text = shown === total ? all : `${numberText(shown)} of ${all}`;
        setText(this.#count, isComplete ? text : `${text}, loading`);
    }
}
