// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Calls the codec of the JavaScript examples: a line in, a line out, as codec.py tells.

import { createInterface } from "node:readline";
import { hex, Lost, Reader, report } from "../../../examples/javascript/application.js";
import * as radio from "../../../examples/javascript/radio.js";

const bytes = (digits) => Buffer.from(digits.replace("-", ""), "hex");
const names = { [radio.acknowledgement]: "acknowledgement", [radio.discoveryRequest]: "discovery request" };

function stream(...pieces) {
    const outcomes = [];
    const reader = new Reader();
    try {
        for (const piece of pieces) {
            for (const { esn, suid, pending, address, availability, services, state } of reader.notices(bytes(piece))) {
                const codes = services.join(",") || "-";
                outcomes.push(`notice ${esn} ${suid} ${pending} ${address} ${availability} ${codes} ${state}`);
            }
        }
    } catch (error) {
        if (!(error instanceof Lost)) {
            throw error;
        }
        outcomes.push("lost");
    }
    return outcomes.join("; ");
}

function datagram(digits) {
    const message = radio.decode(bytes(digits));
    return message ? `${names[message.opcode]} ${hex(message.esn)}` : "invalid";
}

function registration(esn, suid, pending, services) {
    const codes = services === "-" ? [] : services.split(",").map(Number);
    return hex(radio.registration(bytes(esn), bytes(suid), Number(pending), codes));
}

const answers = {
    registration,
    deregistration: (esn) => hex(radio.deregistration(bytes(esn))),
    datagram,
    report: (esn, address) => hex(report(bytes(esn), address)),
    stream,
};

for await (const line of createInterface({ input: process.stdin })) {
    const [command, ...words] = line.split(" ");
    console.log(answers[command](...words));
}
