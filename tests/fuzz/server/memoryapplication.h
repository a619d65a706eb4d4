// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/applicationreader.h"
#include "tests/fuzz/server/memorywires.h"
#include "tests/support/registrationmodel.h"

#include <QPointer>

class QTimer;

// An application of the server, with what the server must make of what it sends.
class MemoryApplication
{
public:
    // Connects.
    MemoryApplication(RegistrationModel &model, QObject *owner);
    ~MemoryApplication();
    Q_DISABLE_COPY_MOVE(MemoryApplication)

    MemorySocket &socket() { return *end; }

    // Tells the model what will come of these bytes.
    void announce(const QByteArray &bytes);
    void announceEnd(QAbstractSocket::SocketError error);
    void announceTimeout();

    // With what the server waits for the rest of a message.
    QTimer *waitTimer() const;
    bool isAwaited() const { return reader.isAwaiting(); }

    // What it is to be told of the table it connects to; once.
    QList<Notice> takeSnapshot() { return std::exchange(snapshot, {}); }
    // What it has been told since the last call. Ends with an empty notice where there is more than notices.
    QList<Notice> takeNotices();

private:
    bool takeArrival();
    void handle(const QMR::ApplicationReader::Reading &reading);
    void record(QMR::ApplicationReader::Fault fault);

    RegistrationModel &model;
    QPointer<MemorySocket> end; // the server deletes it when it drops the application
    QList<Notice> snapshot;
    QMR::ApplicationReader reader;
    QByteArray unread;
};
