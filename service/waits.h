// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The waits of the service host that end by the clock. A test sets its own, to see what is asked and to spend
// no time.
#pragma once

class QThread;
class Semaphore;

struct Waits
{
    void (*sleep)(unsigned milliseconds);
    // False when the semaphore was not released in time.
    bool (*forStart)(Semaphore &start, unsigned milliseconds);
    // False when the thread had not finished in time.
    bool (*forEnd)(QThread &thread, unsigned milliseconds);
};

extern Waits waits;
