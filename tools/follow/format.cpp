// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/format.h"

#include <QHostAddress>
#include <QJsonArray>
#include <QStringList>

#include <algorithm>
#include <iterator>

using namespace Qt::StringLiterals;

namespace Follow {

namespace {

QString hexadecimal(quint32 value, int width)
{
    return QString::number(value, 16).toUpper().rightJustified(width, u'0');
}

} // namespace

QString stateName(quint8 availability, bool pending)
{
    if (pending) {
        return u"pending"_s;
    }
    switch (availability) {
    case QMR::Deregistered:
        return u"gone"_s;
    case QMR::Unreachable:
        return u"unreachable"_s;
    case QMR::Unconfirmed:
        return u"unconfirmed"_s;
    case QMR::Registered:
        return u"registered"_s;
    default:
        return QString::number(availability);
    }
}

QString suidText(const QMR::Suid &suid)
{
    return hexadecimal(suid.wacn(), 5) + u'/' + hexadecimal(suid.system(), 3) + u'/' +
           hexadecimal(suid.unit(), 6);
}

QString addressText(quint32 address)
{
    return address == 0 ? u"-"_s : QHostAddress(address).toString();
}

QString servicesText(const QMR::Qmra::NoticeServices &services)
{
    QStringList codes;
    std::transform(services.begin(), services.end(), std::back_inserter(codes),
                   [](quint32 code) { return QString::number(code); });
    return codes.isEmpty() ? u"-"_s : codes.join(u',');
}

QString noticeLine(const QMR::Qmra::RadioNotice &notice)
{
    return notice.esn.text() + u' ' + suidText(notice.suid) + u' ' + addressText(notice.address) + u' ' +
           stateName(notice) + u" services " + servicesText(notice.services);
}

QJsonObject noticeObject(const QMR::Qmra::RadioNotice &notice)
{
    QJsonArray services;
    for (const quint32 code : notice.services) {
        services.append(static_cast<int>(code));
    }
    return {{u"esn"_s, notice.esn.text()},
            {u"wacn"_s, hexadecimal(notice.suid.wacn(), 5)},
            {u"system"_s, hexadecimal(notice.suid.system(), 3)},
            {u"unit"_s, hexadecimal(notice.suid.unit(), 6)},
            {u"address"_s, notice.address == 0 ? QJsonValue() : QJsonValue(addressText(notice.address))},
            {u"state"_s, stateName(notice)},
            {u"availability"_s, notice.availability},
            {u"pending"_s, notice.pending},
            {u"services"_s, services}};
}

} // namespace Follow
