// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What is to be said about servers, and a monitor, that are away: for the eye with the data's age, which goes on, and
// to be read out once, with the time since when.
import { ageText, clockText, countText } from "./texts.js";

function ofServer({ server, since, radios, reason }, now) {
    const why = reason === null ? "" : `: ${reason}`;
    if (since === null) {
        return { shown: `${server} has not been reached yet${why}.`, read: `${server} has not been reached yet.` };
    }
    const lost = Date.parse(since);
    return {
        shown:
            `${server} is away${why}. Its ${countText(radios, "radio")} ${radios === 1 ? "is" : "are"} shown as of ` +
            `${ageText(now - lost)} ago, ${clockText(lost)}.`,
        read: `${server} is away since ${clockText(lost)}.`,
    };
}

/**
 * One entry for each that is away. status: the monitor's last, or null; now: by the monitor's clock; heard: whether the
 * monitor is there.
 */
export function absences(status, now, heard) {
    if (!status) {
        return heard ? [] : [{ shown: "The monitor cannot be reached.", read: "The monitor cannot be reached." }];
    }
    if (!heard) {
        const time = Date.parse(status.time);
        return [
            {
                shown: `The monitor is away. What is shown is ${ageText(now - time)} old, as of ${clockText(time)}.`,
                read: `The monitor is away since ${clockText(time)}.`,
            },
        ];
    }
    return status.servers.filter((server) => !server.connected).map((server) => ofServer(server, now));
}
