// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/registrationmanager.h"

#include "core/quillmere.h"
#include "db/writegroup.h"
#include "service/platform.h"

#include <algorithm>
#include <utility>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

constexpr auto EventId = static_cast<int>(0xC0000001);
constexpr int ReceiveBufferSize = 8 * 1024 * 1024;

// An IPv4 sender reaches the dual-stack socket in IPv4-mapped IPv6 form, which equals no plain IPv4 address.
QHostAddress plainAddress(const QHostAddress &address)
{
    bool isIpv4 = false;
    const quint32 value = address.toIPv4Address(&isIpv4);
    return isIpv4 ? QHostAddress(value) : address;
}

} // namespace

RegistrationManager::RegistrationManager(Quillmere *owner, quint16 registrationPort)
    : server(owner), port(registrationPort)
{
    isBound = socket.bind(port, QAbstractSocket::DefaultForPlatform);
    if (!isBound) {
        server->logMessage(u"Unable to bind registration socket"_s, QtServiceBase::Error, EventId);
    }
    // All radios may answer at once after an outage. The system may give less; then less it is.
    socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, ReceiveBufferSize);
    connect(&socket, &QUdpSocket::readyRead, this, &RegistrationManager::radioMessageReceived);
}

// Exactly one datagram a call; one that is still pending raises the next notification.
void RegistrationManager::radioMessageReceived()
{
    Platform::endEventLoopTurn();
    if (!isBound) {
        // A send has bound it to whatever port was free.
        socket.readDatagram(nullptr, 0);
        return;
    }
    WriteTurn turn(server->writeGroup(), WriteTurn::Continue);
    receive();
    if (socket.hasPendingDatagrams()) {
        turn.keepOpen();
    }
}

void RegistrationManager::receive()
{
    Qmrs::Buffer buffer{};
    QHostAddress sender;
    quint16 senderPort = 0;
    const qint64 received = socket.readDatagram(reinterpret_cast<char *>(buffer.data()), Qmrs::MaximumMessage,
                                                &sender, &senderPort);
    // A failed read has no bytes and is rejected as such. A longer datagram fills the buffer, all zeros
    // before, but where the system calls it an error the count may say none.
    const bool isCut = received <= 0 && buffer[0] != 0;
    const qint64 size = isCut ? Qmrs::MaximumMessage : std::max<qint64>(received, 0);
    const auto decoded = Qmrs::decodeRadioMessage(QByteArrayView(buffer.data(), size));
    sender = plainAddress(sender);

    if (const auto *registration = std::get_if<Qmrs::Registration>(&decoded)) {
        server->registerRadio(registration->esn, registration->protocolVersion, registration->suid, sender,
                              senderPort, registration->pending, registration->services);
    } else if (const auto *deregistration = std::get_if<Qmrs::Deregistration>(&decoded)) {
        if (deregistration->esn.isZero()) {
            server->deregisterRadioByAddress(sender);
        } else {
            server->deregisterRadio(deregistration->esn, sender);
        }
    } else {
        reject(std::get<Qmrs::Rejection>(decoded));
    }
}

void RegistrationManager::reject(Qmrs::Rejection reason) const
{
    const auto warn = [this](const QString &text, int id) {
        server->logMessage(text, QtServiceBase::Warning, id);
    };
    switch (reason) {
    case Qmrs::Rejection::InvalidHeader:
        return warn(u"QMRS Protocol error: invalid message received (1)"_s, EventId);
    case Qmrs::Rejection::InvalidOpcodeForVersion:
        return warn(u"QMRS Protocol error: invalid opcode for protocol version"_s, EventId);
    case Qmrs::Rejection::InvalidOpcode:
        return warn(u"QMRS Protocol error: invalid message (2)"_s, EventId);
    case Qmrs::Rejection::InvalidDeregistrationLength:
        return warn(u"Protocol error: invalid length"_s, EventId);
    case Qmrs::Rejection::InvalidRegistrationLength:
        // Deliberately the same text as above under identifier 0.
        return warn(u"Protocol error: invalid length"_s, 0);
    }
}

// NOLINTBEGIN(performance-unnecessary-value-param): the record is held for the call
void RegistrationManager::sendMessage(Qmrs::Opcode opcode, quint16 payloadLength, Qmrs::Buffer &message,
                                      std::shared_ptr<RadioEntry> radio, quint16 destinationPort,
                                      bool pending)
// NOLINTEND(performance-unnecessary-value-param)
{
    Qmrs::writeHeader(message, static_cast<quint8>(radio->protocolVersion & 0xFF), radio->esn, opcode,
                      payloadLength);
    const QHostAddress destination = pending ? radio->pendingAddress : radio->address;
    const qint64 size = Qmrs::HeaderSize + payloadLength;
    // A discovery request promises nothing and leaves at once.
    if (opcode == Qmrs::Opcode::Acknowledgement && server->holdsBack()) {
        heldBack.push_back({message, size, destination, destinationPort});
    } else {
        transmit(message, size, destination, destinationPort);
    }
}

void RegistrationManager::transmit(const Qmrs::Buffer &bytes, qint64 size, const QHostAddress &destination,
                                   quint16 destinationPort)
{
    const qint64 sent = socket.writeDatagram(reinterpret_cast<const char *>(bytes.data()), size, destination,
                                             destinationPort);
    if (sent != size) {
        server->logMessage(u"Network error: write message failed"_s, QtServiceBase::Error, EventId);
    }
}

void RegistrationManager::sendHeldBack()
{
    std::vector<Outgoing> leaving = std::exchange(heldBack, std::move(spare));
    for (const Outgoing &message : leaving) {
        transmit(message.bytes, message.size, message.destination, message.port);
    }
    leaving.clear();
    spare = std::move(leaving);
}

void RegistrationManager::sendDiscoveryRequest(const std::shared_ptr<RadioEntry> &radio)
{
    Qmrs::Buffer message{};
    sendMessage(Qmrs::Opcode::DiscoveryRequest, 0, message, radio, port, false);
}

} // namespace QMR
