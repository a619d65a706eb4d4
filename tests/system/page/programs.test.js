// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The page of the real monitor, beside a real server and radios.
import assert from "node:assert/strict";
import { after, afterEach, before, beforeEach, test } from "node:test";
import { random } from "../../unit/page/radios.mjs";
import { launch, PATIENCE, Visit } from "./browser.js";
import { Monitor, Server } from "./programs.js";

const FLEET = 100_000;

let browser;
let server;
let monitor;
let visit;

before(async () => {
    browser = await launch();
});
after(() => browser.close());

beforeEach(async () => {
    server = await Server.make();
    await server.start();
    monitor = await Monitor.make(server);
});
afterEach(async () => {
    try {
        await visit.end();
    } finally {
        await monitor.kill();
        await server.remove();
    }
});

async function open() {
    await monitor.start();
    visit = await Visit.begin(browser, monitor.origin);
    return visit.page;
}

/** Three radios: 1 with services 1 and 3, 2 pending with service 2, 3 that has been reported. */
async function registerThree() {
    const first = await server.register(1, "--services", "1,3");
    const second = await server.register(2, "--services", "2", "--pending");
    const third = await server.register(3);
    await server.report(third, "127.0.0.3");
    return [first, second, third];
}

const texts = (rows, column) => rows.map((row) => row[column]);

/** Until the totals are these; they come once a second. */
async function untilTotals(expected) {
    await visit.until((expected) => {
        const items = [...document.querySelectorAll("#totals li")];
        const totals = items.map((item) => `${item.dataset.state} ${item.querySelector(".number").textContent}`);
        return totals.join() === expected;
    }, expected.join());
}

test("a server without radios has an empty table", async () => {
    const page = await open();
    await visit.untilCount("0 radios");
    assert.equal(await page.textContent("#empty"), "There are no radios.");
    assert.equal(await page.isVisible("#banner"), false);
    assert.equal((await visit.rows()).length, 0);
    await untilTotals(["all radios 0", "registered 0", "pending 0", "unconfirmed 0", "unreachable 0"]);
});

test("three radios are shown as they are", async () => {
    const esns = await registerThree();
    const page = await open();
    await visit.untilCount("3 radios");
    const rows = await visit.rows();
    assert.deepEqual(texts(rows, "esn"), esns);
    assert.deepEqual(texts(rows, "suid"), ["12345/678/9ABC01", "12345/678/9ABC02", "12345/678/9ABC03"]);
    assert.deepEqual(texts(rows, "address"), ["127.0.0.1", "127.0.0.2", "127.0.0.3"]);
    assert.deepEqual(texts(rows, "state"), ["registered", "pending", "unconfirmed"]);
    assert.deepEqual(texts(rows, "services"), ["1, 3", "2", "-"]);
    assert.deepEqual(texts(rows, "changed"), ["-", "-", "-"]);
    assert.deepEqual(texts(rows, "index"), [2, 3, 4]);
    assert.equal(await page.getAttribute("#grid", "aria-rowcount"), "4");
    await untilTotals(["all radios 3", "registered 1", "pending 1", "unconfirmed 1", "unreachable 0"]);
});

test("search, filters and orders choose among them", async () => {
    const [first, second, third] = await registerThree();
    const page = await open();
    await visit.untilCount("3 radios");
    for (const [query, found] of [
        ["cc3302", [second]],
        ["33:03", [third]],
        ["12345/678/9abc01", [first]],
        ["12345.678.9ABC0", [first, second, third]],
        ["127.0.0.2", [second]],
        ["127.0.1.", []],
        ["<b>", []],
        ["", [first, second, third]],
    ]) {
        await page.fill("#query", query);
        await visit.untilEsns(found);
        const count = found.length === 3 ? "3 radios" : `${found.length} of 3 radios`;
        assert.equal(await page.textContent("#count"), count, query);
    }
    await page.selectOption("#state", "unconfirmed");
    await visit.untilEsns([third]);
    await page.selectOption("#state", "");
    await visit.untilEsns([first, second, third]);
    await page.selectOption("#service", "2");
    await visit.untilEsns([second]);
    await page.selectOption("#service", "");
    await visit.untilEsns([first, second, third]);

    for (const [column, ascending] of [
        ["state", [first, second, third]],
        ["services", [third, first, second]],
        ["suid", [first, second, third]],
        ["address", [first, second, third]],
    ]) {
        await page.click(`.head .${column} button`);
        assert.deepEqual(texts(await visit.rows(), "esn"), ascending, column);
        assert.equal(await page.getAttribute(`.head .${column}`, "aria-sort"), "ascending");
        await page.click(`.head .${column} button`);
        assert.deepEqual(texts(await visit.rows(), "esn"), [...ascending].reverse(), column);
        assert.equal(await page.getAttribute(`.head .${column}`, "aria-sort"), "descending");
        assert.equal(await page.locator("[aria-sort]").count(), 1);
    }
});

