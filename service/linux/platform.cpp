// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

#include "service/linux/dispatcher.h"
#include "service/linux/errors.h"
#include "service/linux/eventlog.h"
#include "service/linux/services.h"

#include <QFile>
#include <QStandardPaths>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

void provide(Scm::Functions &functions)
{
    // Without the last two: nothing here asks for a service's configuration.
    functions = {Linux::registerServiceCtrlHandler,
                 Linux::setServiceStatus,
                 Linux::changeServiceConfig2,
                 Linux::closeServiceHandle,
                 Linux::createService,
                 Linux::openScManager,
                 Linux::deleteService,
                 Linux::openService,
                 Linux::queryServiceStatus,
                 Linux::startServiceCtrlDispatcher,
                 Linux::startService,
                 Linux::controlService,
                 Linux::deregisterEventSource,
                 Linux::reportEvent,
                 Linux::registerEventSource,
                 nullptr, // the two queries of the configuration: nobody asks
                 nullptr};
}

QString executablePath()
{
    return QFile::symLinkTarget(u"/proc/self/exe"_s);
}

// Qt's turn of the loop serves each socket once here.
void endEventLoopTurn()
{
}

int freeDescriptors(int most)
{
    std::vector<int> taken;
    while (static_cast<int>(taken.size()) < most) {
        const int descriptor = ::eventfd(0, EFD_CLOEXEC); // takes nothing else
        if (descriptor < 0) {
            break;
        }
        taken.push_back(descriptor);
    }
    std::ranges::for_each(taken, ::close);
    return static_cast<int>(taken.size());
}

std::optional<QString> commonDataFolder()
{
    const QString named = qEnvironmentVariable("QUILLMERE_APPDATA");
    if (!named.isEmpty()) {
        return named;
    }
    if (::geteuid() == 0) {
        return u"/var/lib"_s;
    }
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

// The journal keeps whole texts.
void registerMessageFile(const QString &, const QString &)
{
}
void removeMessageFile(const QString &)
{
}

} // namespace

constinit Platform platform{
    .provide = provide,
    .lastError = Linux::lastError,
    .errorText = Linux::errorText,
    .registerMessageFile = registerMessageFile,
    .removeMessageFile = removeMessageFile,
    .executablePath = executablePath,
    .commonDataFolder = commonDataFolder,
    .folderSeparator = u'/',
    .canDeleteOpenFiles = true,
    .freeDescriptors = freeDescriptors,
    .endEventLoopTurn = endEventLoopTurn,
};
