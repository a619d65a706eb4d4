// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// QMRA, the stream protocol between the server and client applications: bytes to values and values to bytes.
// Pure functions: no socket, no log, no clock.
#pragma once

#include "apps/availability.h"
#include "radio/identity.h"

#include <QByteArray>
#include <QByteArrayView>
#include <QVarLengthArray>

#include <array>
#include <optional>

namespace QMR::Qmra {

constexpr qsizetype HeaderSize = 8;
constexpr quint8 ProtocolVersion = 4;
constexpr quint16 ReportPayload = 12;
constexpr quint16 NoticeFixedPayload = 22;
constexpr quint16 MaximumServices = 255; // of a notice, which counts them in a byte
constexpr quint16 MaximumPayload = NoticeFixedPayload + MaximumServices;

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

    bool operator==(const RadioReport &) const = default;
};

// payload: exactly ReportPayload bytes.
RadioReport decodeReport(QByteArrayView payload);

// The service codes of a notice, all of them in the list itself: nothing is allocated.
using NoticeServices = QVarLengthArray<quint8, MaximumServices>;

// What a notice can carry of a radio's services: the low 8 bits of each, and as many as their count modulo
// 256 says.
NoticeServices noticeServices(const ServiceList &services);

// One radio as the applications are told of it.
struct RadioNotice
{
    Esn esn;
    Suid suid;
    bool pending = false;    // of a registration that awaits confirmation
    quint32 address = 0;     // IPv4, host order; 0: none
    quint8 availability = 0; // an Availability; a byte of any other value passes, too
    NoticeServices services; // at most MaximumServices

    bool operator==(const RadioNotice &) const = default;
};

// A whole message in a buffer of fixed size.
struct Message
{
    std::array<char, HeaderSize + MaximumPayload> bytes; // undefined beyond size
    qsizetype size = 0;

    QByteArrayView view() const { return {bytes.data(), size}; }
};

Message encodeNotice(const RadioNotice &notice);

// message: a whole notice.
Esn noticeEsn(QByteArrayView message);

// The application's side.

// payload: what followed a header of type RadioNotice. Nothing when its length and its service count
// disagree.
std::optional<RadioNotice> decodeNotice(QByteArrayView payload);

QByteArray encodeReport(const RadioReport &report);

} // namespace QMR::Qmra
