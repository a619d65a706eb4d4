// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/dispatcher.h"

#include "service/linux/controlsocket.h"
#include "service/linux/errors.h"
#include "service/linux/startparameters.h"
#include "service/linux/systemd.h"
#include "service/linux/unitfile.h"

#include <QByteArray>
#include <QStringList>

#include <systemd/sd-daemon.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Linux {

namespace {

// Shared by the dispatcher, the thread of the service main function and whoever reports a status. It outlives
// the dispatcher: a thread may still report while the process ends.
struct Service
{
    std::mutex mutex;
    bool isDispatched = false;
    bool mainHasReturned = false;
    Scm::ControlHandler handler = nullptr;
    Scm::Status status{};
    bool hasStatus = false;
    int wake = -1; // an eventfd: something above has changed
};

Service &service()
{
    static auto *const only = new Service;
    return *only;
}

std::atomic<int> stopEvent{-1}; // an eventfd: SIGTERM or SIGINT has come

void raiseEvent(int descriptor)
{
    ::eventfd_write(descriptor, 1);
}

bool takeEvent(int descriptor)
{
    eventfd_t count = 0;
    return ::read(descriptor, &count, sizeof(count)) == sizeof(count);
}

extern "C" void onTerminate(int)
{
    const int saved = errno;
    raiseEvent(stopEvent.load());
    errno = saved;
}

// systemd takes the end by any of these for a clean exit, and would not start the service again. Two of them
// stop it in good order; a terminal's hang-up is no reason to stop.
class Signals
{
public:
    Signals()
    {
        for (Handled &one : handled) {
            struct sigaction action
            {
            };
            action.sa_handler = one.handler;
            action.sa_flags = SA_RESTART;
            ::sigaction(one.number, &action, &one.before);
        }
    }

    void restore() const
    {
        for (const Handled &one : handled) {
            ::sigaction(one.number, &one.before, nullptr);
        }
    }

private:
    struct Handled
    {
        int number;
        void (*handler)(int);
        struct sigaction before;
    };

    std::array<Handled, 3> handled{
        {{SIGTERM, onTerminate, {}}, {SIGINT, onTerminate, {}}, {SIGHUP, SIG_IGN, {}}}};
};

// systemd lists there every directory that the unit and its drop-ins name, in an order of its own.
QByteArray ownRuntimeDirectory(const QString &serviceName)
{
    const QByteArrayList directories = qgetenv("RUNTIME_DIRECTORY").split(':');
    const QByteArray ending = '/' + unitName(serviceName).toLatin1();
    const auto own = std::find_if(directories.begin(), directories.end(),
                                  [&](const QByteArray &directory) { return directory.endsWith(ending); });
    return own != directories.end() ? *own : directories.first();
}

// systemd names the process it has started beside the socket; a child of some other service only inherits
// both.
bool isStartedBySystemd()
{
    const QByteArray pid = qgetenv("SYSTEMD_EXEC_PID");
    return !qgetenv("NOTIFY_SOCKET").isEmpty() && (pid.isEmpty() || pid.toInt() == ::getpid());
}

bool isPending(Scm::Dword state)
{
    return state == Scm::StateStartPending || state == Scm::StateStopPending;
}

// Whether the service takes this control now: 0 or the error.
Scm::Dword refusal(Scm::Dword control, const Scm::Status &status)
{
    if (control >= Scm::ControlUserFirst && control <= Scm::ControlUserLast) {
        return 0;
    }
    Scm::Dword needed = 0;
    switch (control) {
    case Scm::ControlStop:
        needed = Scm::AcceptStop;
        break;
    case Scm::ControlPause:
    case Scm::ControlContinue:
        needed = Scm::AcceptPauseContinue;
        break;
    case Scm::ControlInterrogate:
        return 0;
    default:
        return ErrorInvalidParameter;
    }
    if (!(status.controlsAccepted & needed)) {
        return Scm::ErrorServiceNotAcceptingControl;
    }
    return 0;
}

// A consistent copy of what the dispatcher decides by.
struct Snapshot
{
    Scm::ControlHandler handler;
    Scm::Status status;
    bool hasStatus;
    bool mainHasReturned;

