// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/registrationmanager.h"

#include "core/eventid.h"
#include "core/quillmere.h"
#include "db/writegroup.h"

#include <utility>

using namespace Qt::StringLiterals;

namespace QMR {

RegistrationManager::RegistrationManager(Quillmere *owner, quint16 registrationPort)
    : server(owner), socket(registrationPort, [this] { radioMessageReceived(); }), port(registrationPort)
{
    if (!socket.isBound()) {
        server->logMessage(u"Unable to bind registration socket"_s, QtServiceBase::Error, EventId);
    }
}

// Exactly one datagram a call.
void RegistrationManager::radioMessageReceived()
{
    WriteTurn turn(server->writeGroup(), WriteTurn::Continue);
    handle(socket.take());
    if (socket.hasWaiting()) {
        turn.keepOpen();
    }
}

void RegistrationManager::handle(const RadioSocket::Datagram &datagram)
{
    const auto decoded = Qmrs::decodeRadioMessage(QByteArrayView(datagram.bytes.data(), datagram.size));
    if (const auto *registration = std::get_if<Qmrs::Registration>(&decoded)) {
        server->registerRadio(registration->esn, registration->protocolVersion, registration->suid,
                              datagram.sender, datagram.port, registration->pending, registration->services);
    } else if (const auto *deregistration = std::get_if<Qmrs::Deregistration>(&decoded)) {
        if (deregistration->esn.isZero()) {
            server->deregisterRadioByAddress(datagram.sender);
        } else {
            server->deregisterRadio(deregistration->esn, datagram.sender);
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
    Qmrs::writeHeader(message, static_cast<quint8>(radio->protocolVersion), radio->esn, opcode,
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
    if (!socket.send(QByteArrayView(bytes.data(), size), destination, destinationPort)) {
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
