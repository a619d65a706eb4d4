// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// QMRS, the datagram protocol between the radios and the server: bytes to values and values to bytes.
// Pure functions: no socket, no log, no clock.
#pragma once

#include "radio/identity.h"

#include <QByteArray>
#include <QByteArrayView>

#include <array>
#include <variant>

namespace QMR::Qmrs {

constexpr quint16 HeaderSize = 16;
constexpr quint16 MaximumPayload = 264;
constexpr quint16 MaximumMessage = HeaderSize + MaximumPayload;

enum class Opcode : quint8 {
    BasicRegistration = 1,
    Acknowledgement = 2,
    Deregistration = 3,
    DiscoveryRequest = 4,
    ExtendedRegistration = 5,
};

// A whole message, header first; a sender fills the payload, the header is written when it is sent.
using Buffer = std::array<quint8, MaximumMessage>;

// What a radio may say to the server.

struct Registration
{
    Esn esn;
    quint32 protocolVersion = 0; // 1 after a basic registration, else as in the header (2 or 3)
    Suid suid;                   // all zero after a basic registration
    bool pending = false;
    ServiceList services; // only the known codes, 1 to 3
};

struct Deregistration
{
    Esn esn; // all zero: the radio is known by the sender's address only
};

enum class Rejection {
    InvalidHeader,
    InvalidOpcodeForVersion,
    InvalidOpcode,
    InvalidDeregistrationLength,
    InvalidRegistrationLength,
};

using RadioMessage = std::variant<Registration, Deregistration, Rejection>;

// Decodes a datagram that a radio sent. At most MaximumMessage bytes; what a longer datagram had beyond is
// cut before.
RadioMessage decodeRadioMessage(QByteArrayView datagram);

// Writes the 16 header bytes to the front of the buffer.
void writeHeader(Buffer &buffer, quint8 protocolVersion, const Esn &esn, Opcode opcode,
                 quint16 payloadLength);

// The radio's side.

// Opcode 1; services are sent as given, their low 8 bits each. At most 255 services.
QByteArray encodeBasicRegistration(quint8 protocolVersion, const Esn &esn, const ServiceList &services);

// Opcode 5. At most 255 services.
QByteArray encodeExtendedRegistration(quint8 protocolVersion, const Esn &esn, const Suid &suid, bool pending,
                                      const ServiceList &services);

// Opcode 3. An all-zero ESN asks for the deregistration of the radio at the sender's address.
QByteArray encodeDeregistration(quint8 protocolVersion, const Esn &esn);

// The same three into the caller's buffer, header first, for who sends many. They return the message's size.
quint16 writeBasicRegistration(Buffer &buffer, quint8 protocolVersion, const Esn &esn,
                               const ServiceList &services);
quint16 writeExtendedRegistration(Buffer &buffer, quint8 protocolVersion, const Esn &esn, const Suid &suid,
                                  bool pending, const ServiceList &services);
quint16 writeDeregistration(Buffer &buffer, quint8 protocolVersion, const Esn &esn);

// What the server may say to a radio.
struct ServerMessage
{
    enum class Kind { Invalid, Acknowledgement, DiscoveryRequest };
    Kind kind = Kind::Invalid;
    quint8 protocolVersion = 0;
    Esn esn;
};

// Decodes a datagram that the server sent; anything but the two messages it sends is Invalid.
ServerMessage decodeServerMessage(QByteArrayView datagram);

} // namespace QMR::Qmrs
