// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// A socket an address: each address of 127.0.0.0/8 can be bound here, and the number of sockets has no limit.
#include "tools/radio/fleetsocket.h"
#include "tools/radio/radiosocket.h"

#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace RadioTool {

namespace {

class WindowsFleetSocket : public FleetSocket
{
public:
    WindowsFleetSocket(const Console::Endpoint &newServer, Handlers newHandlers)
        : server(newServer), handlers(std::move(newHandlers))
    {
    }

    QString open(quint32 newFirstAddress, quint32 count) override;
    Sending send(std::span<const FleetDatagram> datagrams) override;
    void receive() override {} // the sockets read in the event loop

private:
    const Console::Endpoint server;
    const Handlers handlers;
    quint32 firstAddress = 0;
    std::vector<std::unique_ptr<RadioSocket>> sockets;
};

QString WindowsFleetSocket::open(quint32 newFirstAddress, quint32 count)
{
    firstAddress = newFirstAddress;
    for (quint32 i = 0; i < count; ++i) {
        const quint32 address = firstAddress + i;
        sockets.push_back(
            std::make_unique<RadioSocket>([this, address](const QByteArray &datagram, const auto &) {
                handlers.received(datagram, address);
                handlers.turnEnded();
            }));
        if (!sockets.back()->open(QHostAddress(address), 0)) {
            return u"cannot open a socket at %1: %2"_s.arg(QHostAddress(address).toString(),
                                                           sockets.back()->errorText());
        }
    }
    return {};
}

FleetSocket::Sending WindowsFleetSocket::send(std::span<const FleetDatagram> datagrams)
{
    Sending result;
    for (const FleetDatagram &datagram : datagrams) {
        RadioSocket &socket = *sockets[datagram.source - firstAddress];
        const QByteArray bytes =
            QByteArray::fromRawData(reinterpret_cast<const char *>(datagram.bytes.data()), datagram.size);
        const RadioSocket::Outcome outcome = socket.send(bytes, server);
        if (outcome == RadioSocket::Outcome::Failed) {
            result.error = u"cannot send from %1 to %2: %3"_s.arg(socket.local().text(), server.text(),
                                                                  socket.errorText());
        }
        if (outcome != RadioSocket::Outcome::Sent) {
            break;
        }
        ++result.count;
    }
    return result;
}

} // namespace

std::unique_ptr<FleetSocket> FleetSocket::create(const Console::Endpoint &server, Handlers handlers)
{
    return std::make_unique<WindowsFleetSocket>(server, std::move(handlers));
}

} // namespace RadioTool
