// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/dispatcher.h"

#include "service/linux/controlsocket.h"
#include "service/linux/errors.h"
#include "service/linux/startparameters.h"
#include "service/linux/stopsignals.h"
#include "service/linux/systemd.h"
#include "service/linux/unitfile.h"

#include <QByteArray>
#include <QStringList>

#include <systemd/sd-daemon.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Linux {

namespace {

// What the service has told so far.
struct Told
{
    Scm::ControlHandler handler = nullptr;
    std::optional<Scm::Status> status;
    bool mainHasReturned = false; // it can register a handler until then

    bool isReady() const
    {
        return handler && status && status->currentState != Scm::StateStartPending &&
               status->currentState != Scm::StateStopPending;
    }
    bool hasStopped() const { return status && status->currentState == Scm::StateStopped; }
};

// Shared by the dispatcher and whoever reports a status. It outlives the dispatcher: a thread may still
// report while the process ends.
struct Service
{
    const int wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC); // the dispatcher is to look again
    std::mutex mutex;
    bool isDispatched = false;
    Told told;
};

Service &service()
{
    static auto *const only = new Service;
    return *only;
}

Told told()
{
    const std::lock_guard lock(service().mutex);
    return service().told;
}

// On a thread of its own, which may hang here for ever: whatever it uses is its own or lives as long.
void runServiceMain(Scm::ServiceMain main, std::vector<std::u16string> parameters)
{
    std::vector<Scm::Char *> argv;
    argv.reserve(parameters.size() + 1);
    for (std::u16string &parameter : parameters) {
        argv.push_back(parameter.data());
    }
    argv.push_back(nullptr);
    main(static_cast<Scm::Dword>(parameters.size()), argv.data());
    {
        const std::lock_guard lock(service().mutex);
        service().told.mainHasReturned = true;
    }
    ::eventfd_write(service().wake, 1);
}

// systemd names the process it has started beside the socket; a child of some other service only inherits
// both.
bool isStartedBySystemd()
{
    const QByteArray pid = qgetenv("SYSTEMD_EXEC_PID");
    return !qgetenv("NOTIFY_SOCKET").isEmpty() && (pid.isEmpty() || pid.toInt() == ::getpid());
}

// Empty where systemd has made none. It lists all that the unit and its drop-ins name.
QByteArray ownRuntimeDirectory(const QString &serviceName)
{
    const QByteArray own = runtimeDirectory(unitName(serviceName));
    return qgetenv("RUNTIME_DIRECTORY").split(':').contains(own) ? own : QByteArray();
}

// Whether a service that accepts these takes the control now: 0 or the error.
Scm::Dword refusal(Scm::Dword control, Scm::Dword accepted)
{
    if (control == Scm::ControlInterrogate ||
        (control >= Scm::ControlUserFirst && control <= Scm::ControlUserLast)) {
        return 0;
    }
    if (control != Scm::ControlPause && control != Scm::ControlContinue) {
        return ErrorInvalidParameter; // a stop comes by signal
    }
    return accepted & Scm::AcceptPauseContinue ? 0 : Scm::Dword(Scm::ErrorServiceNotAcceptingControl);
}

ControlAnswer carryOut(Scm::Dword control)
{
    const Told before = told();
    ControlAnswer answer;
    answer.error =
        before.isReady() ? refusal(control, before.status->controlsAccepted) : ErrorCannotAcceptControl;
    if (answer.error == 0) {
        before.handler(control);
    }
    if (const auto status = told().status) {
        answer.state = status->currentState;
        answer.controlsAccepted = status->controlsAccepted;
        answer.exitCode = status->win32ExitCode;
    }
    return answer;
}

// Until the service has stopped.
void dispatch(ControlSocket &socket)
{
    bool mustStop = false;
    for (;;) {
        std::vector<pollfd> descriptors = {{service().wake, POLLIN, 0}};
        socket.appendTo(descriptors);
        (void)::poll(descriptors.data(), descriptors.size(), socket.patience());
        eventfd_t count = 0;
        (void)::eventfd_read(service().wake, &count);
        mustStop = StopSignals::take() || mustStop;

        const Told now = told();
        if (now.hasStopped()) {
            return;
        }
        if (mustStop && now.isReady()) {
            mustStop = false;
            now.handler(Scm::ControlStop);
        } else if (mustStop && now.mainHasReturned && !now.handler) {
            StopSignals::endProcess(); // it can never be told to stop
        }
        socket.serve(carryOut);
    }
}

QByteArray notification(const Scm::Status &status)
{
    QByteArray text = "STATUS=" + statusText(status.currentState);
    if (status.currentState == Scm::StateRunning) {
        text += "\nREADY=1";
    } else if (status.currentState == Scm::StateStopPending || status.currentState == Scm::StateStopped) {
        text += "\nSTOPPING=1";
    }
    return text;
}

} // namespace

Scm::Bool startServiceCtrlDispatcher(const Scm::TableEntry *table)
{
    if (!isStartedBySystemd()) {
        return fail(Scm::ErrorFailedControllerConnect);
    }
    if (!table || !table->name || !table->main) {
        return fail(ErrorInvalidParameter);
    }
    Service &s = service();
    if (s.wake < 0) {
        return fail(ErrorManagerUnavailable); // another error than that of a console start
    }
    {
        const std::lock_guard lock(s.mutex);
        if (s.isDispatched) {
            return fail(Scm::ErrorServiceAlreadyRunning);
        }
        s.isDispatched = true;
        s.told = {};
    }
    {
        const StopSignals signalsAreOurs(s.wake);
        const QByteArray runtimeDirectory = ownRuntimeDirectory(Scm::toString(table->name));
        ControlSocket socket(runtimeDirectory.isEmpty() ? QByteArray()
                                                        : runtimeDirectory + ControlSocketName);
        // As on Windows the first parameter is the service's name.
        std::vector<std::u16string> parameters = {table->name};
        const QStringList given = takeStartParameters(runtimeDirectory);
        for (const QString &parameter : given) {
            parameters.push_back(parameter.toStdU16String());
        }
        std::thread(runServiceMain, table->main, std::move(parameters)).detach();
        dispatch(socket);
    }
    const std::lock_guard lock(s.mutex);
    s.isDispatched = false;
    return 1;
}

Scm::Handle registerServiceCtrlHandler(const Scm::Char *, Scm::ControlHandler handler)
{
    Service &s = service();
    const std::lock_guard lock(s.mutex);
    if (!s.isDispatched || !handler) {
        fail(s.isDispatched ? ErrorInvalidParameter : ErrorNotInExecutable);
        return nullptr;
    }
    s.told.handler = handler;
    return &s;
}

Scm::Bool setServiceStatus(Scm::Handle statusHandle, Scm::Status *status)
{
    Service &s = service();
    if (statusHandle != &s || !status) {
        return fail(ErrorInvalidHandle);
    }
    const std::lock_guard lock(s.mutex);
    if (s.told.hasStopped()) {
        return fail(ErrorInvalidHandle); // a stopped service has no more to report
    }
    s.told.status = *status;
    ::eventfd_write(s.wake, 1);
    return ::sd_notify(0, notification(*status).constData()) > 0 ? 1 : fail(ErrorWriteFault);
}

} // namespace Linux
