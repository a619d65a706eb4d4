// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/controlsocket.h"

#include "service/linux/errors.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace Linux {

namespace {

constexpr int AcceptPauseMilliseconds = 1000;

static_assert(sizeof(ControlAnswer) == 4 * sizeof(Scm::Dword)); // no padding

// Nothing when the path is too long for one.
std::optional<sockaddr_un> addressOf(const QByteArray &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (static_cast<size_t>(path.size()) >= sizeof(address.sun_path)) {
        return std::nullopt;
    }
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    return address;
}

int makeSocket()
{
    return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

enum class Received { Nothing, Packet, Other };

// Other: a packet of another size, or the end of the connection. MSG_TRUNC makes recv() tell a longer one's
// whole size.
template<typename Packet>
Received receive(int descriptor, Packet &packet)
{
    const ssize_t size = ::recv(descriptor, &packet, sizeof(packet), MSG_TRUNC);
    if (size < 0 && (errno == EAGAIN || errno == EINTR)) {
        return Received::Nothing;
    }
    return size == sizeof(packet) ? Received::Packet : Received::Other;
}

// The first packet on a connection always fits into its buffer.
template<typename Packet>
bool send(int descriptor, const Packet &packet)
{
    return ::send(descriptor, &packet, sizeof(packet), MSG_NOSIGNAL) == sizeof(packet);
}

ControlAnswer failed(Scm::Dword error)
{
    return {error, 0, 0, 0};
}

// The error of connecting, 0 when connected.
Scm::Dword connectTo(int descriptor, const QByteArray &path)
{
    const auto address = addressOf(path);
    if (!address) {
        return Scm::ErrorServiceNotActive; // the service could not listen there either
    }
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&*address), sizeof(*address)) == 0) {
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
    ControlAnswer answer;
    Received received = send(descriptor, control) ? Received::Nothing : Received::Other;
    while (received == Received::Nothing && !deadline.hasExpired()) {
        pollfd wait = {descriptor, POLLIN, 0};
        (void)::poll(&wait, 1, static_cast<int>(deadline.remainingTime()));
        received = receive(descriptor, answer);
    }
    return received == Received::Packet ? answer : failed(ErrorRequestTimeout);
}

int listenAt(const QByteArray &path)
{
    const auto address = addressOf(path);
    const int descriptor = address ? makeSocket() : -1;
    if (descriptor < 0) {
        return -1;
    }
    ::unlink(path.constData());
    // Nobody can connect before listen(), so the mode is right from the first connection on.
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&*address), sizeof(*address)) != 0 ||
        ::chmod(path.constData(), S_IRUSR | S_IWUSR) != 0 || ::listen(descriptor, SOMAXCONN) != 0) {
        ::close(descriptor);
        return -1;
    }
    return descriptor;
}

// The file's mode says the same; this holds even where somebody has widened it.
bool admits(int descriptor)
{
    ucred peer{};
    socklen_t size = sizeof(peer);
    return ::getsockopt(descriptor, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 &&
           (peer.uid == 0 || peer.uid == ::geteuid());
}

// False: the client has sent nothing yet.
bool isFinished(int descriptor, const ControlSocket::Handler &handler)
{
    Scm::Dword control = 0;
    const Received received = receive(descriptor, control);
    if (received == Received::Packet) {
        (void)send(descriptor, handler(control)); // a client that is gone misses it
    }
    return received != Received::Nothing;
}

} // namespace

ControlAnswer sendControl(const QByteArray &socketPath, Scm::Dword control, int milliseconds)
{
    const int descriptor = makeSocket();
    if (descriptor < 0) {
        return failed(ErrorRequestTimeout);
    }
    const Scm::Dword error = connectTo(descriptor, socketPath);
    const ControlAnswer answer =
        error ? failed(error) : exchange(descriptor, control, QDeadlineTimer(milliseconds));
    ::close(descriptor);
    return answer;
}

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
        if (isFinished(connection->descriptor, handler) || connection->deadline.hasExpired()) {
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
        if (!admits(descriptor) || isFinished(descriptor, handler)) {
            ::close(descriptor);
            continue;
        }
        if (connections.size() == MaximumConnections) {
            ::close(connections.front().descriptor);
            connections.pop_front();
        }
        connections.push_back({descriptor, QDeadlineTimer(PatienceMilliseconds)});
    }
}

} // namespace Linux
