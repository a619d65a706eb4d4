// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

// A counting semaphore. Made of the standard library's parts and not of Qt's, so that a thread sanitizer sees
// what one thread hands to the other.
class Semaphore
{
public:
    void release();
    void acquire();
    // False when nothing was released in time.
    bool tryAcquire(std::chrono::milliseconds timeout);

private:
    std::mutex mutex;
    std::condition_variable released;
    int count = 0;
};
