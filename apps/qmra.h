// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// QMRA, the stream protocol between the server and client applications: bytes to values and values to bytes.
// Pure functions: no socket, no log, no clock.
#pragma once

#include "radio/identity.h"

#include <QByteArray>
#include <QByteArrayView>

#include <array>
#include <optional>

namespace QMR::Qmra {

constexpr qsizetype HeaderSize = 8;
constexpr quint16 MaximumPayload = 277; // a notice with 255 services
constexpr quint8 ProtocolVersion = 4;
constexpr quint16 ReportPayload = 12;
constexpr quint16 NoticeFixedPayload = 22;

enum class MessageType : quint8 {
    RadioNotice = 1,
    RadioReport = 2,
    Ignored = 3, // an application may send it, any payload; the server takes no notice of it
};

struct Header
{
    bool magicMatches = false;
    quint8 protocolVersion = 0;
    quint8 messageType = 0;
    quint16 payloadLength = 0;
};

// bytes: exactly HeaderSize.
Header decodeHeader(QByteArrayView bytes);

// Of the message that bytes, at least a header, begin with: header and payload.
qsizetype messageSize(QByteArrayView bytes);

// An application says that a radio cannot be reached at an address.
struct RadioReport
{
    Esn esn;
    quint32 address = 0; // IPv4, host order
};

// payload: exactly ReportPayload bytes.
RadioReport decodeReport(QByteArrayView payload);

// One radio as the applications are told of it.
struct RadioNotice
{
    Esn esn;
    Suid suid;
    bool pending = false;
    quint32 address = 0; // IPv4, host order; 0: none
    quint8 availability = 0;
    ServiceList services;
};

// A whole message in a buffer of fixed size.
struct Message
{
    std::array<char, HeaderSize + MaximumPayload> bytes{};
    qsizetype size = 0;
};

// Of the services the low 8 bits of each are sent, and as many as their count modulo 256 says.
Message encodeNotice(const Esn &esn, const Suid &suid, bool pending, quint32 address, quint8 availability,
                     const ServiceList &services);

// message: a whole notice.
Esn noticeEsn(QByteArrayView message);

// The application's side.

// payload: what followed a header of type RadioNotice. Nothing when its length and its service count
// disagree.
std::optional<RadioNotice> decodeNotice(QByteArrayView payload);

QByteArray encodeReport(const RadioReport &report);

} // namespace QMR::Qmra
