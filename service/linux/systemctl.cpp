// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemctl.h"

#include <QDeadlineTimer>

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <vector>

namespace Linux {

namespace {

constexpr qsizetype MaximumOutput = 65536;

// Starts the program with standard output in the pipe, the other two closed off; 0 when it cannot be started.
pid_t spawn(const QByteArrayList &command, int output)
{
    posix_spawn_file_actions_t actions;
    if (::posix_spawn_file_actions_init(&actions) != 0) {
        return 0;
    }
    ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    ::posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    ::posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);

    QByteArrayList arguments = command;
    std::vector<char *> argv;
    for (QByteArray &argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    // Nothing of the caller's environment: not its language, its pager nor its notification socket.
    QByteArrayList variables = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C.UTF-8", "SYSTEMD_COLORS=0",
                                "SYSTEMD_PAGER="};
    std::array<char *, 5> environment = {variables[0].data(), variables[1].data(), variables[2].data(),
                                         variables[3].data(), nullptr};
    pid_t child = 0;
    if (::posix_spawn(&child, argv[0], &actions, nullptr, argv.data(), environment.data()) != 0) {
        child = 0;
    }
    ::posix_spawn_file_actions_destroy(&actions);
    return child;
}

// Reads until the other end is closed. False when that takes longer than the deadline.
bool readAll(int descriptor, QByteArray &output, const QDeadlineTimer &deadline)
{
    std::array<char, 4096> buffer{};
    while (!deadline.hasExpired()) {
        pollfd wait = {descriptor, POLLIN, 0};
        if (::poll(&wait, 1, static_cast<int>(deadline.remainingTime())) <= 0) {
            continue;
        }
        const ssize_t count = ::read(descriptor, buffer.data(), buffer.size());
        if (count == 0) {
            return true;
        }
        if (count < 0 && errno != EINTR) {
            return false;
        }
        output.append(buffer.data(), std::clamp<qsizetype>(MaximumOutput - output.size(), 0, count));
    }
    return false;
}

int exitCodeOf(pid_t child)
{
    int status = 0;
    while (::waitpid(child, &status, 0) < 0) {
        if (errno != EINTR) {
            return -1;
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

Places &places()
{
    static Places thisMachine;
    return thisMachine;
}

CommandResult systemctl(const QByteArrayList &arguments)
{
    CommandResult result;
    std::array<int, 2> pipe{};
    if (::pipe2(pipe.data(), O_CLOEXEC) != 0) {
        return result;
    }
    const QDeadlineTimer deadline(places().timeoutMilliseconds);
    const pid_t child = spawn(QByteArrayList{places().systemctl} + arguments, pipe[1]);
    ::close(pipe[1]);
    if (child > 0) {
        if (!readAll(pipe[0], result.output, deadline)) {
            ::kill(child, SIGKILL);
        }
        result.exitCode = exitCodeOf(child);
    }
    ::close(pipe[0]);
    return result;
}

bool systemctlDoes(const QByteArrayList &arguments)
{
    if (systemctl(arguments).exitCode == 0) {
        return true;
    }
    const Scm::Dword error =
        ::geteuid() == 0 ? Scm::Dword(ErrorManagerUnavailable) : Scm::Dword(Scm::ErrorAccessDenied);
    fail(error);
    return false;
}

} // namespace Linux
