// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/waits.h"

#include "service/platform.h"
#include "service/semaphore.h"

#include <QDeadlineTimer>
#include <QThread>

#include <chrono>

namespace {

bool waitForStart(Semaphore &start, unsigned milliseconds)
{
    return start.tryAcquire(std::chrono::milliseconds(milliseconds));
}

bool waitForEnd(QThread &thread, unsigned milliseconds)
{
    return thread.wait(QDeadlineTimer(milliseconds));
}

} // namespace

Waits waits{Platform::sleepMilliseconds, waitForStart, waitForEnd};
