// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The page for all who look at it, or do not.
import assert from "node:assert/strict";
import { test } from "node:test";
import { radio } from "../../unit/page/radios.mjs";
import { PHONE } from "./browser.js";
import { esn, fleet, OTHER, Scene } from "./scene.js";

const scene = new Scene();

test("markup is text, wherever it comes from", async () => {
    const markup = '<img src=x onerror="alert(1)">';
    scene.monitor.servers = [
        { ...scene.monitor.connected(markup), connected: false, reason: markup },
        { ...scene.monitor.connected(OTHER), connected: false, since: null, reason: "<script>alert(2)</script>" },
    ];
    const strange = { server: markup, state: markup, address: markup, wacn: markup, services: [markup] };
    scene.monitor.tell(radio(markup, strange));
    scene.monitor.histories.set(markup, [{ ...radio(markup, strange), time: "2026-11-23T03:27:03.123Z" }]);
    const page = await scene.open();
    const [row] = await scene.visit.rows();
    for (const column of ["esn", "address", "state", "services", "server"]) {
        assert.equal(row[column], markup);
    }
    await scene.visit.untilText("#banner", `${markup} is away: ${markup}.`);
    await scene.visit.untilText("#totals", markup);
    await page.fill("#query", markup);
    await scene.visit.untilCount("1 radio");
    await page.click("#row-0");
    await scene.visit.untilText("#history-list", markup);
    assert.equal(await page.locator("img, script:not([src])").count(), 0);
});

test("nobody moves who does not want to", async () => {
    scene.monitor.tell(...fleet(3));
    await scene.open({ reducedMotion: "reduce" });
    const durations = (page) =>
        page.$$eval("*", (elements) => {
            const styles = elements.map((element) => getComputedStyle(element));
            return [...new Set(styles.flatMap((style) => [style.transitionDuration, style.animationDuration]))];
        });
    assert.deepEqual(await durations(scene.visit.page), ["0s"]);
    await scene.visit.end();
    await scene.open({ reducedMotion: "no-preference" });
    assert.ok((await durations(scene.visit.page)).includes("0.4s"));
});

for (const several of [false, true]) {
    test(`a phone has no need to scroll sideways with ${several ? "several servers" : "one server"}`, async () => {
        if (several) {
            scene.monitor.servers.push({
                ...scene.monitor.connected("a-server-with-a-long-name.example:9361"),
                connected: false,
                since: null,
            });
        }
        scene.monitor.tell(
            ...fleet(300, () => ({
                address: "255.255.255.255",
                state: "unreachable",
                changed: "2025-01-01T00:00:00.000Z",
            })),
        );
        scene.monitor.histories.set(esn(0), [
            { ...radio(esn(0)), services: [...new Array(60).keys()], time: "2026-11-23T03:27:03.123Z" },
        ]);
        const page = await scene.open({ viewport: PHONE });
        const width = () => page.evaluate(() => document.documentElement.scrollWidth);
        assert.equal(await width(), PHONE.width);
        for (const column of ["esn", "suid", "address", "state", "changed"]) {
            const isCut = await page.$eval(`#row-0 .${column}`, (cell) => cell.scrollWidth > cell.clientWidth);
            assert.equal(isCut, false, column);
        }
        await page.click("#row-0");
        await scene.visit.untilText("#history-list", "59");
        assert.equal(await width(), PHONE.width);
        assert.equal((await page.locator("#history").boundingBox()).width, PHONE.width);
        await page.keyboard.press("Escape");
        assert.equal(await page.isVisible("#history"), false);
    });
}

for (const colorScheme of ["light", "dark"]) {
    for (const [place, viewport] of Object.entries({ desk: undefined, phone: PHONE })) {
        test(`axe finds no barrier: ${place}, ${colorScheme}`, async () => {
            const states = ["registered", "pending", "unconfirmed", "unreachable", "9"];
            scene.monitor.servers.push({
                ...scene.monitor.connected(OTHER),
                connected: false,
                reason: "Connection refused",
            });
            const changed = new Date(Date.now() + 60_000).toISOString(); // marked as fresh
            scene.monitor.tell(
                ...fleet(50, (number) => ({ state: states[number % 5], changed: number % 2 ? changed : null })),
            );
            scene.monitor.histories.set(esn(1), [{ ...radio(esn(1)), time: "2026-11-23T03:27:03.123Z" }]);
            const page = await scene.open({ colorScheme, ...(viewport && { viewport }), reducedMotion: "reduce" });
            await page.waitForSelector("#seconds-plot canvas");
            await page.focus("#grid");
            assert.deepEqual(await scene.visit.barriers(), []);
            await page.keyboard.press("Enter");
            await page.click("#history-close");
            await page.keyboard.press("ArrowDown");
            await page.keyboard.press("Enter");
            await scene.visit.untilText("#history-list", "registered");
            assert.deepEqual(await scene.visit.barriers(), []);
        });
    }
}
