// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/qmrs.h"
#include "tools/console.h"

#include <QByteArrayView>

#include <functional>
#include <memory>
#include <span>

namespace RadioTool {

// A datagram to the server: a message and the radio's own address (IPv4), from which it leaves.
struct FleetDatagram
{
    QMR::Qmrs::Buffer bytes;
    quint16 size = 0;
    quint32 source = 0;
};

// What a fleet sends and receives with, each radio at its own address. How many sockets that takes is the
// platform's own affair.
class FleetSocket
{
public:
    struct Handlers
    {
        // receiver: the address at which it arrived.
        std::function<void(QByteArrayView datagram, quint32 receiver)> received;
        // After what the event loop has read in one turn.
        std::function<void()> turnEnded;
    };
    struct Sending
    {
        size_t count = 0; // the first so many have left
        QString error;    // null: the rest can be tried again, the system's buffers are full just now
    };

    static std::unique_ptr<FleetSocket> create(const Console::Endpoint &server, Handlers handlers);

    virtual ~FleetSocket() = default;
    Q_DISABLE_COPY_MOVE(FleetSocket)

    // At count addresses from the first on. The error, or null.
    virtual QString open(quint32 firstAddress, quint32 count) = 0;
    // In their order, from addresses that were opened.
    virtual Sending send(std::span<const FleetDatagram> datagrams) = 0;
    // Hands out what has arrived, where that need not wait for the event loop; without turnEnded.
    virtual void receive() = 0;

protected:
    FleetSocket() = default;
};

} // namespace RadioTool
