// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the monitor tells, as JSON.
#pragma once

#include "tools/monitor/observed.h"

#include <QByteArray>
#include <QJsonObject>

namespace Monitor {

QString timeText(qint64 time); // "2026-11-23T03:27:03.123Z"

// Appends a radio as it is now: the keys of Follow::noticeObject(), "server", and "changed", the time of its
// last change; null: it has not changed since it was first heard of.
void appendRadio(QByteArray &text, const Table &table, const Radio &radio);

// A server's status and the totals. steadyNow: of the activity's clock.
QJsonObject statusObject(Observed &observed, const QString &version, qint64 now, qint64 steadyNow);
QJsonObject ratesObject(Activity &activity, qint64 now, qint64 steadyNow);
// "radios", one of each server that knows the ESN, and "history", what they were before and are; empty when
// nobody knows it.
QByteArray radioText(const Table &table, const QMR::Esn &esn);

} // namespace Monitor
