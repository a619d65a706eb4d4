// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"

#include "service/linux/eventlog.h"

#include <QFile>
#include <QStandardPaths>
#include <QThread>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace Platform {

namespace {

Scm::Handle openScManager(const Scm::Char *, const Scm::Char *, Scm::Dword)
{
    static int localManager = 0;
    return &localManager;
}

} // namespace

void provide(Scm::Functions &functions)
{
    functions.openScManager = openScManager;
    functions.deregisterEventSource = Linux::deregisterEventSource;
    functions.reportEvent = Linux::reportEvent;
    functions.registerEventSource = Linux::registerEventSource;
}

Scm::Dword lastError()
{
    return 0;
}

QString errorText(Scm::Dword code)
{
    return QString::number(code);
}

QString executablePath()
{
    return QFile::symLinkTarget(u"/proc/self/exe"_s);
}

void sleepMilliseconds(unsigned milliseconds)
{
    QThread::msleep(milliseconds);
}

QString commonDataFolder()
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

QChar folderSeparator()
{
    return u'/';
}

} // namespace Platform
