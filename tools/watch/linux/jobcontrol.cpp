// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/jobcontrol.h"

#include <QSocketNotifier>

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <utility>

namespace WatchTool {

namespace {

std::array<int, 2> signalPipe{-1, -1}; // read end, write end

// In a signal handler nothing but a write is safe: the event loop does the rest.
void wakeEventLoop(int signal)
{
    const auto byte = static_cast<char>(signal);
    [[maybe_unused]] const ssize_t written = ::write(signalPipe[1], &byte, 1);
}

void handle(void (*handler)(int))
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = SA_RESTART;
    ::sigaction(SIGTSTP, &action, nullptr);
    ::sigaction(SIGCONT, &action, nullptr);
}

class ShellJobControl : public JobControl
{
public:
    explicit ShellJobControl(Handlers newHandlers)
        : handlers(std::move(newHandlers)), notifier(signalPipe[0], QSocketNotifier::Read)
    {
        QObject::connect(&notifier, &QSocketNotifier::activated, &notifier, [this] { read(); });
        handle(wakeEventLoop);
    }
    ~ShellJobControl() override
    {
        handle(SIG_DFL);
        notifier.setEnabled(false);
        ::close(signalPipe[0]);
        ::close(signalPipe[1]);
    }
    Q_DISABLE_COPY_MOVE(ShellJobControl)

    bool isForeground() const override
    {
        const pid_t group = ::tcgetpgrp(STDOUT_FILENO);
        return group < 0 || group == ::getpgrp(); // of a terminal that is no shell's it is the only user
    }

private:
    void read();

    const Handlers handlers;
    QSocketNotifier notifier;
};

void ShellJobControl::read()
{
    char signal = 0;
    if (::read(signalPipe[0], &signal, 1) != 1) {
        return;
    }
    if (signal == SIGTSTP) {
        handlers.stopping();
        handle(SIG_DFL);
        std::raise(SIGTSTP); // returns when the shell lets the process go on
        handle(wakeEventLoop);
    }
    handlers.goingOn();
}

} // namespace

std::unique_ptr<JobControl> JobControl::create(Handlers handlers)
{
    if (::pipe2(signalPipe.data(), O_CLOEXEC) != 0) {
        return nullptr; // Ctrl-Z then stops the process as it does any other
    }
    return std::make_unique<ShellJobControl>(std::move(handlers));
}

} // namespace WatchTool
