// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/identity.h"
#include "tests/support/recordinglog.h"
#include "tests/support/scriptedapplication.h"

#include <QList>

#include <map>
#include <optional>
#include <set>
#include <vector>

// The rules of registration and supervision once more, put as plainly as they can be: no index, no queue, no
// database, every question answered by a walk over all radios. A test holds the server against it.
// Addresses are IPv4 values other than 0, times are milliseconds since 1970.
class RegistrationModel
{
public:
    using Address = std::optional<quint32>;

    struct Radio
    {
        quint32 protocolVersion = 0;
        QMR::Suid suid;
        QMR::Suid pendingSuid;
        Address address;
        Address pendingAddress;
        QMR::ServiceList services;
        QMR::ServiceList pendingServices;
        quint32 availability = 0;
        quint16 attempts = 0;
        qint64 lastDiscovery = 0;
        qint64 lastContact = 0;
        std::optional<qint64> deadline;

        bool operator==(const Radio &) const = default;
        QString text() const;
    };

    // A row of the database, with its services; times in whole seconds.
    struct Row
    {
        QMR::Suid suid;
        quint32 address = 0;
        quint32 availability = 0;
        quint16 attempts = 0;
        qint64 lastContact = 0;
        qint64 lastDiscovery = 0;
        quint32 protocolVersion = 0;
        QMR::ServiceList services;

        bool operator==(const Row &) const = default;
        QString text() const;
        // The SQL that stores it; its services aside.
        QString insertion(const QMR::Esn &esn) const;
    };

    struct Registration
    {
        QMR::Esn esn;
        quint32 protocolVersion = 0;
        QMR::Suid suid;
        quint32 address = 0;
        bool pending = false;
        QMR::ServiceList services;
    };

    struct Request
    {
        QMR::Esn esn;
        quint32 protocolVersion = 0;
        quint32 address = 0;
    };

    // minimumDiscoveryPeriod: seconds.
    explicit RegistrationModel(qint64 minimumDiscoveryPeriod) : minimumPeriod(minimumDiscoveryPeriod) {}
    qint64 minimumDiscoveryPeriod() const { return minimumPeriod; }

    qint64 now = 0;
    std::map<QMR::Esn, Radio> table;
    std::map<QMR::Esn, Row> rows;
    // What the step has caused so far, in order; the test takes it.
    QList<LogRecord> records;
    QList<Notice> notices;
    QList<Request> requests; // for discovery
    int writes = 0;          // of the database
    // To what the timers are armed, in milliseconds; none when they are stopped.
    std::optional<qint64> discoveryTimer;
    std::optional<qint64> deadlineTimer;

    // Who is searched for, and who waits for confirmation, in the order in which it is their turn.
    std::vector<QMR::Esn> searchedFor() const;
    std::vector<QMR::Esn> awaitingConfirmation() const;

    void registers(const Registration &registration);
    void deregisters(const QMR::Esn &esn, quint32 address);
    void deregistersByAddress(quint32 address);
    void isReported(const QMR::Esn &esn, quint32 address);
    void discoveryExpires();
    void timeoutCheckExpires();
    void deadlineExpires();
    // The process ends and starts again: what remains is the rows. A service that is only stopped and started
    // remembers when it last asked a radio.
    void restarts(bool isSameProcess = false);
    // What an application is sent when it connects.
    QList<Notice> snapshot() const;

    // While somebody else has the database, each write fails with its record, and is owed.
    bool locked = false;
    std::set<QMR::Esn> owed;
    // Rows are brought to what the table says.
    void settlesWhatIsOwed();

private:
    std::optional<QMR::Esn> holderOf(quint32 address) const;
    qint64 dueTime(const QMR::Esn &esn) const;
    qint64 secondsToDiscovery() const;
    void armDiscovery();
    void armDeadline();
    void setAvailability(const QMR::Esn &esn, quint32 value);
    void registersPending(const QMR::Esn &esn);
    void deregistersPending(const QMR::Esn &esn);
    void insert();
    void store(const QMR::Esn &esn);
    void remove(const QMR::Esn &esn);
    bool isRefused(const QMR::Esn &esn, const QString &text);
    void record(const QString &text, const QMR::Esn &esn, const QMR::Suid &suid, Address address);
    static Notice noticeOf(const QMR::Esn &esn, const Radio &radio);

    qint64 minimumPeriod;
    qint64 lastRequest = 0;
};
