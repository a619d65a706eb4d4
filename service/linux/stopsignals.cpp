// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/stopsignals.h"

#include <sys/eventfd.h>

#include <atomic>
#include <cerrno>

namespace Linux {

namespace {

std::atomic<int> wakeEvent{-1};
std::atomic<bool> isStopAskedFor{false};

extern "C" void onStopSignal(int)
{
    const int saved = errno;
    isStopAskedFor = true;
    ::eventfd_write(wakeEvent, 1);
    errno = saved;
}

} // namespace

StopSignals::StopSignals(int wake)
    : handled{{{SIGTERM, onStopSignal, {}}, {SIGINT, onStopSignal, {}}, {SIGHUP, SIG_IGN, {}}}}
{
    wakeEvent = wake;
    for (Handled &one : handled) {
        struct sigaction action = {};
        action.sa_handler = one.handler;
        action.sa_flags = SA_RESTART;
        ::sigaction(one.number, &action, &one.before);
    }
}

StopSignals::~StopSignals()
{
    for (const Handled &one : handled) {
        ::sigaction(one.number, &one.before, nullptr);
    }
}

bool StopSignals::take()
{
    return isStopAskedFor.exchange(false);
}

void StopSignals::endProcess()
{
    (void)::signal(SIGTERM, SIG_DFL);
    (void)::raise(SIGTERM);
}

} // namespace Linux
