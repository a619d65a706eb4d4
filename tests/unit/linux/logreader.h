// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The other end of the machine's log, for a test: a datagram socket of its own, and what the journal makes of
// a datagram.
#pragma once

#include "service/linux/systemlog.h"

#include <QByteArray>
#include <QList>
#include <QPair>
#include <QTemporaryDir>

#include <optional>

class LogReader
{
public:
    explicit LogReader(const QByteArray &path); // any socket at the path is replaced
    ~LogReader();
    Q_DISABLE_COPY_MOVE(LogReader)

    // The next datagram that is there; or what a file that came with it holds.
    std::optional<QByteArray> next();
    // Waits for one; empty where none has come for half a minute.
    QByteArray awaited();
    int filesRead() const { return files; } // all of which were sealed

private:
    std::optional<QByteArray> receive(int flags);

    int descriptor = -1;
    int files = 0;
};

// Where a log finds its readers: two paths in a folder of their own.
struct LogFolder
{
    LogFolder();

    // A send that waits is counted from here on, and ends as if its time were over.
    void countWaits();

    QTemporaryDir folder;
    Linux::LogPlaces places;
    int waits = 0;
};

using Fields = QList<QPair<QByteArray, QByteArray>>;

// Nothing: not a whole record of the journal's native protocol.
std::optional<Fields> parsedFields(const QByteArray &bytes);

// The text of the record's MESSAGE.
QByteArray messageOf(const QByteArray &bytes);

// A warning of 2026-11-21 10:00:00.123 UTC with this text.
Linux::EventRecord record(const QString &message);

// Writes numbered records until one is lost; the number that were taken.
int fill(Linux::SystemLog &log);

// Those of this process.
QList<int> openDescriptors();
