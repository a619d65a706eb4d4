// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/platform.h"
#include "tests/support/recordinglog.h"

#include <QMap>
#include <QSet>
#include <QString>
#include <QStringList>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

// Stands in for the operating system's service manager and event log while it lives. It keeps services with
// their states, records each call as a line, fails where it is told to, and runs a service as the real one
// does: the dispatcher blocks for the service's life, the service main function has a thread of its own, and
// controls arrive on the dispatcher's. The clock of the service host's waits is its own too: nothing sleeps.
class FakeScm
{
public:
    struct Service
    {
        QString displayName;
        QString description;
        QString binaryPath;
        std::optional<QString> account;
        std::optional<QString> password;
        Scm::Dword type = 0;
        Scm::Dword startType = 0;
        Scm::Dword errorControl = 0;
        Scm::Dword state = Scm::StateStopped;
        QStringList startParameters;
    };

    FakeScm();
    ~FakeScm();
    Q_DISABLE_COPY_MOVE(FakeScm)

    // The manager's services; only while no dispatcher runs.
    QMap<QString, Service> services;
    // By event source.
    QMap<QString, QString> messageFiles;
    // Answers to queries that come after one another, before the service's own state counts again.
    QList<Scm::Dword> statesToReport;

    // Makes a function of the table, by its name there, fail from its next call but "skipped" on.
    void fail(const QString &function, Scm::Dword error, int skipped = 0);

    // The calls so far, in order, and forgets them: "openService Quill Mere 0x4".
    QStringList takeCalls();
    // Calls of one function among those so far.
    QStringList callsOf(const QString &function) const;
    qsizetype openHandles() const;
    QList<LogRecord> events() const;
    QStringList sleeps() const; // in the order asked for, "sleep 200", "start 20000", "end 1000"

    // The table is not to be had at all.
    void makeUnavailable();

    // How the service manager runs a service: with these start parameters. Without it the process counts as
    // started from a console.
    void launch(const QStringList &startParameters);
    // The dispatcher stays in its call, whatever the service reports, until the object goes.
    void holdDispatcher() { dispatcherHeld = true; }
    // The dispatcher never calls the service main function.
    void withholdServiceMain() { mainWithheld = true; }
    // The wait for the start is over before anything was released.
    void expireStartWait() { startExpires = true; }

    // For a thread of the test's own, while the main thread runs the service. Each waits for the thing itself
    // and gives up, failing the test, only when it does not come at all.
    void waitForState(Scm::State state);
    void waitForControlHandler();
    void waitForServiceMain(); // to have returned
    // Sends a control as the dispatcher does; returns when the control handler has returned.
    void control(Scm::Dword code);
    // Asks the dispatcher to send a control and goes on.
    void postControl(Scm::Dword code);

    // The statuses that the service has reported, in order.
    QList<Scm::Status> reports() const;
    QList<Scm::Dword> reportedStates() const;
    Scm::Handle statusHandle() const;
    std::thread::id dispatcherThread() const;
    std::thread::id mainFunctionThread() const;

    // Called, outside any lock, for each report, on the thread that reports.
    std::function<void(const Scm::Status &)> onReport;

private:
    friend struct FakeFunctions;

    struct Failure
    {
        Scm::Dword error = 0;
        int skipped = 0;
    };
    struct Handle
    {
        QString kind; // "manager", "service" or "log"
        QString service;
    };

    bool call(const QString &function, const QString &arguments = QString());
    Scm::Handle open(const QString &kind, const QString &service);
    Scm::Bool refuse(Scm::Dword error);
    bool dispatch(const Scm::TableEntry *table);
    template<typename Condition>
    void waitUntil(std::unique_lock<std::mutex> &lock, Condition condition);

    Platform saved;

    mutable std::mutex mutex;
    std::condition_variable changed;
    QStringList calls;
    QStringList askedWaits;
    QMap<QString, Failure> failures;
    QSet<Handle *> handles;
    QList<LogRecord> written;

    std::optional<QStringList> launched;
    std::atomic<bool> dispatcherHeld = false;
    std::atomic<bool> mainWithheld = false;
    std::atomic<bool> startExpires = false;
    int dispatchersRunning = 0;
    bool ending = false;
    bool mainReturned = false;
    Scm::ControlHandler handler = nullptr;
    QList<Scm::Dword> controls;
    unsigned controlsSent = 0;
    unsigned controlsDone = 0;
    QList<Scm::Status> statuses;
    Scm::Handle lastStatusHandle = nullptr;
    std::thread::id dispatcherId;
    std::thread::id mainId;
};
