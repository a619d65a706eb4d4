// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/controlclient.h"

#include "service/linux/errors.h"

#include <QDeadlineTimer>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

namespace Linux {

namespace {

ControlAnswer failed(Scm::Dword error)
{
    return {error, 0, 0, 0};
}

// The error of connecting, 0 when connected.
Scm::Dword connectTo(int descriptor, const QByteArray &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(path.size()) >= sizeof(address.sun_path)) {
        return Scm::ErrorServiceNotActive; // the service could not listen there either
    }
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0) {
        return 0;
    }
    switch (errno) {
    case EACCES:
    case EPERM:
        return Scm::ErrorAccessDenied;
    case EAGAIN: // its backlog is full
        return ErrorRequestTimeout;
    default:
        return Scm::ErrorServiceNotActive;
    }
}

ControlAnswer exchange(int descriptor, Scm::Dword control, const QDeadlineTimer &deadline)
{
    const QByteArray request = requestLine(control);
    if (::send(descriptor, request.constData(), static_cast<size_t>(request.size()), MSG_NOSIGNAL) !=
        request.size()) {
        return failed(ErrorRequestTimeout);
    }
    QByteArray line;
    while (line.size() < MaximumAnswer && !deadline.hasExpired()) {
        pollfd wait = {descriptor, POLLIN, 0};
        if (::poll(&wait, 1, static_cast<int>(deadline.remainingTime())) <= 0) {
            continue;
        }
        std::array<char, MaximumAnswer> buffer{};
        const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        if (count < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (count <= 0) {
            break;
        }
        line.append(buffer.data(), count);
        const qsizetype end = line.indexOf('\n');
        if (end >= 0) {
            return parseAnswer(line.first(end)).value_or(failed(ErrorRequestTimeout));
        }
    }
    return failed(ErrorRequestTimeout);
}

} // namespace

ControlAnswer sendControl(const QByteArray &socketPath, Scm::Dword control, int milliseconds)
{
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0) {
        return failed(ErrorRequestTimeout);
    }
    const Scm::Dword error = connectTo(descriptor, socketPath);
    const ControlAnswer answer =
        error ? failed(error) : exchange(descriptor, control, QDeadlineTimer(milliseconds));
    ::close(descriptor);
    return answer;
}

} // namespace Linux
