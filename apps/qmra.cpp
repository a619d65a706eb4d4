// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/qmra.h"

#include <QtEndian>

#include <algorithm>

namespace QMR::Qmra {

namespace {

// Every message; integers little-endian:
//
//   0     4      magic "QMRA"
//   4     1      protocol version
//   5     1      message type
//   6     2      payload length
//   8     ...    payload
//
// Payload of a notice: ESN (8), SUID (7), pending (1), address (4), availability (1), service count (1),
// services. Payload of a report: ESN (8), address (4).
constexpr QByteArrayView Magic = "QMRA";
constexpr qsizetype EsnSize = 8;
constexpr qsizetype SuidOffset = 8;
constexpr qsizetype PendingOffset = 15;
constexpr qsizetype NoticeAddressOffset = 16;
constexpr qsizetype AvailabilityOffset = 20;
constexpr qsizetype CountOffset = 21;
constexpr qsizetype ReportAddressOffset = 8;

Esn esnAt(QByteArrayView bytes)
{
    Esn esn;
    std::copy_n(bytes.begin(), EsnSize, esn.bytes.begin());
    return esn;
}

void writeHeader(char *bytes, MessageType type, quint16 payloadLength)
{
    std::copy(Magic.begin(), Magic.end(), bytes);
    bytes[4] = static_cast<char>(ProtocolVersion);
    bytes[5] = static_cast<char>(type);
    qToLittleEndian(payloadLength, bytes + 6);
}

} // namespace

Header decodeHeader(QByteArrayView bytes)
{
    Header header;
    header.magicMatches = bytes.startsWith(Magic);
    header.protocolVersion = static_cast<quint8>(bytes[4]);
    header.messageType = static_cast<quint8>(bytes[5]);
    header.payloadLength = qFromLittleEndian<quint16>(bytes.data() + 6);
    return header;
}

qsizetype messageSize(QByteArrayView bytes)
{
    return HeaderSize + decodeHeader(bytes).payloadLength;
}

RadioReport decodeReport(QByteArrayView payload)
{
    return {esnAt(payload), qFromLittleEndian<quint32>(payload.data() + ReportAddressOffset)};
}

NoticeServices noticeServices(const ServiceList &services)
{
    NoticeServices codes(static_cast<quint8>(services.size()));
    std::transform(services.begin(), services.begin() + codes.size(), codes.begin(),
                   [](quint32 service) { return static_cast<quint8>(service); });
    return codes;
}

Message encodeNotice(const RadioNotice &notice)
{
    Message message;
    const auto count = static_cast<quint8>(notice.services.size());
    const auto payloadLength = static_cast<quint16>(NoticeFixedPayload + count);
    writeHeader(message.bytes.data(), MessageType::RadioNotice, payloadLength);

    char *payload = message.bytes.data() + HeaderSize;
    std::copy(notice.esn.bytes.begin(), notice.esn.bytes.end(), payload);
    std::copy(notice.suid.bytes.begin(), notice.suid.bytes.end(), payload + SuidOffset);
    payload[PendingOffset] = notice.pending ? 1 : 0;
    qToLittleEndian(notice.address, payload + NoticeAddressOffset);
    payload[AvailabilityOffset] = static_cast<char>(notice.availability);
    payload[CountOffset] = static_cast<char>(count);
    std::copy_n(notice.services.begin(), count, payload + NoticeFixedPayload);
    message.size = HeaderSize + payloadLength;
    return message;
}

Esn noticeEsn(QByteArrayView message)
{
    return esnAt(message.sliced(HeaderSize));
}

std::optional<RadioNotice> decodeNotice(QByteArrayView payload)
{
    if (payload.size() < NoticeFixedPayload ||
        payload.size() != NoticeFixedPayload + static_cast<quint8>(payload[CountOffset])) {
        return std::nullopt;
    }
    RadioNotice notice;
    notice.esn = esnAt(payload);
    std::copy_n(payload.begin() + SuidOffset, notice.suid.bytes.size(), notice.suid.bytes.begin());
    notice.pending = payload[PendingOffset] != 0;
    notice.address = qFromLittleEndian<quint32>(payload.data() + NoticeAddressOffset);
    notice.availability = static_cast<quint8>(payload[AvailabilityOffset]);
    const QByteArrayView services = payload.sliced(NoticeFixedPayload);
    notice.services.resize(services.size());
    std::copy(services.begin(), services.end(), notice.services.begin());
    return notice;
}

QByteArray encodeReport(const RadioReport &report)
{
    QByteArray message(HeaderSize + ReportPayload, '\0');
    writeHeader(message.data(), MessageType::RadioReport, ReportPayload);
    char *payload = message.data() + HeaderSize;
    std::copy(report.esn.bytes.begin(), report.esn.bytes.end(), payload);
    qToLittleEndian(report.address, payload + ReportAddressOffset);
    return message;
}

} // namespace QMR::Qmra
