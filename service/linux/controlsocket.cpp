// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/controlsocket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace Linux {

namespace {

constexpr int AcceptPauseMilliseconds = 1000;

int listenAt(const QByteArray &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(path.size()) >= sizeof(address.sun_path)) {
        return -1;
    }
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return -1;
    }
    ::unlink(path.constData());
    // Nobody can connect before listen(), so the mode is right from the first connection on.
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        ::chmod(path.constData(), S_IRUSR | S_IWUSR) != 0 || ::listen(descriptor, SOMAXCONN) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

} // namespace

ControlSocket::ControlSocket(const QByteArray &path) : file(path), listener(listenAt(path))
{
}

ControlSocket::~ControlSocket()
{
    for (const Connection &connection : connections) {
        ::close(connection.descriptor);
    }
    if (listener >= 0) {
        ::close(listener);
        ::unlink(file.constData());
    }
}

void ControlSocket::appendTo(std::vector<pollfd> &descriptors) const
{
    if (listener >= 0 && acceptAgain.hasExpired()) {
        descriptors.push_back({listener, POLLIN, 0});
    }
    for (const Connection &connection : connections) {
        descriptors.push_back({connection.descriptor, POLLIN, 0});
    }
}

int ControlSocket::patience() const
{
    QDeadlineTimer next(QDeadlineTimer::Forever);
    if (!acceptAgain.hasExpired()) {
        next = acceptAgain;
    }
    if (!connections.empty() && connections.front().deadline < next) {
        next = connections.front().deadline;
    }
    return static_cast<int>(next.remainingTime());
}

void ControlSocket::serve(const Handler &handler)
{
    if (listener < 0) {
        return;
    }
    acceptAll(handler);
    for (auto connection = connections.begin(); connection != connections.end();) {
        if (isFinished(*connection, handler) || connection->deadline.hasExpired()) {
            ::close(connection->descriptor);
            connection = connections.erase(connection);
        } else {
            ++connection;
        }
    }
}

void ControlSocket::acceptAll(const Handler &handler)
{
    // No more than the backlog holds, so that a crowd of clients cannot keep the dispatcher here.
    for (int i = 0; i < SOMAXCONN && acceptAgain.hasExpired(); ++i) {
        const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor < 0) {
            if (errno == EAGAIN) {
                return;
            }
            if (errno != EINTR && errno != ECONNABORTED) {
                acceptAgain.setRemainingTime(AcceptPauseMilliseconds); // no descriptors left, say
            }
            continue;
        }
        // What has already sent its request is answered at once, so that no crowd can drop it.
        Connection connection{descriptor, {}, QDeadlineTimer(PatienceMilliseconds)};
        if (!admits(descriptor) || isFinished(connection, handler)) {
            ::close(descriptor);
            continue;
        }
        if (connections.size() == MaximumConnections) {
            ::close(connections.front().descriptor);
            connections.pop_front();
        }
        connections.push_back(std::move(connection));
    }
}

// The file's mode says the same; this holds even where somebody has widened it.
bool ControlSocket::admits(int descriptor) const
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

bool ControlSocket::isFinished(Connection &connection, const Handler &handler) const
{
    std::array<char, MaximumRequest> buffer{};
    const auto room = static_cast<size_t>(MaximumRequest - connection.received.size());
    const ssize_t count = ::recv(connection.descriptor, buffer.data(), room, 0);
    if (count < 0) {
        return errno != EAGAIN && errno != EINTR;
    }
    connection.received.append(buffer.data(), count);
    const qsizetype end = connection.received.indexOf('\n');
    if (end < 0) {
        return count == 0 || connection.received.size() == MaximumRequest;
    }
    if (const auto control = parseRequest(connection.received.first(end))) {
        const QByteArray answer = answerLine(handler(*control));
        // The first bytes on a connection always fit into its buffer; a client that is gone misses them.
        (void)::send(connection.descriptor, answer.constData(), static_cast<size_t>(answer.size()),
                     MSG_NOSIGNAL);
    }
    return true;
}

} // namespace Linux
