// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What of the platform is the same on each; the object itself is in the platform's folder.
#include "service/platform.h"

#include "service/semaphore.h"

#include <QDeadlineTimer>
#include <QThread>

#include <chrono>

bool Platform::scmAvailable()
{
    if (!scm.openScManager) {
        provide(scm);
    }
    return scm.openScManager != nullptr;
}

void Platform::sleepByClock(unsigned milliseconds)
{
    QThread::msleep(milliseconds);
}

bool Platform::acquireByClock(Semaphore &semaphore, unsigned milliseconds)
{
    return semaphore.tryAcquire(std::chrono::milliseconds(milliseconds));
}

bool Platform::joinByClock(QThread &thread, unsigned milliseconds)
{
    return thread.wait(QDeadlineTimer(milliseconds));
}
