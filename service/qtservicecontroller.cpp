// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtservicecontroller.h"

#include "service/errorwarning.h"
#include "service/platform.h"
#include "service/qtservicebase.h"

#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

constexpr Scm::Dword NoAccess = 0;
constexpr unsigned PollPeriod = 200; // ms
constexpr int PollLimit = 10;
constexpr int LastCommand = 127;

class OpenHandle
{
public:
    explicit OpenHandle(Scm::Handle opened) : handle(opened) {}
    ~OpenHandle()
    {
        if (handle) {
            platform.scm.closeServiceHandle(handle);
        }
    }
    Q_DISABLE_COPY_MOVE(OpenHandle)

    explicit operator bool() const { return handle != nullptr; }
    Scm::Handle get() const { return handle; }

private:
    Scm::Handle handle;
};

Scm::Handle openManager(Scm::Dword access)
{
    return platform.scmAvailable() ? platform.scm.openScManager(nullptr, nullptr, access) : nullptr;
}

// The service of a name, opened through the manager; both are closed with the object, the service first.
class OpenService
{
public:
    OpenService(const QString &name, Scm::Dword managerAccess, Scm::Dword access)
        : manager(openManager(managerAccess)),
          service(manager ? platform.scm.openService(manager.get(), Scm::text(name), access) : nullptr)
    {
    }

    explicit operator bool() const { return bool(service); }
    Scm::Handle get() const { return service.get(); }

    bool control(Scm::Dword code) const
    {
        Scm::Status status{};
        return platform.scm.controlService(get(), code, &status) != 0;
    }

private:
    OpenHandle manager;
    OpenHandle service;
};

// The account as the service manager is told it; null: LocalSystem.
QString accountToRunUnder(const QString &account)
{
    if (account.isEmpty()) {
        return {};
    }
    const QString qualified = account.contains(u'\\') ? account : u".\\"_s + account;
    return qualified.endsWith(R"(\LocalSystem)"_L1) ? QString() : qualified;
}

Scm::Dword startType()
{
    const QtServiceBase *service = QtServiceBase::instance();
    const bool automatic = service && service->startupType() == QtServiceBase::AutoStartup;
    return automatic ? Scm::AutoStart : Scm::DemandStart;
}

void describe(Scm::Handle service)
{
    const QtServiceBase *object = QtServiceBase::instance();
    if (!object || object->serviceDescription().isEmpty()) {
        return;
    }
    std::u16string text = object->serviceDescription().toStdU16String();
    Scm::Description description{text.data()};
    platform.scm.changeServiceConfig2(service, Scm::ConfigDescription, &description);
}

} // namespace

QtServiceController::QtServiceController(QString serviceName) : name(std::move(serviceName))
{
}

bool QtServiceController::isInstalled() const
{
    return bool(OpenService(name, NoAccess, Scm::ServiceQueryConfig));
}

bool QtServiceController::isRunning() const
{
    const OpenService service(name, NoAccess, Scm::ServiceQueryStatus);
    Scm::Status status{};
    return service && platform.scm.queryServiceStatus(service.get(), &status) &&
           status.currentState != Scm::StateStopped;
}

bool QtServiceController::install(const QString &account, const QString &password) const
{
    const OpenHandle manager(openManager(Scm::ManagerAllAccess));
    if (!manager) {
        return false;
    }
    const QString runAs = accountToRunUnder(account);
    const bool withAccount = !runAs.isEmpty();
    const bool withPassword = withAccount && !password.isEmpty();
    const Scm::Dword type =
        withAccount ? Scm::Dword(Scm::OwnProcess) : Scm::Dword(Scm::OwnProcess) | Scm::InteractiveProcess;
    // Deliberately not quoted: the path is registered as the system gives it.
    const QString path = serviceFilePath();
    const OpenHandle service(platform.scm.createService(
        manager.get(), Scm::text(name), Scm::text(name), Scm::ServiceAllAccess, type, startType(),
        Scm::ErrorControlNormal, Scm::text(path), nullptr, nullptr, nullptr,
        withAccount ? Scm::text(runAs) : nullptr, withPassword ? Scm::text(password) : nullptr));
    if (!service) {
        return false;
    }
    describe(service.get());
    platform.registerMessageFile(name, path);
    return true;
}

bool QtServiceController::uninstall() const
{
    const OpenService service(name, Scm::ManagerAllAccess, Scm::Delete);
    if (!service || !platform.scm.deleteService(service.get())) {
        return false;
    }
    platform.removeMessageFile(name);
    return true;
}

bool QtServiceController::start(const QStringList &arguments) const
{
    const OpenService service(name, Scm::ManagerConnect, Scm::ServiceStart);
    if (!service) {
        return false;
    }
    std::vector<const Scm::Char *> texts;
    texts.reserve(static_cast<size_t>(arguments.size()));
    for (const QString &argument : arguments) {
        texts.push_back(Scm::text(argument));
    }
    return platform.scm.startService(service.get(), static_cast<Scm::Dword>(texts.size()), texts.data());
}

bool QtServiceController::stop() const
{
    const OpenService service(name, Scm::ManagerConnect,
                              Scm::Dword(Scm::ServiceStop) | Scm::ServiceQueryStatus);
    if (!service) {
        return false;
    }
    Scm::Status status{};
    if (!platform.scm.controlService(service.get(), Scm::ControlStop, &status)) {
        warnWithLastError("stopping");
        return false;
    }
    for (int poll = 0; status.currentState != Scm::StateStopped && poll < PollLimit; ++poll) {
        platform.sleep(PollPeriod);
        Scm::Status latest{};
        if (!platform.scm.queryServiceStatus(service.get(), &latest)) {
            break;
        }
        status = latest;
    }
    return status.currentState == Scm::StateStopped;
}

bool QtServiceController::pause() const
{
    const OpenService service(name, Scm::ManagerConnect, Scm::ServicePauseContinue);
    return service && service.control(Scm::ControlPause);
}

bool QtServiceController::resume() const
{
    const OpenService service(name, Scm::ManagerConnect, Scm::ServicePauseContinue);
    return service && service.control(Scm::ControlContinue);
}

bool QtServiceController::sendCommand(int code) const
{
    if (code < 0 || code > LastCommand || !isRunning()) {
        return false;
    }
    const OpenService service(name, Scm::ManagerConnect, Scm::ServiceUserDefinedControl);
    return service && service.control(Scm::ControlUserFirst + static_cast<Scm::Dword>(code));
}

QString QtServiceController::serviceFilePath()
{
    return platform.executablePath();
}