    bool isReady() const { return handler && hasStatus && !isPending(status.currentState); }
    bool hasStopped() const { return hasStatus && status.currentState == Scm::StateStopped; }
};

Snapshot snapshot()
{
    Service &s = service();
    const std::lock_guard lock(s.mutex);
    return {s.handler, s.status, s.hasStatus, s.mainHasReturned};
}

ControlAnswer carryOut(Scm::Dword control)
{
    const Snapshot before = snapshot();
    ControlAnswer answer;
    answer.error = before.isReady() ? refusal(control, before.status) : ErrorCannotAcceptControl;
    if (answer.error == 0 && control != Scm::ControlStop) {
        before.handler(control);
    }
    const Scm::Status status = snapshot().status;
    answer.state = status.currentState;
    answer.controlsAccepted = status.controlsAccepted;
    answer.exitCode = status.win32ExitCode;
    return answer;
}

// Owns its copies: it may outlive the dispatcher when the main function hangs.
void runServiceMain(Scm::ServiceMain main, std::vector<std::u16string> parameters)
{
    std::vector<Scm::Char *> argv;
    argv.reserve(parameters.size() + 1);
    for (std::u16string &parameter : parameters) {
        argv.push_back(parameter.data());
    }
    argv.push_back(nullptr);
    main(static_cast<Scm::Dword>(parameters.size()), argv.data());

    Service &s = service();
    const std::lock_guard lock(s.mutex);
    s.mainHasReturned = true;
    raiseEvent(s.wake);
}

std::thread startServiceMain(const Scm::TableEntry &entry, const QByteArray &runtimeDirectory)
{
    // As on Windows the first parameter is the service's name.
    std::vector<std::u16string> parameters = {entry.name};
    const QStringList given = takeStartParameters(runtimeDirectory);
    for (const QString &parameter : given) {
        parameters.push_back(parameter.toStdU16String());
    }
    return std::thread(runServiceMain, entry.main, std::move(parameters));
}

// A service that can no longer be told to stop ends as any process does.
void endByDefault()
{
    (void)::signal(SIGTERM, SIG_DFL);
    (void)::raise(SIGTERM);
}

void dispatch(ControlSocket &socket)
{
    bool mustStop = false;
    for (;;) {
        std::vector<pollfd> descriptors = {{stopEvent.load(), POLLIN, 0}, {service().wake, POLLIN, 0}};
        socket.appendTo(descriptors);
        (void)::poll(descriptors.data(), descriptors.size(), socket.patience());
        (void)takeEvent(service().wake);
        mustStop = takeEvent(stopEvent.load()) || mustStop;

        const Snapshot now = snapshot();
        if (now.hasStopped()) {
            return;
        }
        if (mustStop && now.isReady()) {
            mustStop = false;
            now.handler(Scm::ControlStop);
        } else if (mustStop && now.mainHasReturned && !now.handler) {
            endByDefault();
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
    {
        const std::lock_guard lock(s.mutex);
        if (s.isDispatched) {
            return fail(Scm::ErrorServiceAlreadyRunning);
        }
        if (s.wake < 0) {
            s.wake = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
            stopEvent = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        }
        if (s.wake < 0 || stopEvent < 0) {
            return fail(Scm::ErrorFailedControllerConnect);
        }
        s.isDispatched = true;
        s.mainHasReturned = false;
        s.hasStatus = false;
        s.handler = nullptr;
        s.status = {};
    }
    const Signals handledSignals;
    const QByteArray runtimeDirectory = ownRuntimeDirectory(Scm::toString(table->name));
    ControlSocket socket(runtimeDirectory.isEmpty() ? QByteArray() : runtimeDirectory + ControlSocketName);
    std::thread main = startServiceMain(*table, runtimeDirectory);
    dispatch(socket);

    const std::unique_lock lock(s.mutex);
    s.isDispatched = false;
    if (s.mainHasReturned) {
        main.join();
        handledSignals.restore();
    } else {
        main.detach();
    }
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
    s.handler = handler;
    return &s;
}

Scm::Bool setServiceStatus(Scm::Handle statusHandle, Scm::Status *status)
{
    Service &s = service();
    if (statusHandle != &s || !status) {
        return fail(ErrorInvalidHandle);
    }
    const std::lock_guard lock(s.mutex);
    if (s.hasStatus && s.status.currentState == Scm::StateStopped) {
        return fail(ErrorInvalidHandle); // a stopped service has no more to report
    }
    s.status = *status;
    s.hasStatus = true;
    raiseEvent(s.wake);
    return ::sd_notify(0, notification(*status).constData()) > 0 ? 1 : fail(ErrorWriteFault);
}

} // namespace Linux
