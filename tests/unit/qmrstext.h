// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// A decoded message in words, so that a failing comparison shows what was decoded.
#pragma once

#include "radio/qmrs.h"

#include <QString>
#include <QStringList>

using namespace Qt::StringLiterals;

namespace QmrsText {

inline const QString InvalidHeader = u"invalid header"_s;
inline const QString InvalidOpcodeForVersion = u"invalid opcode for version"_s;
inline const QString InvalidOpcode = u"invalid opcode"_s;
inline const QString InvalidDeregistrationLength = u"invalid deregistration length"_s;
inline const QString InvalidRegistrationLength = u"invalid registration length"_s;

template<size_t Size>
QString hex(const std::array<quint8, Size> &bytes)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(bytes.data()), Size).toHex());
}

inline QString registration(const QString &esn, quint32 version, const QString &suid, bool pending,
                            const QMR::ServiceList &services)
{
    QStringList codes;
    for (const quint32 service : services) {
        codes.append(QString::number(service));
    }
    return u"registers %1 version %2 suid %3 %4 services [%5]"_s.arg(esn).arg(version).arg(
        suid, pending ? u"pending"_s : u"confirmed"_s, codes.join(u','));
}

inline QString deregistration(const QString &esn)
{
    return u"deregisters %1"_s.arg(esn);
}

inline QString decoded(const QByteArray &datagram)
{
    const auto message = QMR::Qmrs::decodeRadioMessage(datagram);
    if (const auto *found = std::get_if<QMR::Qmrs::Registration>(&message)) {
        return registration(hex(found->esn.bytes), found->protocolVersion, hex(found->suid.bytes),
                            found->pending, found->services);
    }
    if (const auto *found = std::get_if<QMR::Qmrs::Deregistration>(&message)) {
        return deregistration(hex(found->esn.bytes));
    }
    switch (std::get<QMR::Qmrs::Rejection>(message)) {
    case QMR::Qmrs::Rejection::InvalidHeader:
        return InvalidHeader;
    case QMR::Qmrs::Rejection::InvalidOpcodeForVersion:
        return InvalidOpcodeForVersion;
    case QMR::Qmrs::Rejection::InvalidOpcode:
        return InvalidOpcode;
    case QMR::Qmrs::Rejection::InvalidDeregistrationLength:
        return InvalidDeregistrationLength;
    case QMR::Qmrs::Rejection::InvalidRegistrationLength:
        return InvalidRegistrationLength;
    }
    return {};
}

} // namespace QmrsText
