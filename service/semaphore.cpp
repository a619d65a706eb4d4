// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/semaphore.h"

void Semaphore::release()
{
    const std::lock_guard lock(mutex);
    ++count;
    // Under the lock: the one who wakes may destroy the semaphore.
    released.notify_one();
}

void Semaphore::acquire()
{
    std::unique_lock lock(mutex);
    released.wait(lock, [this] { return count > 0; });
    --count;
}

bool Semaphore::tryAcquire(std::chrono::milliseconds timeout)
{
    std::unique_lock lock(mutex);
    if (!released.wait_for(lock, timeout, [this] { return count > 0; })) {
        return false;
    }
    --count;
    return true;
}
