// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Pictures of the page, for whoever wants to see it; docs/monitor.png is one of them.
import { join } from "node:path";
import { after, before, test } from "node:test";
import { launch, PHONE, Visit } from "./browser.js";
import { Monitor, Server } from "./programs.js";

const DESK = { width: 1200, height: 860 };
const RADIOS = 22;

let browser;
let server;
let monitor;

/** Radios in all states: 4 and 11 are unreachable, 7 and 16 unconfirmed, 9 and 18 pending; some have changed of late. */
before(async () => {
    browser = await launch();
    server = await Server.make();
    await server.start();
    const services = ["1", "1,3", "1,2,3", "2,3"];
    const esns = [];
    const register = async (number) => {
        esns[number] = await server.register(number, "--services", services[number % 4]);
    };
    await register(4);
    await register(11);
    await server.kill();
    server.sql("UPDATE subscribers SET availability = 1");
    await server.start();
    for (let number = 1; number <= RADIOS; ++number) {
        if (![4, 9, 11, 18].includes(number)) {
            await register(number);
        }
    }
    monitor = await Monitor.make(server);
    await monitor.start();
    for (const number of [7, 16]) {
        await server.report(esns[number], `127.0.0.${number}`);
    }
    await server.register(13, "--services", "3");
    for (const number of [9, 18]) {
        await server.register(number, "--services", "1", "--pending");
    }
});

after(async () => {
    await browser.close();
    await monitor.kill();
    await server.remove();
});

for (const [name, options] of Object.entries({
    "desk-light": { viewport: DESK, colorScheme: "light" },
    "desk-dark": { viewport: DESK, colorScheme: "dark" },
    phone: { viewport: PHONE, colorScheme: "light" },
})) {
    test(`picture: ${name}`, async () => {
        const visit = await Visit.begin(browser, monitor.origin, { ...options, reducedMotion: "reduce" });
        const { page } = visit;
        await visit.untilCount(`${RADIOS} radios`);
        await visit.until(() =>
            /Changes: .* at most [1-9]/.test(document.querySelector("#seconds-summary").textContent),
        );
        await visit.untilText("#totals", `${RADIOS} all radios`);
        await page.click(".head .changed button");
        if (name !== "phone") {
            await page.click('[data-esn="0011AABB22CC330D"]');
            await page.waitForSelector("#history-list li");
        }
        const path = join(process.env.QUILLMERE_SCREENSHOTS, `${name}.png`);
        await page.screenshot({ path, fullPage: name === "phone" });
        await visit.end();
    });
}
