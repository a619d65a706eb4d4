// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/serviceruntime.h"

#include "service/platform.h"
#include "service/qtservicebase.h"

#include <QCoreApplication>
#include <QEvent>

#include <chrono>

using namespace Qt::StringLiterals;

namespace {

std::mutex currentMutex;
std::shared_ptr<ServiceRuntime> currentRuntime;

Scm::Dword acceptedControls(QtServiceBase::ServiceFlags flags)
{
    Scm::Dword accepted = 0;
    if (!flags.testFlag(QtServiceBase::CannotBeStopped)) {
        accepted |= Scm::AcceptStop;
    }
    if (flags.testFlag(QtServiceBase::CanBeSuspended)) {
        accepted |= Scm::AcceptPauseContinue;
    }
    if (flags.testFlag(QtServiceBase::NeedsStopOnShutdown)) {
        accepted |= Scm::AcceptShutdown;
    }
    return accepted;
}

} // namespace

std::shared_ptr<ServiceRuntime> ServiceRuntime::create(const QtServiceBase &service)
{
    auto runtime = std::make_shared<ServiceRuntime>(service);
    const std::lock_guard lock(currentMutex);
    currentRuntime = runtime;
    return runtime;
}

std::shared_ptr<ServiceRuntime> ServiceRuntime::current()
{
    const std::lock_guard lock(currentMutex);
    return currentRuntime;
}

ServiceRuntime::ServiceRuntime(const QtServiceBase &service) : name(service.serviceName())
{
    // Reported whatever account the service runs under, although it is installed with the second bit only for
    // LocalSystem.
    status.serviceType = Scm::Dword(Scm::OwnProcess) | Scm::InteractiveProcess;
    status.currentState = Scm::StateStopped;
    status.controlsAccepted = acceptedControls(service.serviceFlags());
}

void ServiceRuntime::serviceMain(Scm::Dword argc, Scm::Char **argv)
{
    const std::shared_ptr<ServiceRuntime> runtime = current();
    if (runtime && QtServiceBase::instance()) {
        runtime->runServiceMain(argc, argv);
    }
}

void ServiceRuntime::controlHandler(Scm::Dword control)
{
    if (const std::shared_ptr<ServiceRuntime> runtime = current()) {
        runtime->handle(control);
    }
}

void ServiceRuntime::runServiceMain(Scm::Dword argc, Scm::Char **argv)
{
    {
        const std::lock_guard lock(mutex);
        for (Scm::Dword i = 0; i < argc; ++i) {
            arguments.append(Scm::toString(argv[i]));
        }
    }
    started.release();
    ready.acquire();
    {
        // Under the lock: a control that comes at once waits for the handle to its reports.
        const std::lock_guard lock(mutex);
        if (ended) {
            return;
        }
        const Scm::Handle registered =
            platform.scm.registerServiceCtrlHandler(Scm::text(name), controlHandler);
        if (!registered) {
            return;
        }
        const std::lock_guard statusLock(statusMutex);
        statusHandle = registered;
    }
    handle(Scm::ControlStartUp);
}

void ServiceRuntime::handle(Scm::Dword control)
{
    {
        std::unique_lock lock(mutex);
        ++controlsInside;
        switch (control) {
        case Scm::ControlStartUp:
            report(Scm::StateStartPending);
            post(control, lock);
            report(Scm::StateRunning);
            break;
        case Scm::ControlStop:
            report(Scm::StateStopPending);
            post(control, lock);
            break;
        case Scm::ControlPause:
            report(Scm::StatePausePending);
            post(control, lock);
            report(Scm::StatePaused);
            break;
        case Scm::ControlContinue:
            report(Scm::StateContinuePending);
            post(control, lock);
            report(Scm::StateRunning);
            break;
        case Scm::ControlShutdown:
            post(Scm::ControlStop, lock);
            break;
        default:
            if (control >= Scm::ControlUserFirst && control <= Scm::ControlUserLast) {
                post(control, lock);
            }
            break;
        }
    }
    repeatStatus();
    const std::lock_guard lock(mutex);
    --controlsInside;
    handled.notify_all();
}

// No time-out: a start() that never returns keeps the service manager waiting, as it must.
void ServiceRuntime::post(Scm::Dword control, std::unique_lock<std::mutex> &lock)
{
    if (ended || !receiver) {
        return;
    }
    const unsigned before = handledEvents;
    const int type = EventBase + static_cast<int>(control);
    QCoreApplication::postEvent(receiver, new QEvent(static_cast<QEvent::Type>(type)));
    handled.wait(lock, [this, before] { return handledEvents != before || ended; });
}

void ServiceRuntime::report(Scm::State state)
{
    if (!platform.scmAvailable()) {
        return;
    }
    const std::lock_guard lock(statusMutex);
    if (stopReported) {
        return; // the main thread has had the last word, in the middle of a control
    }
    status.currentState = state;
    platform.scm.setServiceStatus(statusHandle, &status);
}

void ServiceRuntime::repeatStatus()
{
    if (!platform.scmAvailable()) {
        return;
    }
    const std::lock_guard lock(statusMutex);
    if (status.currentState != Scm::StateStopped) {
        platform.scm.setServiceStatus(statusHandle, &status);
    }
}

void ServiceRuntime::logStartFailure(Scm::Dword error)
{
    const QString message = u"The Service failed to start [%1]"_s.arg(platform.errorText(error));
    // The service object lives at least until the run has ended.
    const std::lock_guard lock(mutex);
    const QtServiceBase *service = QtServiceBase::instance();
    if (!ended && service) {
        service->logMessage(message, QtServiceBase::Error);
    }
}

QStringList ServiceRuntime::serviceArguments()
{
    const std::lock_guard lock(mutex);
    return arguments;
}

void ServiceRuntime::acceptControls(QObject *controlReceiver)
{
    {
        const std::lock_guard lock(mutex);
        receiver = controlReceiver;
    }
    ready.release();
}

void ServiceRuntime::controlHandled()
{
    const std::lock_guard lock(mutex);
    ++handledEvents;
    handled.notify_all();
}

// A service manager that hears of the end of a service before the answer to its control may wait for that
// answer in vain: Wine's does, for ten seconds.
void ServiceRuntime::waitForControls()
{
    constexpr auto Limit = std::chrono::seconds(1);
    std::unique_lock lock(mutex);
    handled.wait_for(lock, Limit, [this] { return controlsInside == 0; });
}

void ServiceRuntime::reportStopped(Scm::Dword exitCode)
{
    const std::lock_guard lock(statusMutex);
    status.win32ExitCode = exitCode;
    status.currentState = Scm::StateStopped;
    stopReported = true;
    platform.scm.setServiceStatus(statusHandle, &status);
}

void ServiceRuntime::end()
{
    {
        const std::lock_guard lock(mutex);
        ended = true;
        receiver = nullptr;
        handled.notify_all();
    }
    ready.release();
    const std::lock_guard lock(currentMutex);
    if (currentRuntime.get() == this) {
        currentRuntime.reset();
    }
}