test("a change is seen with the time at which it came about, at once and in the history", async () => {
    const esn = await server.register(1);
    await server.register(2);
    const page = await open();
    await visit.untilCount("2 radios");
    await page.click(".head .changed button");

    const before = Date.now();
    await server.radio("register", "--esn", esn, "--suid", "1.2.F", "--from", "127.0.0.9", "--services", "3");
    await visit.until((esn) => {
        const row = document.querySelector(`#grid [data-esn="${esn}"]`);
        return row?.querySelector(".address").textContent === "127.0.0.9";
    }, esn);
    const after = Date.now();
    const [row] = await visit.rows();
    assert.equal(row.esn, esn);
    assert.equal(row.suid, "00001/002/00000F");
    assert.equal(row.services, "3");
    assert.match(row.changed, /^\d+ s$/);
    const changed = await page.getAttribute(`[data-esn="${esn}"]`, "data-changed");
    assert.ok(Date.parse(changed) >= before && Date.parse(changed) <= after, `${before} ${changed} ${after}`);

    await page.click(`[data-esn="${esn}"]`);
    await visit.untilText("#history-list", "127.0.0.9");
    const [latest] = await page.$$eval("#history-list time", (times) => times.map((time) => time.dateTime));
    assert.equal(latest, changed);
    const parts = await page.$$eval("#history-list li:first-child .details span", (spans) =>
        spans.map((span) => span.textContent),
    );
    assert.deepEqual(parts, ["00001/002/00000F", "127.0.0.9", "services 3"]);

    await server.radio("deregister", "--esn", esn, "--from", "127.0.0.9");
    await visit.untilCount("1 radio");
    await visit.untilText("#history-list", "gone");
});

test("a server that goes is named, and when it comes back what went meanwhile leaves the table", async () => {
    const [first, second, third] = await registerThree();
    const page = await open();
    await visit.untilCount("3 radios");
    const before = Date.now();
    await server.kill();
    await visit.untilText("#banner", `${server.address} is away: `);
    await visit.untilText("#banner", "Its 3 radios are shown as of ");
    const [, age] = /as of (\d+) s ago/.exec(await page.textContent("#banner"));
    assert.ok(Number(age) <= (Date.now() - before) / 1000, `${age} s`);
    await visit.until(
        (age) => Number(/as of (\d+) s ago/.exec(document.querySelector("#banner").textContent)[1]) > age,
        Number(age),
    );
    assert.deepEqual(texts(await visit.rows(), "esn"), [first, second, third]);

    // A pending registration is none of the rows: it ends with its server.
    server.sql(`DELETE FROM subscribers WHERE esn = x'${third}'`);
    await server.start();
    await visit.untilCount("1 radio");
    await page.waitForSelector("#banner", { state: "hidden" });
    assert.deepEqual(texts(await visit.rows(), "esn"), [first]);
});

test("a monitor that goes is named, and begins anew when it comes back", async () => {
    const [first, second] = await registerThree();
    const page = await open();
    await visit.untilCount("3 radios");
    visit.isMonitorAway = true;
    await monitor.kill();
    await visit.untilText("#banner", "The monitor is away. What is shown is ");
    assert.equal((await visit.rows()).length, 3);
    await server.radio("deregister", "--esn", second, "--from", "127.0.0.2");
    await server.register(1, "--services", "2");
    await monitor.start();
    await visit.until((first) => document.querySelector(`[data-esn="${first}"] .services`).textContent === "2", first);
    await page.waitForSelector("#banner", { state: "hidden" });
    await visit.untilCount("2 radios");
});

const STATES = ["registered", "pending", "unconfirmed", "unreachable"];

/** Radios by state, as each of the three says, in one text. */
const onPage = () =>
    visit.page.$$eval("#totals li", (items) =>
        items
            .slice(1)
            .map((item) => `${item.dataset.state} ${item.querySelector(".number").textContent}`)
            .join(),
    );
async function inMetrics() {
    const text = await (await fetch(`${monitor.origin}/metrics`)).text();
    return STATES.map((state) => `${state} ${text.match(`quillmere_radios{.*state="${state}"} (.*)`)[1]}`).join();
}
const AVAILABILITIES = { registered: "3", unconfirmed: "2", unreachable: "1" };
function inDatabase() {
    const rows = server.sql("SELECT availability FROM subscribers");
    return STATES.map((state) => `${state} ${rows.filter((row) => row === AVAILABILITIES[state]).length}`).join();
}

/** The pending registration first, then the confirmed one; nothing where there is neither. */
async function deregister(number) {
    const esn = (0x0011aabb22cc3300n + BigInt(number)).toString(16).padStart(16, "0");
    await server.radio("deregister", "--esn", esn, "--from", `127.0.0.${number}`);
}

