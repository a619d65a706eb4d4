// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The table under the keyboard and the mouse.
import assert from "node:assert/strict";
import { test } from "node:test";
import { radio } from "../../unit/page/radios.mjs";
import { esn, fleet, Scene } from "./scene.js";

const scene = new Scene();

test("the keyboard goes through the table, opens a history and closes it", async () => {
    scene.monitor.tell(...fleet(1000));
    scene.monitor.histories.set(esn(1), [{ ...radio(esn(1)), time: "2026-11-23T03:27:03.123Z" }]);
    const page = await scene.open();
    await page.focus("#grid");
    await scene.untilActive(0);
    const rowsInSight = await page.$eval("#grid", (grid) => {
        const { offsetHeight } = grid.querySelector(".head");
        return Math.floor((grid.clientHeight - offsetHeight) / grid.querySelector(".body .row").offsetHeight);
    });
    for (const [key, number] of [
        ["ArrowDown", 1],
        ["ArrowDown", 2],
        ["ArrowUp", 1],
        ["ArrowUp", 0],
        ["ArrowUp", 0],
        ["PageDown", rowsInSight],
        ["PageDown", 2 * rowsInSight],
        ["PageUp", rowsInSight],
        ["End", 999],
        ["ArrowDown", 999],
        ["Home", 0],
        ["ArrowDown", 1],
    ]) {
        await page.keyboard.press(key);
        await scene.untilActive(number);
        const [selected] = await page.$$eval("#grid [aria-selected=true]", (rows) =>
            rows.map((row) => row.ariaRowIndex),
        );
        assert.equal(Number(selected), number + 2, "rows count from 1, the titles' among them");
    }
    await page.keyboard.press("Enter");
    await scene.visit.untilText("#history-list", "registered");
    assert.equal(await page.textContent("#history-title"), esn(1));
    assert.equal(await page.evaluate(() => document.activeElement.id), "history-close");
    await page.keyboard.press("Escape");
    assert.equal(await page.isVisible("#history"), false);
    assert.equal(await page.evaluate(() => document.activeElement.id), "grid");
    await scene.untilActive(1);
    // From the table too, and with the button.
    await page.keyboard.press("Enter");
    await page.focus("#grid");
    await page.keyboard.press("Escape");
    assert.equal(await page.isVisible("#history"), false);
    await page.keyboard.press("Enter");
    await page.keyboard.press("Enter");
    assert.equal(await page.isVisible("#history"), false);
});

test("each row that the keyboard is at lies in sight, with a frame", async () => {
    scene.monitor.tell(...fleet(1000));
    const page = await scene.open();
    await page.focus("#query");
    for (let presses = 0; (await page.evaluate(() => document.activeElement.id)) !== "grid"; ++presses) {
        assert.ok(presses < 10);
        await page.keyboard.press("Tab");
    }
    for (const key of ["End", "PageUp", "PageUp", "ArrowUp", "Home", "PageDown", "ArrowDown"]) {
        await page.keyboard.press(key);
        const [isInSight, frame] = await page.$eval("#grid", (grid) => {
            const row = document.getElementById(grid.getAttribute("aria-activedescendant"));
            const { top, bottom } = row.getBoundingClientRect();
            const head = grid.querySelector(".head").getBoundingClientRect();
            const isInSight = top >= head.bottom - 1 && bottom <= grid.getBoundingClientRect().bottom + 1;
            return [isInSight, getComputedStyle(row).outlineStyle];
        });
        assert.ok(isInSight, key);
        assert.equal(frame, "solid");
    }
});

test("the keyboard stays at its radio where the order changes, and goes on from there when it leaves", async () => {
    scene.monitor.tell(...fleet(10));
    const page = await scene.open();
    await page.focus("#grid");
    await page.keyboard.press("ArrowDown");
    await scene.untilActive(1);
    await page.click(".address button");
    await page.click(".address button");
    await page.focus("#grid");
    await scene.untilActive(1);
    const index = await page.$eval("#grid [aria-selected=true]", (row) => row.ariaRowIndex);
    assert.equal(index, "10");
    scene.monitor.tell(radio(esn(1), { state: "gone" }));
    await scene.visit.untilCount("9 radios");
    await scene.untilActive(0);
});

test("radios that come above do not push away what is looked at", async () => {
    scene.monitor.tell(...fleet(500, (number) => ({ address: `10.1.${number >> 8}.${number & 255}` })));
    const page = await scene.open();
    await page.click(".address button");
    await page.focus("#grid");
    await page.keyboard.press("End");
    await scene.untilActive(499);
    await page.keyboard.press("PageUp");
    await scene.scrollTo(200);
    assert.equal(await scene.topRow(), esn(200));
    const newcomers = fleet(40, (number) => ({ esn: esn(1000 + number), address: `10.0.0.${number}` }));
    scene.monitor.tell(...newcomers, radio(esn(200), { address: "10.1.0.200", state: "unconfirmed" }));
    await scene.visit.untilCount("540 radios");
    assert.equal(await scene.topRow(), esn(200));
});

test("what is at the top stays at the top", async () => {
    scene.monitor.tell(...fleet(500, () => ({ changed: "2026-11-23T03:27:03.123Z" })));
    const page = await scene.open();
    await page.click(".changed button");
    scene.monitor.tell(radio(esn(321), { changed: "2026-11-23T03:27:04.123Z" }));
    await scene.visit.until((esn) => document.querySelector("#grid .body .row").dataset.esn === esn, esn(321));
    assert.equal(await scene.topRow(), esn(321));
});

test("a click opens the history of the radio that was pressed on, whatever has come there meanwhile", async () => {
    scene.monitor.tell(...fleet(3));
    const page = await scene.open();
    const { x, y } = await page.locator("#grid .body .row").nth(1).boundingBox();
    await page.mouse.move(x + 20, y + 5);
    await page.mouse.down();
    scene.monitor.tell(radio("0000000000000000", { server: "0.0.0.0:1" }));
    await scene.visit.untilCount("4 radios");
    await page.mouse.up();
    await page.waitForSelector("#history");
    assert.equal(await page.textContent("#history-title"), esn(1));
});
