// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/scm.h"
#include "service/semaphore.h"

#include <QStringList>

#include <condition_variable>
#include <memory>
#include <mutex>

class QObject;
class QtServiceBase;

// One run under the service manager: the status that it is told, and the hand-over between its threads and
// the main thread. The main thread creates the record and ends it; the service manager's threads find it
// through current() and keep it alive while they are inside. A call that finds no record does nothing; one
// that is inside when the run ends waits for the main thread no longer.
class ServiceRuntime
{
public:
    // Makes the record of a new run the current one.
    static std::shared_ptr<ServiceRuntime> create(const QtServiceBase &service);
    // Null when the process runs no service.
    static std::shared_ptr<ServiceRuntime> current();

    explicit ServiceRuntime(const QtServiceBase &service);
    Q_DISABLE_COPY_MOVE(ServiceRuntime)

    // What the service manager calls, on threads of its own.

    // Hands the start parameters over, waits for the main thread, then has the service started.
    static void serviceMain(Scm::Dword argc, Scm::Char **argv);
    // Returns when the main thread has done what the control asks for.
    static void controlHandler(Scm::Dword control);

    // For the thread that runs the dispatcher.

    void logStartFailure(Scm::Dword error);

    // For the main thread.

    // Released when the service main function was called, or the dispatcher failed.
    Semaphore started;
    // What the service manager passed to the service main function.
    QStringList serviceArguments();
    // From now on controls are posted to this object, as events of type EventBase plus the control.
    void acceptControls(QObject *controlReceiver);
    // The receiver has dealt with an event.
    void controlHandled();
    // Waits, a bounded time, until the control handler is back with the service manager.
    void waitForControls();
    // The last report of the run.
    void reportStopped(Scm::Dword exitCode);
    // Lets go of every thread that waits for the main thread, and of the receiver. Idempotent.
    void end();

    static constexpr int EventBase = 1000;

private:
    void runServiceMain(Scm::Dword argc, Scm::Char **argv);
    void handle(Scm::Dword control);
    void post(Scm::Dword control, std::unique_lock<std::mutex> &lock);
    void report(Scm::State state);
    void repeatStatus();

    const QString name;
    Semaphore ready; // the main thread is ready for controls

    std::mutex mutex; // taken before statusMutex
    std::condition_variable handled;
    QStringList arguments;
    QObject *receiver = nullptr;
    unsigned handledEvents = 0;
    unsigned controlsInside = 0;
    bool ended = false;

    std::mutex statusMutex; // so that reports neither overtake nor tear one another
    Scm::Status status{};
    Scm::Handle statusHandle = nullptr;
    bool stopReported = false;
};
