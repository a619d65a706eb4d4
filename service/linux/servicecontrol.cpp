// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/servicecontrol.h"

#include "service/linux/controlclient.h"
#include "service/linux/errors.h"
#include "service/linux/servicehandle.h"
#include "service/linux/startparameters.h"
#include "service/linux/systemctl.h"
#include "service/linux/text.h"
#include "service/linux/unitstate.h"

#include <QDeadlineTimer>
#include <QThread>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace Linux {

namespace {

constexpr int AnswerMilliseconds = 30000; // what Windows gives a service to answer a control
constexpr unsigned PollMilliseconds = 50;

QByteArray unitFileName(const ServiceHandle &service)
{
    return service.unit.toLatin1() + ".service";
}

QByteArray runtimeDirectory(const ServiceHandle &service)
{
    return places().runtimeFolder + '/' + service.unit.toLatin1();
}

bool query(const ServiceHandle &service, UnitState &state)
{
    if (!queryUnit(service.unit, state)) {
        fail(ErrorManagerUnavailable);
        return false;
    }
    if (!state.isLoaded && state.state == Scm::StateStopped) {
        fail(Scm::ErrorServiceDoesNotExist);
        return false;
    }
    return true;
}

Scm::Status statusOf(const UnitState &state)
{
    Scm::Status status{};
    status.serviceType = Scm::OwnProcess;
    status.currentState = state.state;
    status.win32ExitCode = state.state == Scm::StateStopped ? state.exitCode : 0;
    return status;
}

enum class Beginning { Unknown, Begun, Failed };

Beginning beginning(const UnitState &state, const QByteArray &invocationBefore)
{
    if (state.waitsForRestart) {
        return Beginning::Failed;
    }
    switch (state.state) {
    case Scm::StateStopped:
        // Another invocation: it began and has ended already.
        return state.invocation == invocationBefore ? Beginning::Unknown
               : state.exitCode == 0                ? Beginning::Begun
                                                    : Beginning::Failed;
    case Scm::StateStartPending:
        return state.hasReported ? Beginning::Begun : Beginning::Unknown;
    default:
        return Beginning::Begun;
    }
}

bool waitForBeginning(const ServiceHandle &service, const QByteArray &invocationBefore)
{
    const QDeadlineTimer deadline(places().timeoutMilliseconds);
    do {
        UnitState state;
        if (queryUnit(service.unit, state)) {
            const Beginning now = beginning(state, invocationBefore);
            if (now == Beginning::Begun) {
                return true;
            }
            if (now == Beginning::Failed) {
                // A start that failed leaves the service stopped; only one that ran is started again.
                (void)systemctl({"stop", "--no-block", "--no-ask-password", "--", unitFileName(service)});
                fail(ErrorProcessAborted);
                return false;
            }
        }
        QThread::msleep(PollMilliseconds);
    } while (!deadline.hasExpired());
    fail(ErrorRequestTimeout);
    return false;
}

bool canBeSent(Scm::Dword control)
{
    return (control >= Scm::ControlStop && control <= Scm::ControlInterrogate) ||
           (control >= Scm::ControlUserFirst && control <= Scm::ControlUserLast);
}

bool socketExists(const QByteArray &path)
{
    struct stat ignored
    {
    };
    return ::stat(path.constData(), &ignored) == 0 || errno == EACCES;
}

Scm::Bool stop(const ServiceHandle &service, Scm::Dword accepted, Scm::Status *status)
{
    if (!systemctlDoes({"stop", "--no-block", "--no-ask-password", "--", unitFileName(service)})) {
        return 0;
    }
    UnitState state;
    if (!queryUnit(service.unit, state)) {
        return fail(ErrorManagerUnavailable);
    }
    *status = statusOf(state);
    if (state.state != Scm::StateStopped) {
        status->currentState = Scm::StateStopPending; // systemd may not have begun yet
        status->controlsAccepted = accepted;
    }
    return 1;
}

} // namespace

Scm::Bool queryServiceStatus(Scm::Handle handle, Scm::Status *status)
{
    const ServiceHandle *service = serviceOf(handle);
    UnitState state;
    if (!service || !query(*service, state)) {
        return 0;
    }
    *status = statusOf(state);
    return 1;
}

Scm::Bool startService(Scm::Handle handle, Scm::Dword argc, const Scm::Char **argv)
{
    const ServiceHandle *service = serviceOf(handle);
    UnitState before;
    if (!service || !query(*service, before)) {
        return 0;
    }
    if (before.state != Scm::StateStopped) {
        return fail(Scm::ErrorServiceAlreadyRunning);
    }
    if (before.isMasked) {
        return fail(ErrorServiceDisabled);
    }
    QStringList parameters;
    for (Scm::Dword i = 0; i < argc; ++i) {
        parameters.append(toString(argv[i]));
    }
    const QByteArray directory = runtimeDirectory(*service);
    if (!parameters.isEmpty() && !storeStartParameters(directory, parameters)) {
        return fail(Scm::ErrorAccessDenied);
    }
    if (!systemctlDoes({"start", "--no-block", "--no-ask-password", "--", unitFileName(*service)})) {
        const Scm::Dword error = lastError();
        if (!parameters.isEmpty()) {
            (void)takeStartParameters(directory);
            ::rmdir(directory.constData());
        }
        return fail(error);
    }
    return waitForBeginning(*service, before.invocation) ? 1 : 0;
}

Scm::Bool controlService(Scm::Handle handle, Scm::Dword control, Scm::Status *status)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    if (!canBeSent(control) || !status) {
        return fail(ErrorInvalidParameter);
    }
    UnitState state;
    if (!query(*service, state)) {
        return 0;
    }
    if (state.state == Scm::StateStopped) {
        return fail(Scm::ErrorServiceNotActive);
    }
    const QByteArray socket = runtimeDirectory(*service) + ControlSocketName;
    if (control == Scm::ControlStop && !socketExists(socket)) {
        return stop(*service, 0, status); // it is only starting, or waits to be started again
    }
    const ControlAnswer answer = sendControl(socket, control, AnswerMilliseconds);
    if (control == Scm::ControlStop && answer.error != Scm::ErrorServiceNotAcceptingControl) {
        // A service that cannot answer can still be stopped; whether the caller may is systemd's to say.
        return stop(*service, answer.controlsAccepted, status);
    }
    if (answer.error != 0) {
        return fail(answer.error);
    }
    *status = statusOf(state);
    status->currentState = answer.state;
    status->controlsAccepted = answer.controlsAccepted;
    status->win32ExitCode = answer.exitCode;
    return 1;
}

} // namespace Linux
