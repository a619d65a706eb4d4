// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QCoreApplication>
#include <QDeadlineTimer>

// Runs one turn of the event loop after the other until the condition holds; false when it does not within
// half a minute. QTest's own waits sleep between turns: too slow where each of thousands of socket events has
// a turn of its own.
template<typename Condition>
bool runsUntil(Condition condition)
{
    for (const QDeadlineTimer limit(30'000); !condition() && !limit.hasExpired();) {
        QCoreApplication::processEvents();
    }
    return condition();
}
