// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/quillmere.h"
#include "tests/support/datafolder.h"
#include "tests/support/recordinglog.h"
#include "tests/support/testclock.h"

#include <QVariant>

#include <memory>

// A whole server in this process: real sockets on loopback at free ports, a real database in a folder of its
// own, a log that is kept, a clock that the test moves. It is not started yet.
class TestServer
{
public:
    TestServer();
    ~TestServer();
    Q_DISABLE_COPY_MOVE(TestServer)

    RecordingLog log;
    DataFolder folder;
    TestClock clock;

    quint16 registrationPort() const { return radioPort; }
    quint16 applicationPort() const { return tcpPort; }

    // Writes the configuration: both ports, and what the test adds.
    void configure(const QByteArray &more = QByteArray()) const;

    // Starts the server and forgets the records of the start.
    void start();
    // The same, but no radio is ever asked: on loopback the requests would reach the server itself.
    void startWithoutDiscovery();
    // The object is stopped and a new one started on the same data, as after a restart of the process.
    void restart();
    void stop();

    QMR::Quillmere *operator->() const { return server.get(); }
    QMR::Quillmere &object() const { return *server; }

    // Runs one of the timer slots, as if its timer had expired.
    void expire(const char *slot) const;
    void expireDiscovery() const { expire("eventDiscoveryTimerExpired"); }
    // With all slices of the lapse that it begins, however slow the machine.
    void expireHeartbeat() const;
    void expireTimeoutCheck() const { expire("eventTimeoutCheckTimerExpired"); }
    // The same for the timer of the writes that are owed.
    void expireRetry() const;

    // Reads and writes the database through a connection of the test's own.
    QList<QVariantList> query(const QString &statement) const;
    // Reads through the server's own connection, which sees what it has written and not yet committed.
    static QList<QVariantList> queryUncommitted(const QString &statement);

private:
    std::unique_ptr<QMR::Quillmere> server;
    quint16 radioPort;
    quint16 tcpPort;
};

// A port that was free a moment ago.
quint16 freeUdpPort();
quint16 freeTcpPort();

// Runs SQL on a database file; what it yields, row by row. Fails the process on an error: the test's own SQL
// is wrong.
QList<QVariantList> runSql(const QString &databaseFile, const QString &statement);
QList<QVariantList> runSql(const QSqlDatabase &database, const QString &statement);
