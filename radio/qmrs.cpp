// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/qmrs.h"

#include <algorithm>

namespace QMR::Qmrs {

namespace {

// Every datagram, both directions; integers little-endian:
//
//   0     4      magic "QMRS"
//   4     1      protocol version, 1 to 3
//   5     8      ESN, all zero when none is given
//   13    1      opcode
//   14    2      payload length, at most 264
//   16    ...    payload
constexpr QByteArrayView Magic = "QMRS";
constexpr qsizetype VersionOffset = 4;
constexpr qsizetype EsnOffset = 5;
constexpr qsizetype OpcodeOffset = 13;
constexpr qsizetype LengthOffset = 14;

// Payload of an extended registration: SUID (7), pending (1), service count (1), services (1 each).
// Payload of a basic one: service count (1), services (1 each).
constexpr qsizetype PendingOffset = HeaderSize + 7;
constexpr qsizetype ExtendedCountOffset = HeaderSize + 8;
constexpr qsizetype BasicCountOffset = HeaderSize;

constexpr quint8 MinimumVersion = 1;
constexpr quint8 MaximumVersion = 3;
constexpr quint8 FirstExtendedVersion = 2;
constexpr quint8 FirstPendingVersion = 3;
constexpr quint8 SynthesisedEsnLead = 0xF1;

quint8 byteAt(QByteArrayView bytes, qsizetype offset)
{
    return static_cast<quint8>(bytes[offset]);
}

template<size_t Size>
std::array<quint8, Size> bytesAt(QByteArrayView bytes, qsizetype offset)
{
    std::array<quint8, Size> result{};
    std::copy_n(bytes.begin() + offset, Size, result.begin());
    return result;
}

bool isKnownService(quint8 code)
{
    return code >= 1 && code <= 3;
}

// The count at countOffset and the codes behind it must fill the datagram exactly.
bool hasServiceList(QByteArrayView datagram, qsizetype countOffset)
{
    return datagram.size() > countOffset &&
           datagram.size() - countOffset - 1 == byteAt(datagram, countOffset);
}

ServiceList knownServices(QByteArrayView codes)
{
    ServiceList services;
    services.reserve(static_cast<size_t>(codes.size()));
    for (const char code : codes) {
        if (isKnownService(static_cast<quint8>(code))) {
            services.push_back(static_cast<quint8>(code));
        }
    }
    return services;
}

bool hasValidHeader(QByteArrayView datagram)
{
    if (datagram.size() < HeaderSize || !datagram.startsWith(Magic)) {
        return false;
    }
    const quint8 version = byteAt(datagram, VersionOffset);
    const int payloadLength = byteAt(datagram, LengthOffset) | byteAt(datagram, LengthOffset + 1) << 8;
    return version >= MinimumVersion && version <= MaximumVersion && payloadLength <= MaximumPayload;
}

RadioMessage decodeBasicRegistration(QByteArrayView datagram)
{
    if (!hasServiceList(datagram, BasicCountOffset)) {
        return Rejection::InvalidRegistrationLength;
    }
    Registration registration;
    registration.esn.bytes = bytesAt<8>(datagram, EsnOffset);
    registration.protocolVersion = 1; // deliberately not the header's: this is how version 1 registers
    registration.services = knownServices(datagram.sliced(BasicCountOffset + 1));
    return registration;
}

RadioMessage decodeDeregistration(QByteArrayView datagram)
{
    if (datagram.size() != HeaderSize) {
        return Rejection::InvalidDeregistrationLength;
    }
    return Deregistration{Esn{bytesAt<8>(datagram, EsnOffset)}};
}

RadioMessage decodeExtendedRegistration(QByteArrayView datagram)
{
    const quint8 version = byteAt(datagram, VersionOffset);
    if (version < FirstExtendedVersion) {
        return Rejection::InvalidOpcodeForVersion;
    }
    if (!hasServiceList(datagram, ExtendedCountOffset)) {
        return Rejection::InvalidRegistrationLength;
    }
    Registration registration;
    registration.protocolVersion = version;
    registration.suid.bytes = bytesAt<7>(datagram, HeaderSize);
    registration.esn.bytes = bytesAt<8>(datagram, EsnOffset);
    if (registration.esn.isZero()) {
        registration.esn.bytes[0] = SynthesisedEsnLead;
        std::copy(registration.suid.bytes.begin(), registration.suid.bytes.end(),
                  registration.esn.bytes.begin() + 1);
    }
    registration.pending = version >= FirstPendingVersion && byteAt(datagram, PendingOffset) != 0;
    registration.services = knownServices(datagram.sliced(ExtendedCountOffset + 1));
    return registration;
}

// Writes the count and the codes; returns the size of the message, which ends with them.
quint16 writeServices(Buffer &buffer, qsizetype countOffset, const ServiceList &services)
{
    auto *at = buffer.begin() + countOffset;
    *at++ = static_cast<quint8>(services.size());
    for (const quint32 service : services) {
        *at++ = static_cast<quint8>(service);
    }
    return static_cast<quint16>(at - buffer.begin());
}

// Writes the header in front of a payload that is there; returns the size of the message, which is given.
quint16 finish(Buffer &buffer, quint8 protocolVersion, const Esn &esn, Opcode opcode, quint16 size)
{
    writeHeader(buffer, protocolVersion, esn, opcode, static_cast<quint16>(size - HeaderSize));
    return size;
}

QByteArray bytesOf(const Buffer &buffer, quint16 size)
{
    return QByteArray(reinterpret_cast<const char *>(buffer.data()), size);
}

} // namespace

RadioMessage decodeRadioMessage(QByteArrayView datagram)
{
    if (!hasValidHeader(datagram)) {
        return Rejection::InvalidHeader;
    }
    // The header's payload length is deliberately not used from here on: only the datagram's real size is
    // held against its content.
    switch (static_cast<Opcode>(byteAt(datagram, OpcodeOffset))) {
    case Opcode::BasicRegistration:
        return decodeBasicRegistration(datagram);
    case Opcode::Deregistration:
        return decodeDeregistration(datagram);
    case Opcode::ExtendedRegistration:
        return decodeExtendedRegistration(datagram);
    case Opcode::Acknowledgement:
    case Opcode::DiscoveryRequest:
        break;
    }
    return Rejection::InvalidOpcode;
}

void writeHeader(Buffer &buffer, quint8 protocolVersion, const Esn &esn, Opcode opcode, quint16 payloadLength)
{
    std::copy(Magic.begin(), Magic.end(), buffer.begin());
    buffer[VersionOffset] = protocolVersion;
    std::copy(esn.bytes.begin(), esn.bytes.end(), buffer.begin() + EsnOffset);
    buffer[OpcodeOffset] = static_cast<quint8>(opcode);
    buffer[LengthOffset] = static_cast<quint8>(payloadLength);
    buffer[LengthOffset + 1] = static_cast<quint8>(payloadLength >> 8);
}

quint16 writeBasicRegistration(Buffer &buffer, quint8 protocolVersion, const Esn &esn,
                               const ServiceList &services)
{
    return finish(buffer, protocolVersion, esn, Opcode::BasicRegistration,
                  writeServices(buffer, BasicCountOffset, services));
}

quint16 writeExtendedRegistration(Buffer &buffer, quint8 protocolVersion, const Esn &esn, const Suid &suid,
                                  bool pending, const ServiceList &services)
{
    std::copy(suid.bytes.begin(), suid.bytes.end(), buffer.begin() + HeaderSize);
    buffer[PendingOffset] = pending ? 1 : 0;
    return finish(buffer, protocolVersion, esn, Opcode::ExtendedRegistration,
                  writeServices(buffer, ExtendedCountOffset, services));
}

quint16 writeDeregistration(Buffer &buffer, quint8 protocolVersion, const Esn &esn)
{
    return finish(buffer, protocolVersion, esn, Opcode::Deregistration, HeaderSize);
}

QByteArray encodeBasicRegistration(quint8 protocolVersion, const Esn &esn, const ServiceList &services)
{
    Buffer buffer{};
    return bytesOf(buffer, writeBasicRegistration(buffer, protocolVersion, esn, services));
}

QByteArray encodeExtendedRegistration(quint8 protocolVersion, const Esn &esn, const Suid &suid, bool pending,
                                      const ServiceList &services)
{
    Buffer buffer{};
    return bytesOf(buffer, writeExtendedRegistration(buffer, protocolVersion, esn, suid, pending, services));
}

QByteArray encodeDeregistration(quint8 protocolVersion, const Esn &esn)
{
    Buffer buffer{};
    return bytesOf(buffer, writeDeregistration(buffer, protocolVersion, esn));
}

ServerMessage decodeServerMessage(QByteArrayView datagram)
{
    ServerMessage message;
    if (!hasValidHeader(datagram)) {
        return message;
    }
    message.protocolVersion = byteAt(datagram, VersionOffset);
    message.esn.bytes = bytesAt<8>(datagram, EsnOffset);
    const auto opcode = static_cast<Opcode>(byteAt(datagram, OpcodeOffset));
    if (opcode == Opcode::Acknowledgement && datagram.size() == HeaderSize + 1 &&
        byteAt(datagram, HeaderSize) == 0) {
        message.kind = ServerMessage::Kind::Acknowledgement;
    } else if (opcode == Opcode::DiscoveryRequest && datagram.size() == HeaderSize) {
        message.kind = ServerMessage::Kind::DiscoveryRequest;
    }
    return message;
}

} // namespace QMR::Qmrs
