// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What passes between a connection and what it serves.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QString>
#include <QUrlQuery>

#include <memory>
#include <utility>

namespace Monitor {

struct Request
{
    QByteArray method;
    QString path; // decoded
    QUrlQuery query;
    QByteArray host;          // empty: none was given
    QByteArray authorization; // the field as it came
    QHostAddress peer;
    bool keepAlive = false;
};

// An answer without an end: what there is to be told, bit by bit.
class Stream
{
public:
    Stream() = default;
    virtual ~Stream() = default;
    Q_DISABLE_COPY_MOVE(Stream)

    // What comes next, some 64 KiB at most; empty: nothing, as yet.
    virtual QByteArray next() = 0;
};

struct Answer
{
    int status = 200;
    QByteArray type;
    QByteArray body;
    QList<std::pair<QByteArray, QByteArray>> fields = {};
    std::unique_ptr<Stream> stream = {}; // instead of a body

    static Answer error(int status, const QByteArray &text);
};

// The answer's head. Without keepAlive the connection ends behind the body.
QByteArray head(const Answer &answer, bool keepAlive);

} // namespace Monitor
