// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

import { Banner } from "./banner.js";
import { Controls } from "./controls.js";
import { byId, setText } from "./dom.js";
import { makeFilter } from "./filter.js";
import { Grid } from "./grid.js";
import { History } from "./history.js";
import { Plots } from "./plots.js";
import { Stream } from "./stream.js";
import { Table } from "./table.js";
import { dateTimeText } from "./texts.js";
import { Totals } from "./totals.js";

/** Changes are shown together, so often at most. */
const FLUSH = 250;
/** The rates are asked for so often at most. */
const RATES_PAUSE = 2000;

const table = new Table();
const order = { column: "esn", descending: false };
let status = null;
let heard = true; // until the monitor does not answer
let isComplete = false;
let clockDifference = 0; // from this machine's clock to the monitor's
let ratesAsked = Number.NEGATIVE_INFINITY;
let flushTimer = 0;

const now = () => Date.now() + clockDifference;
const totals = new Totals(byId("totals"));
const plots = new Plots();
const banner = new Banner(byId("banner"), byId("banner-live"));
const grid = new Grid(byId("grid"), table, {
    now,
    onSort: sortBy,
    onOpen: (row) => history.open(row, status?.servers.length > 1),
});
const history = new History(() => grid.focus());
const controls = new Controls((asked) => {
    table.setFilter(makeFilter(asked));
    grid.scrollToTop();
    showTable(null);
});

/** The same column again turns the order round; the last change begins with the latest. */
function sortBy(column) {
    order.descending = order.column === column ? !order.descending : column === "changed";
    order.column = column;
    table.setOrder(order.column, order.descending);
    grid.showOrder(order.column, order.descending);
    grid.scrollToTop();
    showTable(null);
}

function showTable(anchor) {
    grid.renew(anchor);
    controls.showCount(table.view.length, table.total, isComplete);
    showEmptiness();
}

function showEmptiness() {
    const hint = byId("empty");
    hint.hidden = table.view.length > 0 || !isComplete;
    setText(hint, table.total > 0 ? "No radio is as asked for." : "There are no radios.");
}

function flush() {
    flushTimer = 0;
    const anchor = grid.anchor();
    table.flush();
    showTable(anchor);
    if (history.key !== null) {
        history.renew(table.row(history.key));
    }
}

function flushSoon() {
    if (flushTimer === 0) {
        flushTimer = setTimeout(flush, FLUSH);
    }
}

/** The second that a status has the counts of is the monitor's, and may be told twice or not at all: /api/rates has each. */
async function askRates() {
    const time = performance.now();
    if (document.hidden || time - ratesAsked < RATES_PAUSE) {
        return;
    }
    ratesAsked = time;
    try {
        const answer = await fetch("/api/rates");
        if (answer.ok) {
            plots.show(await answer.json());
        }
    } catch {
        // The stream ends too where the monitor is away, and says so.
    }
}

function showStatus(told) {
    status = told;
    heard = true;
    clockDifference = Date.parse(told.time) - Date.now();
    setText(byId("version"), told.version);
    setText(byId("started"), dateTimeText(Date.parse(told.started)));
    setText(byId("servers"), told.servers.map(({ server }) => server).join(", "));
    totals.show(told);
    controls.offer(told);
    askRates();
    banner.show(status, now(), heard);
}

const stream = new Stream({
    begin() {
        isComplete = false;
        table.begin();
    },
    away() {
        heard = false;
        banner.show(status, now(), heard);
    },
    status: showStatus,
    radios(radios) {
        table.take(radios);
        flushSoon();
    },
    snapshot() {
        isComplete = true;
        table.complete();
        flushSoon();
    },
});

grid.showOrder(order.column, order.descending);
byId("grid").addEventListener("keydown", (event) => {
    if (event.key === "Escape") {
        history.close();
    }
});
// Ages go on, though nothing is told.
setInterval(() => {
    banner.show(status, now(), heard);
    grid.draw();
}, 1000);
stream.open();
