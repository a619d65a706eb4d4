// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What tests by a scripted monitor share: a browser, and for each test a monitor and a visit of its page.
import { after, afterEach, before, beforeEach } from "node:test";
import { radio } from "../../unit/page/radios.mjs";
import { launch, Visit } from "./browser.js";
import { ScriptedMonitor } from "./scriptedmonitor.js";

export const HOME = "127.0.0.1:9361";
export const OTHER = "10.9.8.7:9361";

export function esn(number) {
    return number.toString(16).toUpperCase().padStart(16, "0");
}

/** Radios 0 to count - 1, of which each has its own address. */
export function fleet(count, overrides = () => ({})) {
    return Array.from({ length: count }, (_, number) =>
        radio(esn(number), { address: `10.0.${number >> 8}.${number & 255}`, ...overrides(number) }),
    );
}

export class Scene {
    /** For the tests of the file that calls it. */
    constructor() {
        before(async () => {
            this.browser = await launch();
        });
        after(() => this.browser.close());
        beforeEach(async () => {
            this.monitor = new ScriptedMonitor(process.env.QUILLMERE_PAGE);
            await this.monitor.start();
        });
        afterEach(async () => {
            try {
                await this.visit.end();
            } finally {
                await this.monitor.stop();
            }
        });
    }

    /** The page, as soon as it has all radios. */
    async open(options) {
        this.visit = await Visit.begin(this.browser, this.monitor.origin, options);
        const count = this.monitor.radios.size;
        await this.visit.untilCount(count === 1 ? "1 radio" : `${count.toLocaleString("en")} radios`);
        return this.visit.page;
    }

    /** Until the keyboard is at that radio. */
    async untilActive(number) {
        await this.visit.until((esn) => {
            const id = document.querySelector("#grid").getAttribute("aria-activedescendant");
            return id !== null && document.getElementById(id).dataset.esn === esn;
        }, esn(number));
    }

    /** The first row in sight, as the browser has drawn it. */
    topRow() {
        return this.visit.page.$eval("#grid", (grid) => {
            const below = grid.querySelector(".head").getBoundingClientRect().bottom;
            const rows = [...grid.querySelectorAll(".body .row:not([hidden])")];
            return rows.find((row) => row.getBoundingClientRect().bottom > below + 1)?.dataset.esn;
        });
    }

    /** Scrolls as a wheel does, and waits until the rows there are drawn. */
    async scrollTo(index) {
        await this.visit.page.$eval(
            "#grid",
            async (grid, index) => {
                const drawn = new Promise((resolve) => grid.addEventListener("scroll", resolve, { once: true }));
                grid.scrollTop = index * grid.querySelector(".body .row").offsetHeight;
                await drawn;
            },
            index,
        );
    }
}
