// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The one source of the current time.
#pragma once

#include <QDateTime>

#include <functional>

namespace QMR {

// The wall clock, or what a test has put in its place. In UTC, so that time zone rules never enter a
// comparison.
QDateTime currentTime();

// Replaces the clock; an empty function brings the wall clock back.
void setClock(std::function<QDateTime()> clock);

} // namespace QMR
