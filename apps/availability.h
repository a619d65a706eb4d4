// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

namespace QMR {

// A radio's state: the same numbers in the radio table, in the database and towards the applications.
enum Availability : quint32 {
    Deregistered = 0, // has left: out of the table and the database
    Unreachable = 1, // silent for 12 hours, or three discovery requests unanswered; searched for every 1800 s
    Unconfirmed = 2, // to be heard from again before it counts as registered; searched for every 300 s
    Registered = 3,  // in contact; not searched for
};

} // namespace QMR
