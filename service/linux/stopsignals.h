// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The signals that end a process, for as long as it is a service: SIGTERM and SIGINT ask it to stop, SIGHUP
// (a terminal's hang-up) is ignored. systemd would take the end by any of them for a clean exit, and not
// start the service again. One object a process at a time; when it goes the signals do what they did before.
#pragma once

#include <array>
#include <csignal>

namespace Linux {

class StopSignals
{
public:
    explicit StopSignals(int wake); // an eventfd that is never closed, written to when a stop is asked for
    ~StopSignals();
    StopSignals(const StopSignals &) = delete;
    StopSignals &operator=(const StopSignals &) = delete;

    // Whether a stop has been asked for since the last call.
    static bool take();

    // Ends the process as SIGTERM ends any.
    static void endProcess();

private:
    struct Handled
    {
        int number;
        void (*handler)(int);
        struct sigaction before;
    };

    std::array<Handled, 3> handled;
};

} // namespace Linux