test("after a random run the page, the metrics and the database agree", async (context) => {
    const seed = Number(process.env.QUILLMERE_PAGE_SEED ?? Date.now() % 2 ** 31);
    context.diagnostic(`seed ${seed}`);
    const pick = random(seed);
    await open();
    const pending = new Map();
    for (let step = 0; step < 60; ++step) {
        const number = 1 + pick(12);
        const what = pick(10);
        if (what < 6) {
            await server.register(number, "--services", String(1 + pick(3)));
        } else if (what < 8) {
            pending.set(number, await server.register(number, "--pending"));
        } else {
            await deregister(number);
        }
    }
    // Those that await confirmation are not stored, and would lapse in the middle of it.
    for (const number of pending.keys()) {
        await deregister(number);
    }
    await server.report(await server.register(1), "127.0.0.1");
    const deadline = performance.now() + PATIENCE;
    let said = [];
    do {
        said = [inDatabase(), await inMetrics(), await onPage()];
    } while (new Set(said).size > 1 && performance.now() < deadline);
    assert.equal(new Set(said).size, 1, said.join("\n"));
    assert.match(said[0], /pending 0,unconfirmed 1/);
});

test("registrations and changes are counted in the plots' text", async () => {
    const page = await open();
    await visit.untilCount("0 radios");
    await page.waitForSelector("#seconds-plot canvas");
    await page.waitForSelector("#minutes-plot canvas");
    await server.radio("fleet", "--addresses", "127.0.1.0-127.0.1.99", "--rate", "10000");
    await visit.untilCount("100 radios");
    await visit.until(() => {
        const counts = [...document.querySelector("#seconds-summary").textContent.matchAll(/at most (\d+)/g)];
        return counts.length === 2 && counts.every(([, most]) => Number(most) > 0 && Number(most) <= 100);
    });
});

test(`${FLEET} radios: few elements, every row to be reached, changes among them`, { timeout: 180_000 }, async () => {
    await server.radio("fleet", "--addresses", "127.1.0.0-127.2.134.159", "--rate", "20000");
    const page = await open();
    await visit.untilCount("100,000 radios");
    const rowCount = () => page.locator("#grid .body .row").count();
    assert.ok((await rowCount()) < 60, "only the rows in sight are elements");
    assert.equal(await page.getAttribute("#grid", "aria-rowcount"), "100001");

    await page.focus("#grid");
    await page.keyboard.press("End");
    await visit.until(() => document.querySelector('[data-esn="00000000000186A0"][aria-selected=true]') !== null);
    const last = (await visit.rows()).at(-1);
    assert.deepEqual([last.index, last.esn, last.address], [FLEET + 1, "00000000000186A0", "127.2.134.159"]);
    await page.$eval("#grid", async (grid) => {
        const drawn = new Promise((resolve) => grid.addEventListener("scroll", resolve, { once: true }));
        grid.scrollTop = 1_234_567;
        await drawn;
    });
    const middle = await visit.rows();
    const first = Number.parseInt(middle[0].esn, 16);
    assert.ok(first > 1000 && first < FLEET - 1000);
    assert.deepEqual(
        texts(middle, "esn").map((esn) => Number.parseInt(esn, 16) - first),
        [...middle.keys()],
    );
    assert.deepEqual(
        texts(middle, "index"),
        [...middle.keys()].map((offset) => first + 1 + offset),
    );

    await page.fill("#query", "127.2.134.");
    await visit.untilCount("160 of 100,000 radios");
    await page.fill("#query", "1/1/1869f");
    await visit.untilCount("1 of 100,000 radios");
    await page.fill("#query", "");
    await visit.untilCount("100,000 radios");
    for (const column of ["esn", "suid", "address", "state", "services", "changed"]) {
        await page.click(`.head .${column} button`);
        await page.waitForSelector(`.head .${column}[aria-sort]`);
    }

    // By the last change: what changes comes to the top, though thousands of others change as well.
    const fleet = server.radio("fleet", "--addresses", "127.1.0.0-127.1.39.15", "--rate", "5000", "--services", "2");
    const newcomer = await server.register(1, "--services", "3");
    await page.selectOption("#service", "3");
    await visit.untilCount("1 of 100,001 radios");
    assert.deepEqual(texts(await visit.rows(), "esn"), [newcomer]);
    await page.selectOption("#service", "2");
    await visit.untilCount("10,000 of 100,001 radios");
    await fleet;
    await page.selectOption("#service", "");
    await visit.untilCount("100,001 radios");
    const changed = await page.$$eval("#grid .body .row", (rows) => rows.map((row) => Date.parse(row.dataset.changed)));
    assert.deepEqual(
        changed,
        [...changed].sort((a, b) => b - a),
    );
    assert.ok((await rowCount()) < 60);
});
