// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

/** A new element. Text is text: nothing here reads markup. */
export function element(tag, { role, text, className, attributes = {} } = {}, children = []) {
    const made = document.createElement(tag);
    if (role) {
        made.setAttribute("role", role);
    }
    if (className) {
        made.className = className;
    }
    if (text !== undefined) {
        made.textContent = text;
    }
    for (const [name, value] of Object.entries(attributes)) {
        made.setAttribute(name, value);
    }
    made.append(...children);
    return made;
}

/** Writes only what differs, so that nothing is drawn or read out for nothing. */
export function setText(node, text) {
    if (node.textContent !== text) {
        node.textContent = text;
    }
}

export function setAttribute(node, name, value) {
    if (node.getAttribute(name) !== String(value)) {
        node.setAttribute(name, value);
    }
}

export function byId(id) {
    return document.getElementById(id);
}
