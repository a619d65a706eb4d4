// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// One socket at every address: each datagram carries its own source, and tells where it has arrived.
#include "tools/radio/fleetsocket.h"

#include "tools/linux/socketaddress.h"

#include <QSocketNotifier>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

constexpr size_t Batch = 32;                     // datagrams a system call
constexpr int BatchesATurn = 32;                 // then the event loop looks at the timers
constexpr int ReceiveBuffer = 4096 * 1024;       // the system may grant less
constexpr quint32 LoopbackNetwork = 127U << 24U; // 8 bits

constexpr size_t InformationOffset = CMSG_LEN(0); // in a datagram's ancillary data, which has nothing else

QString textOf(int error)
{
    switch (error) {
    case EADDRNOTAVAIL:
        return u"this machine has no such address"_s;
    case EADDRINUSE:
        return u"the port is in use"_s;
    case EACCES:
    case EPERM:
        return u"no permission"_s;
    case EMFILE:
    case ENFILE:
        return u"too many open files"_s;
    case EINVAL: // from a loopback address to one beyond it, among others
    case EHOSTUNREACH:
    case ENETUNREACH:
        return u"there is no route"_s;
    default:
        return qt_error_string(error);
    }
}

int newSocket()
{
    return ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

// 0, or why no socket can be bound to it.
int bindingError(int descriptor, quint32 address)
{
    const sockaddr_in own = socketAddress(address, 0);
    return ::bind(descriptor, reinterpret_cast<const sockaddr *>(&own), sizeof own) == 0 ? 0 : errno;
}

// Whether the machine has the address, asked with a socket of its own.
int addressError(quint32 address)
{
    const int descriptor = newSocket();
    if (descriptor < 0) {
        return errno;
    }
    const int error = bindingError(descriptor, address);
    ::close(descriptor);
    return error;
}

// The buffers of one datagram for sendmmsg() and recvmmsg(), with a place for its IP_PKTINFO.
struct Buffers
{
    iovec part{};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
};

class LinuxFleetSocket : public FleetSocket
{
public:
    LinuxFleetSocket(const Console::Endpoint &server, Handlers newHandlers)
        : serverAddress(socketAddress(server.address.toIPv4Address(), server.port)),
          serverText(server.text()),
          handlers(std::move(newHandlers))
    {
        for (size_t i = 0; i < Batch; ++i) {
            prepareSending(i);
            incoming[i].part = {arrived[i].data(), arrived[i].size()};
        }
    }
    ~LinuxFleetSocket() override
    {
        notifier.reset();
        if (descriptor >= 0) {
            ::close(descriptor);
        }
    }
    Q_DISABLE_COPY_MOVE(LinuxFleetSocket)

    QString open(quint32 firstAddress, quint32 count) override;
    Sending send(std::span<const FleetDatagram> datagrams) override;
    void receive() override;

private:
    void prepareSending(size_t index);
    size_t sendBatch(std::span<const FleetDatagram> datagrams);
    bool receiveBatch();
    quint16 localPort() const;

    sockaddr_in serverAddress;
    const QString serverText;
    const Handlers handlers;
    int descriptor = -1;
    std::unique_ptr<QSocketNotifier> notifier;
    std::array<Buffers, Batch> outgoing;
    std::array<mmsghdr, Batch> outgoingHeaders{};
    std::array<Buffers, Batch> incoming;
    std::array<mmsghdr, Batch> incomingHeaders{};
    std::array<QMR::Qmrs::Buffer, Batch> arrived{};
};

QString LinuxFleetSocket::open(quint32 firstAddress, quint32 count)
{
    for (quint32 i = 0; i < count; ++i) {
        const quint32 address = firstAddress + i;
        // A machine has the whole loopback network or nothing of it: one address tells.
        if (i > 0 && (address & 0xFF000000U) == LoopbackNetwork) {
            continue;
        }
        if (const int error = addressError(address); error != 0) {
            return u"cannot open a socket at %1: %2"_s.arg(QHostAddress(address).toString(), textOf(error));
        }
    }
    descriptor = newSocket();
    const int error = descriptor < 0 ? errno : bindingError(descriptor, INADDR_ANY);
    if (error != 0) {
        return u"cannot open a socket: "_s + textOf(error);
    }
    const int on = 1;
    ::setsockopt(descriptor, IPPROTO_IP, IP_PKTINFO, &on, sizeof on);
    ::setsockopt(descriptor, SOL_SOCKET, SO_RCVBUF, &ReceiveBuffer, sizeof ReceiveBuffer);
    notifier = std::make_unique<QSocketNotifier>(descriptor, QSocketNotifier::Read);
    QObject::connect(notifier.get(), &QSocketNotifier::activated, notifier.get(), [this] {
        receive();
        handlers.turnEnded();
    });
    return {};
}

void LinuxFleetSocket::prepareSending(size_t index)
{
    msghdr &header = outgoingHeaders[index].msg_hdr;
    Buffers &buffers = outgoing[index];
    header.msg_name = &serverAddress;
    header.msg_namelen = sizeof serverAddress;
    header.msg_iov = &buffers.part;
    header.msg_iovlen = 1;
    header.msg_control = buffers.control.data();
    header.msg_controllen = buffers.control.size();
    cmsghdr *information = CMSG_FIRSTHDR(&header);
    information->cmsg_level = IPPROTO_IP;
    information->cmsg_type = IP_PKTINFO;
    information->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
}

FleetSocket::Sending LinuxFleetSocket::send(std::span<const FleetDatagram> datagrams)
{
    Sending result;
    while (result.count < datagrams.size()) {
        const auto rest = datagrams.subspan(result.count);
        const size_t count = sendBatch(rest.first(std::min(rest.size(), Batch)));
        const int error = errno;
        result.count += count;
        if (count > 0 || error == EINTR) {
            continue;
        }
        if (error != EAGAIN && error != ENOBUFS) {
            result.error = u"cannot send from %1 to %2: %3"_s.arg(
                Console::Endpoint{QHostAddress(rest.front().source), localPort()}.text(), serverText,
                textOf(error));
        }
        break;
    }
    return result;
}

// How many have left; none: errno tells why.
size_t LinuxFleetSocket::sendBatch(std::span<const FleetDatagram> datagrams)
{
    for (size_t i = 0; i < datagrams.size(); ++i) {
        // The kernel reads what it is given here, and writes nothing.
        outgoing[i].part = {const_cast<quint8 *>(datagrams[i].bytes.data()), datagrams[i].size};
        in_pktinfo information{};
        information.ipi_spec_dst.s_addr = htonl(datagrams[i].source);
        std::memcpy(outgoing[i].control.data() + InformationOffset, &information, sizeof information);
    }
    const int count =
        ::sendmmsg(descriptor, outgoingHeaders.data(), static_cast<unsigned int>(datagrams.size()), 0);
    return static_cast<size_t>(std::max(count, 0));
}

quint16 LinuxFleetSocket::localPort() const
{
    sockaddr_in own{};
    socklen_t size = sizeof own;
    ::getsockname(descriptor, reinterpret_cast<sockaddr *>(&own), &size);
    return ntohs(own.sin_port);
}

void LinuxFleetSocket::receive()
{
    for (int i = 0; i < BatchesATurn && receiveBatch(); ++i) {
    }
}

// False: nothing is left.
bool LinuxFleetSocket::receiveBatch()
{
    for (size_t i = 0; i < Batch; ++i) {
        msghdr &header = incomingHeaders[i].msg_hdr;
        header = {}; // the last call's lengths are in it
        header.msg_iov = &incoming[i].part;
        header.msg_iovlen = 1;
        header.msg_control = incoming[i].control.data();
        header.msg_controllen = incoming[i].control.size();
    }
    const int count = ::recvmmsg(descriptor, incomingHeaders.data(), Batch, 0, nullptr);
    for (size_t i = 0; i < static_cast<size_t>(std::max(count, 0)); ++i) {
        msghdr &header = incomingHeaders[i].msg_hdr;
        in_pktinfo information{};
        if (const cmsghdr *found = CMSG_FIRSTHDR(&header);
            found != nullptr && found->cmsg_level == IPPROTO_IP && found->cmsg_type == IP_PKTINFO) {
            std::memcpy(&information, CMSG_DATA(found), sizeof information);
        }
        handlers.received(QByteArrayView(arrived[i].data(), incomingHeaders[i].msg_len),
                          ntohl(information.ipi_addr.s_addr));
    }
    return count == static_cast<int>(Batch);
}

} // namespace

std::unique_ptr<FleetSocket> FleetSocket::create(const Console::Endpoint &server, Handlers handlers)
{
    return std::make_unique<LinuxFleetSocket>(server, std::move(handlers));
}

} // namespace RadioTool
