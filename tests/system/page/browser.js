// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Debian's Chromium, without a window; and pages in it that keep account of what a page must not do.
import assert from "node:assert/strict";
import { readFileSync } from "node:fs";
import { createRequire } from "node:module";
import { join } from "node:path";

const modules = createRequire(join(process.env.QUILLMERE_PAGE_MODULES, "/"));
const { chromium } = modules("playwright-core");
const axe = readFileSync(modules.resolve("axe-core/axe.min.js"), "utf8");

export const DESK = { width: 1280, height: 900 };
export const PHONE = { width: 360, height: 740 };

/** Milliseconds that anything may take; nothing that works takes long. */
export const PATIENCE = 20_000;

export function launch() {
    return chromium.launch({
        executablePath: process.env.QUILLMERE_CHROMIUM ?? "/usr/bin/chromium",
        args: process.getuid() === 0 ? ["--no-sandbox"] : [],
    });
}

/** A page of its own, and what it has done that no page may. */
export class Visit {
    #context;
    #origin;
    #misdeeds = [];
    isMonitorAway = false;

    static async begin(browser, origin, { viewport = DESK, ...options } = {}) {
        const visit = new Visit();
        visit.#origin = origin;
        visit.#context = await browser.newContext({ viewport, timezoneId: "UTC", ...options });
        visit.page = await visit.#context.newPage();
        visit.page.setDefaultTimeout(PATIENCE);
        visit.#watch();
        await visit.page.goto(`${origin}/`);
        return visit;
    }

    #watch() {
        const { page } = this;
        page.on("console", (message) => {
            // What the browser itself says of a monitor that the test has taken away.
            const isAbsence = /ERR_CONNECTION_REFUSED|ERR_INCOMPLETE_CHUNKED|ERR_EMPTY_RESPONSE|ERR_CONNECTION_RESET/;
            if (!(this.isMonitorAway && isAbsence.test(message.text()))) {
                this.#misdeeds.push(`console: ${message.text()}`);
            }
        });
        page.on("pageerror", (error) => this.#misdeeds.push(`error: ${error.message}`));
        page.on("dialog", (dialog) => {
            this.#misdeeds.push(`dialog: ${dialog.message()}`);
            dialog.dismiss();
        });
        page.on("request", (request) => {
            if (!request.url().startsWith(`${this.#origin}/`)) {
                this.#misdeeds.push(`request: ${request.url()}`);
            }
        });
    }

    /** Ends the visit; the page must have behaved. */
    async end() {
        await this.#context.close();
        assert.deepEqual(this.#misdeeds, []);
    }

    /** Waits for what the page is to have come to: a function that the page runs. */
    async until(condition, argument) {
        await this.page.waitForFunction(condition, argument, { polling: 50, timeout: PATIENCE });
    }

    async untilText(selector, text) {
        await this.until(
            ([selector, text]) => document.querySelector(selector)?.textContent.includes(text),
            [selector, text],
        ).catch(async (error) => {
            assert.equal(await this.page.textContent(selector), text, error.message);
        });
    }

    /** The rows in sight and near it, from top to bottom, each with its cells' texts by column. */
    rows() {
        return this.page.$$eval("#grid .body .row:not([hidden])", (rows) =>
            rows.map((row) => ({
                index: Number(row.getAttribute("aria-rowindex")),
                ...Object.fromEntries([...row.children].map((cell) => [cell.className, cell.textContent])),
            })),
        );
    }

    async untilCount(text) {
        await this.until((text) => document.querySelector("#count").textContent === text, text).catch(async () => {
            assert.equal(await this.page.textContent("#count"), text);
        });
    }

    /** Until the table has these radios and no others, in this order. */
    async untilEsns(expected) {
        await this.until((expected) => {
            const rows = [...document.querySelectorAll("#grid .body .row:not([hidden])")];
            return rows.map((row) => row.dataset.esn).join() === expected;
        }, expected.join()).catch(async () => {
            assert.deepEqual(
                (await this.rows()).map(({ esn }) => esn),
                expected,
            );
        });
    }

    /** What axe-core finds that is serious or worse. */
    async barriers() {
        // Not as an element of the page, which the policy of the page refuses: by the debugger.
        await this.page.evaluate(axe);
        const { violations } = await this.page.evaluate(() => globalThis.axe.run(document));
        return violations
            .filter(({ impact }) => impact === "serious" || impact === "critical")
            .map(({ id, nodes }) => `${id}: ${nodes.map(({ html }) => html).join(" ")}`);
    }
}
