// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// How a notice is shown.
#pragma once

#include "apps/qmra.h"

#include <QJsonObject>
#include <QString>

namespace Follow {

// "registered", "unconfirmed", "unreachable", "gone"; "pending" for a registration awaiting confirmation; a
// number for what the protocol does not know.
QString stateName(quint8 availability, bool pending);
inline QString stateName(const QMR::Qmra::RadioNotice &notice)
{
    return stateName(notice.availability, notice.pending);
}

QString suidText(const QMR::Suid &suid);                         // "12345/678/9ABCDE"
QString addressText(quint32 address);                            // "-": none
QString servicesText(const QMR::Qmra::NoticeServices &services); // "1,3"; "-": none

// "0011AABB22CC33DD 12345/678/9ABCDE 10.0.0.5 registered services 1,3"
QString noticeLine(const QMR::Qmra::RadioNotice &notice);
// Keys: esn, wacn, system, unit (hexadecimal digits), address (null: none), state, availability, pending,
// services.
QJsonObject noticeObject(const QMR::Qmra::RadioNotice &notice);

} // namespace Follow
