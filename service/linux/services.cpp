// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/services.h"

#include "service/linux/controlsocket.h"
#include "service/linux/errors.h"
#include "service/linux/startparameters.h"
#include "service/linux/systemd.h"
#include "service/linux/unitfile.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QThread>

#include <unistd.h>

#include <memory>
#include <utility>

using namespace Qt::StringLiterals;

namespace Linux {

namespace {

constexpr unsigned PollMilliseconds = 50;

// The handle's service; null, and the last error set, when it is none.
const ServiceHandle *serviceOf(Scm::Handle handle)
{
    const auto *service = static_cast<const ServiceHandle *>(handle);
    if (!service || service->unit.isEmpty()) {
        fail(ErrorInvalidHandle);
        return nullptr;
    }
    return service;
}

Scm::Handle noHandle(Scm::Dword error)
{
    fail(error);
    return nullptr;
}

QString ownUnitFile(const QString &unit)
{
    return QFile::decodeName(places().unitFolders.first()) + u'/' + unit + u".service";
}

// Where the unit's file lies; empty when there is none. A link counts even when it leads nowhere (a masked
// unit).
QString unitFile(const QString &unit)
{
    for (const QByteArray &folder : places().unitFolders) {
        const QFileInfo file(QFile::decodeName(folder) + u'/' + unit + u".service");
        if (file.exists() || file.isSymLink()) {
            return file.filePath();
        }
    }
    return {};
}

// The link that starts the unit with the machine.
QString linkAtBoot(const QString &unit)
{
    return QFile::decodeName(places().unitFolders.first()) + u"/multi-user.target.wants/" + unit +
           u".service";
}

// Whether systemd runs here at all: not in a rescue system, nor while another one's disk is worked on.
bool isBooted()
{
    const QByteArray mark = places().runtimeFolder + "/systemd/system";
    return ::access(mark.constData(), F_OK) == 0;
}

// A link in our folder is an administrator's: a mask, or a unit that lies elsewhere.
bool isOurs(const QString &file, const QString &unit)
{
    return file == ownUnitFile(unit) && !QFileInfo(file).isSymLink();
}

// Replaces the file as a whole, so that a failed write leaves the old one.
bool writeUnit(const QString &unit, const QByteArray &content)
{
    QSaveFile file(ownUnitFile(unit));
    if (!file.open(QIODevice::WriteOnly)) {
        fail(Scm::ErrorAccessDenied);
        return false;
    }
    file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup |
                        QFileDevice::ReadOther);
    // What is only in Qt's buffer when the file is committed may fail there unseen.
    if (file.write(content) != content.size() || !file.flush() || !file.commit()) {
        fail(ErrorWriteFault);
        return false;
    }
    return true;
}

// Deleted while it ran: systemd keeps such a unit until it has stopped.
bool isMarkedForDelete(const QString &unit)
{
    UnitState state;
    return unitFile(unit).isEmpty() && Systemd(unit).query(state) && state.state != Scm::StateStopped;
}

bool isFolderName(const QString &name)
{
    return !name.isEmpty() && !name.contains(u'/') && name != u"." && name != u"..";
}

bool query(Systemd &systemd, UnitState &state)
{
    if (!systemd.query(state)) {
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

// state: what the unit was last seen in.
bool waitForBeginning(std::unique_ptr<Systemd> systemd, const QString &unit,
                      const QByteArray &invocationBefore, UnitState &state)
{
    const QDeadlineTimer deadline(places().timeoutMilliseconds);
    do {
        if (!systemd->query(state)) {
            // One that was started anew has closed the connection.
            systemd.reset();
            systemd = std::make_unique<Systemd>(unit);
        } else {
            const Beginning now = beginning(state, invocationBefore);
            if (now == Beginning::Begun) {
                return true;
            }
            if (now == Beginning::Failed) {
                // A start that failed leaves the service stopped; only one that ran is started again.
                (void)systemd->stop();
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

Scm::Bool stop(Systemd &systemd, Scm::Status *status)
{
    UnitState state;
    if (!systemd.stop()) {
        return 0;
    }
    // systemd has taken it, whether or not it can still be asked; it may not have begun yet.
    const bool hasStopped = systemd.query(state) && state.state == Scm::StateStopped;
    *status = statusOf(state);
    status->currentState = hasStopped ? Scm::StateStopped : Scm::StateStopPending;
    return 1;
}

} // namespace

Scm::Handle openScManager(const Scm::Char *, const Scm::Char *, Scm::Dword access)
{
    // As on Windows: anybody may look and ask, changing what is installed is the administrator's.
    if (access == Scm::ManagerAllAccess && ::geteuid() != 0) {
        return noHandle(Scm::ErrorAccessDenied);
    }
    return new ServiceHandle;
}

Scm::Bool closeServiceHandle(Scm::Handle handle)
{
    if (!handle) {
        return fail(ErrorInvalidHandle);
    }
    delete static_cast<ServiceHandle *>(handle);
    return 1;
}

Scm::Handle createService(Scm::Handle, const Scm::Char *name, const Scm::Char *displayName, Scm::Dword,
                          Scm::Dword, Scm::Dword startType, Scm::Dword, const Scm::Char *binaryPath,
                          const Scm::Char *, Scm::Dword *, const Scm::Char *, const Scm::Char *account,
                          const Scm::Char *)
{
    UnitSettings settings;
    settings.name = Scm::toString(name);
    settings.displayName = displayName ? Scm::toString(displayName) : settings.name;
    settings.description = settings.displayName;
    settings.binaryPath = Scm::toString(binaryPath);
    const QString unit = unitName(settings.name);
    if (unit.isEmpty() || !isFolderName(settings.displayName) || !canBeStarted(settings.binaryPath)) {
        return noHandle(ErrorInvalidName);
    }
    if (!unitFile(unit).isEmpty()) {
        return noHandle(Scm::ErrorServiceExists);
    }
    if (isMarkedForDelete(unit)) {
        return noHandle(ErrorMarkedForDelete);
    }
    if (account) {
        const std::optional<QString> user = unitUser(Scm::toString(account));
        if (!user) {
            return noHandle(ErrorInvalidServiceAccount);
        }
        settings.account = *user;
    }
    if (!writeUnit(unit, unitText(settings))) {
        return nullptr;
    }
    Systemd systemd(unit);
    if (!systemd.reload() || (startType == Scm::AutoStart && !systemd.enable())) {
        QFile::remove(ownUnitFile(unit));
        return nullptr;
    }
    return new ServiceHandle{unit};
}

Scm::Handle openService(Scm::Handle, const Scm::Char *name, Scm::Dword)
{
    const QString unit = unitName(Scm::toString(name));
    if (unit.isEmpty() || (unitFile(unit).isEmpty() && !isMarkedForDelete(unit))) {
        return noHandle(Scm::ErrorServiceDoesNotExist);
    }
    return new ServiceHandle{unit};
}

Scm::Bool deleteService(Scm::Handle handle)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    const QString file = unitFile(service->unit);
    if (file.isEmpty()) {
        return fail(ErrorMarkedForDelete);
    }
    if (!isOurs(file, service->unit)) {
        return fail(Scm::ErrorAccessDenied);
    }
    Systemd systemd(service->unit);
    if (systemd.isReached()) {
        if (!systemd.disable()) {
            return 0;
        }
    } else if (isBooted()) {
        return fail(ErrorManagerUnavailable);
    } else {
        QFile::remove(linkAtBoot(service->unit));
    }
    if (!QFile::remove(file)) {
        return fail(Scm::ErrorAccessDenied);
    }
    // The service is gone from the next start of systemd on in any case.
    (void)systemd.reload();
    (void)systemd.forgetFailure();
    return 1;
}

Scm::Bool changeServiceConfig2(Scm::Handle handle, Scm::Dword infoLevel, void *info)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    if (infoLevel != Scm::ConfigDescription || !info) {
        return fail(infoLevel == Scm::ConfigDescription ? ErrorInvalidParameter : ErrorInvalidLevel);
    }
    QFile file(unitFile(service->unit));
    const bool isReadable = isOurs(file.fileName(), service->unit) && file.open(QIODevice::ReadOnly);
    const QByteArray text = isReadable ? file.readAll() : QByteArray();
    if (text.isEmpty()) { // or its reading has failed
        return fail(Scm::ErrorAccessDenied);
    }
    const QString description = Scm::toString(static_cast<Scm::Description *>(info)->text);
    return writeUnit(service->unit, withDescription(text, description)) && Systemd(service->unit).reload()
               ? 1
               : 0;
}

Scm::Bool queryServiceStatus(Scm::Handle handle, Scm::Status *status)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    Systemd systemd(service->unit);
    UnitState state;
    if (!systemd.isReached() && ::access(runtimeDirectory(service->unit).constData(), F_OK) == 0) {
        // Who cannot ask sees the folder that systemd makes as it starts the service, and removes at its end.
        state.state = Scm::StateRunning;
    } else if (!systemd.query(state)) {
        return 0;
    }
    // The handle outlives its service: one that was deleted while it ran is gone when it has stopped.
    *status = statusOf(state);
    return 1;
}

Scm::Bool startService(Scm::Handle handle, Scm::Dword argc, const Scm::Char **argv)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    auto systemd = std::make_unique<Systemd>(service->unit);
    UnitState before;
    if (!query(*systemd, before)) {
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
        parameters.append(Scm::toString(argv[i]));
    }
    const QByteArray directory = runtimeDirectory(service->unit);
    if (!parameters.isEmpty() && !storeStartParameters(directory, parameters)) {
        ::rmdir(directory.constData()); // if it is empty: then nobody else's
        return 0;
    }
    UnitState last = before;
    if (systemd->start() && waitForBeginning(std::move(systemd), service->unit, before.invocation, last)) {
        return 1;
    }
    const Scm::Dword error = lastError();
    if (!parameters.isEmpty()) {
        (void)takeStartParameters(directory); // so that no later start finds them
        // The folder of a unit that has a process is the service's own.
        if (last.state == Scm::StateStopped) {
            ::rmdir(directory.constData());
        }
    }
    return fail(error);
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
    Systemd systemd(service->unit);
    UnitState state;
    if (!query(systemd, state)) {
        return 0;
    }
    if (state.state == Scm::StateStopped) {
        return fail(Scm::ErrorServiceNotActive);
    }
    if (control == Scm::ControlStop) {
        return stop(systemd, status);
    }
    const ControlAnswer answer = sendControl(runtimeDirectory(service->unit) + ControlSocketName, control);
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
