// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The rates as plots. Each has its figures as text as well.
import uPlot from "uplot";
import { byId, setText } from "./dom.js";
import { columnsOf } from "./rates.js";
import { numberText } from "./texts.js";

const HEIGHT = 150;
const PADDING = [8, 20, 0, 0];

function colour(name) {
    return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

function timeOfDay(seconds) {
    const date = new Date(seconds * 1000);
    return [date.getHours(), date.getMinutes()].map((part) => String(part).padStart(2, "0")).join(":");
}

/** Whole counts only, and some room above none at all. */
function countRange(_, __, greatest) {
    return [0, Math.max(4, Math.ceil(greatest * 1.1))];
}

class Plot {
    #element;
    #summary;
    #unit;
    #columns = [[], [], []];
    #plot = null;

    constructor(name, unit) {
        this.#element = byId(`${name}-plot`);
        this.#summary = byId(`${name}-summary`);
        this.#unit = unit;
        new ResizeObserver(() => this.#resize()).observe(this.#element);
    }

    show(columns) {
        this.#columns = columns;
        const [registrations, changes] = [columns[1], columns[2]].map(
            (counts) => `${numberText(counts.at(-1))}/${this.#unit}, at most ${numberText(Math.max(...counts))}`,
        );
        setText(this.#summary, `Registrations: ${registrations}. Changes: ${changes}.`);
        if (this.#plot) {
            this.#plot.setData(columns);
        } else {
            this.draw();
        }
    }

    /** Anew: colours are read when a plot is made. */
    draw() {
        this.#plot?.destroy();
        this.#plot = null;
        if (this.#columns[0].length > 0 && this.#element.clientWidth > 0) {
            this.#plot = new uPlot(this.#drawing(), this.#columns, this.#element);
        }
    }

    #resize() {
        if (this.#plot) {
            this.#plot.setSize({ width: this.#element.clientWidth, height: HEIGHT });
        } else {
            this.draw();
        }
    }

    #drawing() {
        const axis = {
            stroke: colour("--quiet"),
            font: "12px system-ui, sans-serif",
            grid: { stroke: colour("--line"), width: 1 },
            ticks: { stroke: colour("--line"), width: 1 },
        };
        return {
            width: this.#element.clientWidth,
            height: HEIGHT,
            padding: PADDING,
            legend: { show: false },
            cursor: { show: false },
            scales: { y: { range: countRange } },
            axes: [
                { ...axis, size: 28, values: (_, times) => times.map(timeOfDay) },
                {
                    ...axis,
                    size: 52,
                    incrs: [1, 2, 5, 10, 20, 50, 100, 200, 500, 1000, 2000, 5000, 10000, 20000, 50000],
                },
            ],
            series: [
                {},
                {
                    stroke: colour("--registrations"),
                    fill: colour("--registrations-area"),
                    width: 1,
                    points: { show: false },
                },
                { stroke: colour("--changes"), width: 1.5, dash: [4, 3], points: { show: false } },
            ],
        };
    }
}

export class Plots {
    #seconds = new Plot("seconds", "s");
    #minutes = new Plot("minutes", "min");

    constructor() {
        matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => {
            this.#seconds.draw();
            this.#minutes.draw();
        });
    }

    /** What /api/rates tells. */
    show({ time, seconds, minutes }) {
        this.#seconds.show(columnsOf(time, 1, seconds));
        this.#minutes.show(columnsOf(time, 60, minutes));
    }
}
