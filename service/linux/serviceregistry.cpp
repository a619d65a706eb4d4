// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/serviceregistry.h"

#include "service/linux/account.h"
#include "service/linux/errors.h"
#include "service/linux/servicehandle.h"
#include "service/linux/systemctl.h"
#include "service/linux/text.h"
#include "service/linux/unitfile.h"
#include "service/linux/unitstate.h"

#include <QFile>
#include <QFileInfo>
#include <QSaveFile>

#include <cstring>

using namespace Qt::StringLiterals;

namespace Linux {

namespace {

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

QByteArray unitContent(const QString &unit)
{
    QFile file(unitFile(unit));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A file that is not there or is not ours has nothing to lose; one that is there is replaced as a whole.
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

bool reload()
{
    return systemctlDoes({"daemon-reload"});
}

// Deleted while it ran: systemd keeps such a unit until it has stopped.
bool isMarkedForDelete(const QString &unit)
{
    UnitState state;
    return unitFile(unit).isEmpty() && queryUnit(unit, state) && state.state != Scm::StateStopped;
}

bool isFolderName(const QString &name)
{
    return !name.isEmpty() && !name.contains(u'/') && name != u"." && name != u"..";
}

// Copies texts behind a structure in the caller's buffer, as the query functions hand them out.
class TextSpace
{
public:
    TextSpace(void *buffer, size_t structureSize) : next(static_cast<char *>(buffer) + structureSize) {}

    Scm::Char *put(const QString &text)
    {
        auto *const start = reinterpret_cast<Scm::Char *>(next);
        const size_t bytes = size(text);
        std::memcpy(next, text.utf16(), bytes);
        next += bytes;
        return start;
    }

    static size_t size(const QString &text)
    {
        return (static_cast<size_t>(text.size()) + 1) * sizeof(Scm::Char);
    }

private:
    char *next;
};

// Whether the answer fits; tells the caller what it needs in any case.
bool fits(size_t bytes, const void *buffer, Scm::Dword size, Scm::Dword *needed)
{
    if (needed) {
        *needed = static_cast<Scm::Dword>(bytes);
    }
    if (!buffer || size < bytes) {
        fail(ErrorInsufficientBuffer);
        return false;
    }
    return true;
}

} // namespace

Scm::Handle createService(Scm::Handle, const Scm::Char *name, const Scm::Char *displayName, Scm::Dword,
                          Scm::Dword type, Scm::Dword startType, Scm::Dword, const Scm::Char *binaryPath,
                          const Scm::Char *, Scm::Dword *, const Scm::Char *, const Scm::Char *account,
                          const Scm::Char *)
{
    UnitSettings settings;
    settings.name = toString(name);
    settings.displayName = displayName ? toString(displayName) : settings.name;
    settings.description = settings.displayName;
    settings.binaryPath = toString(binaryPath);
    settings.serviceType = type;
    const QString unit = unitName(settings.name);
    if (unit.isEmpty() || !isFolderName(settings.displayName) || !settings.binaryPath.startsWith(u'/')) {
        fail(ErrorInvalidName);
        return nullptr;
    }
    if (!unitFile(unit).isEmpty()) {
        fail(Scm::ErrorServiceExists);
        return nullptr;
    }
    if (isMarkedForDelete(unit)) {
        fail(ErrorMarkedForDelete);
        return nullptr;
    }
    if (account) {
        const std::optional<QString> user = unitUser(toString(account));
        if (!user) {
            fail(ErrorInvalidServiceAccount);
            return nullptr;
        }
        settings.account = *user;
    }
    if (!writeUnit(unit, unitText(settings))) {
        return nullptr;
    }
    const bool enabled = reload() && (startType != Scm::AutoStart ||
                                      systemctlDoes({"enable", "--", unit.toLatin1() + ".service"}));
    if (!enabled) {
        QFile::remove(ownUnitFile(unit));
        return nullptr;
    }
    return new ServiceHandle{unit};
}

Scm::Handle openService(Scm::Handle, const Scm::Char *name, Scm::Dword)
{
    const QString unit = unitName(toString(name));
    if (unit.isEmpty() || (unitFile(unit).isEmpty() && !isMarkedForDelete(unit))) {
        fail(Scm::ErrorServiceDoesNotExist);
        return nullptr;
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
    if (file != ownUnitFile(service->unit)) {
        return fail(Scm::ErrorAccessDenied);
    }
    if (!systemctlDoes({"disable", "--", service->unit.toLatin1() + ".service"})) {
        return 0;
    }
    if (!QFile::remove(file)) {
        return fail(Scm::ErrorAccessDenied);
    }
    // The service is gone from the next start of systemd on in any case.
    (void)reload();
    (void)systemctl({"reset-failed", "--", service->unit.toLatin1() + ".service"});
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
    if (unitFile(service->unit) != ownUnitFile(service->unit)) {
        return fail(Scm::ErrorAccessDenied);
    }
    const QString description = toString(static_cast<Scm::Description *>(info)->text);
    return writeUnit(service->unit, withDescription(unitContent(service->unit), description)) && reload() ? 1
                                                                                                          : 0;
}

Scm::Bool queryServiceConfig(Scm::Handle handle, void *config, Scm::Dword size, Scm::Dword *needed)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    const UnitSettings settings = unitSettings(unitContent(service->unit));
    const QString account = settings.account.isEmpty() ? u"LocalSystem"_s : u".\\"_s + settings.account;
    const QString empty;
    const size_t bytes = sizeof(ServiceConfig) + TextSpace::size(settings.binaryPath) +
                         2 * TextSpace::size(empty) + TextSpace::size(account) +
                         TextSpace::size(settings.displayName);
    if (!fits(bytes, config, size, needed)) {
        return 0;
    }
    const bool enabled =
        systemctl({"is-enabled", "--quiet", "--", service->unit.toLatin1() + ".service"}).exitCode == 0;
    TextSpace texts(config, sizeof(ServiceConfig));
    ServiceConfig answer{};
    answer.serviceType = settings.serviceType;
    answer.startType = enabled ? Scm::AutoStart : Scm::DemandStart;
    answer.errorControl = Scm::ErrorControlNormal;
    answer.binaryPath = texts.put(settings.binaryPath);
    answer.loadOrderGroup = texts.put(empty);
    answer.dependencies = texts.put(empty);
    answer.account = texts.put(account);
    answer.displayName = texts.put(settings.displayName);
    std::memcpy(config, &answer, sizeof(answer));
    return 1;
}

Scm::Bool queryServiceConfig2(Scm::Handle handle, Scm::Dword infoLevel, quint8 *buffer, Scm::Dword size,
                              Scm::Dword *needed)
{
    const ServiceHandle *service = serviceOf(handle);
    if (!service) {
        return 0;
    }
    if (infoLevel != Scm::ConfigDescription) {
        return fail(ErrorInvalidLevel);
    }
    const QString text = unitSettings(unitContent(service->unit)).description;
    if (!fits(sizeof(Scm::Description) + TextSpace::size(text), buffer, size, needed)) {
        return 0;
    }
    Scm::Description answer{TextSpace(buffer, sizeof(Scm::Description)).put(text)};
    std::memcpy(buffer, &answer, sizeof(answer));
    return 1;
}

} // namespace Linux
