// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the page makes of what the monitor tells.
import assert from "node:assert/strict";
import { test } from "node:test";
import { radio } from "../../unit/page/radios.mjs";
import { esn, fleet, HOME, OTHER, Scene } from "./scene.js";

const scene = new Scene();

test("a history goes on while it is looked at", async () => {
    scene.monitor.tell(...fleet(3));
    const change = (time, overrides) => ({ ...radio(esn(1), overrides), time: `2026-11-23T03:27:0${time}.123Z` });
    const page = await scene.open();
    await page.click("#row-1");
    await scene.visit.untilText("#history-note", "No change since the monitor started.");
    scene.monitor.histories.set(esn(1), [change(1)]);
    scene.monitor.tell(radio(esn(1), { changed: "2026-11-23T03:27:01.123Z" }));
    await scene.visit.untilText("#history-list", "2026-11-23 03:27:01");
    scene.monitor.histories.set(esn(1), [change(1), change(2, { state: "gone" })]);
    scene.monitor.tell(radio(esn(1), { state: "gone" }));
    await scene.visit.untilText("#history-list", "gone");
    const times = await page.$$eval("#history-list time", (elements) => elements.map((element) => element.dateTime));
    assert.deepEqual(times, ["2026-11-23T03:27:02.123Z", "2026-11-23T03:27:01.123Z"]);
});

test("several servers have a column, a filter and histories of their own", async () => {
    scene.monitor.servers.push(scene.monitor.connected(OTHER));
    scene.monitor.tell(
        radio(esn(1)),
        radio(esn(1), { server: OTHER, state: "unconfirmed" }),
        radio(esn(2), { server: OTHER }),
    );
    const change = (server, address) => ({ ...radio(esn(1), { server, address }), time: "2026-11-23T03:27:03.123Z" });
    scene.monitor.histories.set(esn(1), [change(HOME, "10.0.0.1"), change(OTHER, "10.0.0.2")]);
    const page = await scene.open();
    const servers = async () => (await scene.visit.rows()).map(({ server }) => server);
    assert.deepEqual(await servers(), [OTHER, HOME, OTHER]);
    assert.ok(await page.isVisible(".columnheader, #grid .head .server"));
    await page.selectOption("#server", OTHER);
    await scene.visit.untilCount("2 of 3 radios");
    assert.deepEqual(await servers(), [OTHER, OTHER]);
    await page.click("#row-0");
    await scene.visit.untilText("#history-list", "10.0.0.2");
    assert.equal(await page.textContent("#history-title"), `${esn(1)} at ${OTHER}`);
    assert.ok(!(await page.textContent("#history-list")).includes("10.0.0.1"));
});

test("one server has neither column nor filter", async () => {
    scene.monitor.tell(radio(esn(1)));
    const page = await scene.open();
    assert.equal(await page.isVisible("#grid .head .server"), false);
    assert.equal(await page.isVisible("#grid .body .server"), false);
    assert.equal(await page.isVisible("#server"), false);
});

test("a server that is away is named with the age of its data, which goes on, and is read out once", async () => {
    scene.monitor.tell(...fleet(3));
    const page = await scene.open();
    assert.equal(await page.isVisible("#banner"), false);
    await page.evaluate(() => {
        const live = document.querySelector("#banner-live");
        globalThis.readings = [];
        new MutationObserver(() => globalThis.readings.push(live.textContent)).observe(live, { childList: true });
    });
    const since = Date.now() - 5000;
    const away = { connected: false, since: new Date(since).toISOString(), radios: 3, reason: "Connection refused" };
    scene.monitor.servers = [{ ...scene.monitor.servers[0], ...away }];
    scene.monitor.tellStatus();
    await scene.visit.untilText("#banner", `${HOME} is away: Connection refused. Its 3 radios are shown as of `);
    const ages = () => /as of (\d+) s ago/.exec(document.querySelector("#banner").textContent)[1];
    const age = Number(await page.evaluate(ages));
    assert.ok(age >= 5);
    await scene.visit.untilText("#banner", `as of ${age + 2} s ago`);
    assert.equal((await scene.visit.rows()).length, 3);
    scene.monitor.servers = [scene.monitor.connected(HOME)];
    scene.monitor.tellStatus();
    await page.waitForSelector("#banner", { state: "hidden" });
    const clock = new Date(since).toISOString().slice(11, 19); // the browser's zone is UTC
    const readings = [`${HOME} is away since ${clock}.`, "All servers are connected."];
    assert.deepEqual(await page.evaluate(() => globalThis.readings), readings);
});

test("a monitor that is away is named, and what went meanwhile leaves the table when it is back", async () => {
    scene.monitor.tell(...fleet(4));
    const page = await scene.open();
    scene.visit.isMonitorAway = true;
    await scene.monitor.stop();
    await scene.visit.untilText("#banner", "The monitor is away. What is shown is ");
    assert.equal((await scene.visit.rows()).length, 4);
    await scene.visit.until(() => / [1-9] s old/.test(document.querySelector("#banner").textContent));
    scene.monitor.radios.delete(`${HOME} ${esn(2)}`);
    await scene.monitor.start();
    await scene.visit.untilCount("3 radios");
    await page.waitForSelector("#banner", { state: "hidden" });
    const esns = (await scene.visit.rows()).map((row) => row.esn);
    assert.deepEqual(esns, [esn(0), esn(1), esn(3)]);
});

test("a table that is told anew on the same connection loses what is not told again", async () => {
    scene.monitor.tell(...fleet(4));
    await scene.open();
    scene.monitor.radios.delete(`${HOME} ${esn(2)}`);
    scene.monitor.tellAnew();
    await scene.visit.untilCount("3 radios");
});

test("what a search finds is counted, and read out when it has settled", async () => {
    scene.monitor.tell(...fleet(300));
    const page = await scene.open();
    await page.type("#query", "10.0.1.");
    await scene.visit.untilCount("44 of 300 radios");
    await scene.visit.untilText("#count-live", "44 of 300 radios");
    await page.fill("#query", "10.0.9.");
    await scene.visit.untilCount("0 of 300 radios");
    assert.equal(await page.isVisible("#empty"), true);
    assert.equal(await page.textContent("#empty"), "No radio is as asked for.");
    assert.equal((await scene.visit.rows()).length, 0);
    assert.equal(await page.getAttribute("#grid", "aria-rowcount"), "1");
    await page.fill("#query", "");
    await scene.visit.untilCount("300 radios");
    assert.equal(await page.isVisible("#empty"), false);
    assert.equal(await page.getAttribute("#grid", "aria-rowcount"), "301");
});

test("a filter keeps what it asks for, though no radio is so any more", async () => {
    scene.monitor.tell(...fleet(3, (number) => ({ services: [number] })));
    const page = await scene.open();
    const choices = () => page.$$eval("#service option", (options) => options.map(({ value }) => value));
    assert.deepEqual(await choices(), ["", "0", "1", "2"]);
    await page.selectOption("#service", "2");
    await scene.visit.untilCount("1 of 3 radios");
    scene.monitor.tell(radio(esn(2), { services: [] }));
    await scene.visit.untilCount("0 of 3 radios");
    assert.equal(await page.inputValue("#service"), "2");
});
