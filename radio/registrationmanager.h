// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/radiosocket.h"

#include <QObject>

#include <memory>
#include <vector>

namespace QMR {

class Quillmere;
struct RadioEntry;

// The server towards the radios: datagrams in, decoded messages to the server; the server's messages out. It
// keeps nothing about any radio. Lives on the server's thread.
class RegistrationManager : public QObject
{
    Q_OBJECT

public:
    // Binds the port on all addresses. A port that cannot be bound is logged; the manager then receives
    // nothing. The server must outlive the manager.
    RegistrationManager(Quillmere *server, quint16 port);

    // Sends the message to the radio's pending or confirmed address. The payload stands in the buffer behind
    // the header, which is filled in here. A message that cannot be sent whole is logged and not sent again.
    // An acknowledgement is held back, as it is now, while what it acknowledges is not yet stored.
    void sendMessage(Qmrs::Opcode opcode, quint16 payloadLength, Qmrs::Buffer &message,
                     std::shared_ptr<RadioEntry> radio, quint16 destinationPort, bool pending);

    // Goes to the radio's confirmed address, to the port on which this manager itself listens.
    void sendDiscoveryRequest(const std::shared_ptr<RadioEntry> &radio);

    // What has been held back leaves, in its order.
    void sendHeldBack();

    // Whether a datagram has arrived that is not handled yet.
    bool hasWaiting() const { return socket.hasWaiting(); }

private slots:
    void radioMessageReceived();

private:
    // Encoded, on its way.
    struct Outgoing
    {
        Qmrs::Buffer bytes;
        qint64 size = 0;
        QHostAddress destination;
        quint16 port = 0;
    };

    void handle(const RadioSocket::Datagram &datagram);
    void reject(Qmrs::Rejection reason) const;
    void transmit(const Qmrs::Buffer &bytes, qint64 size, const QHostAddress &destination,
                  quint16 destinationPort);

    Quillmere *server;
    RadioSocket socket;
    quint16 port;
    std::vector<Outgoing> heldBack;
    std::vector<Outgoing> spare; // empty, kept for its memory
};

} // namespace QMR
