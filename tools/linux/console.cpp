// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/console.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <array>
#include <csignal>
#include <unistd.h>

namespace Console {

namespace {

std::array<int, 2> signalPipe{-1, -1}; // read end, write end

// In a signal handler nothing but a write is safe: the event loop does the rest.
void wakeEventLoop(int)
{
    const char byte = 0;
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

} // namespace

void brokenPipeIsAnError()
{
    static const auto former = std::signal(SIGPIPE, SIG_IGN);
    Q_UNUSED(former)
}

bool isTerminalOutput()
{
    return ::isatty(STDOUT_FILENO) == 1;
}

bool isTerminalError()
{
    return ::isatty(STDERR_FILENO) == 1;
}

void onInterrupt(std::function<void()> handler)
{
    if (::pipe(signalPipe.data()) != 0) {
        return; // Ctrl-C then ends the process as it does any other
    }
    auto *notifier = new QSocketNotifier(signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, notifier, [handler = std::move(handler)] {
        char byte = 0;
        if (::read(signalPipe[0], &byte, 1) == 1) {
            handler();
        }
    });
    struct sigaction action = {};
    action.sa_handler = wakeEventLoop;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGINT, &action, nullptr);
    ::sigaction(SIGTERM, &action, nullptr);
}

} // namespace Console
