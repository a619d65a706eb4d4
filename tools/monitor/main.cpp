// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/commandline.h"
#include "tools/monitor/monitor.h"

#include <QCoreApplication>
#include <QFile>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    Console::introduce(u"quillmere-monitor"_s, QUILLMERE_VERSION);

    const auto commandLine = Monitor::parse(QCoreApplication::arguments().mid(1));
    if (const auto exitCode = Console::answer(commandLine)) {
        return *exitCode;
    }
    const Monitor::Settings &settings = commandLine.settings;
    QList<QByteArray> logins;
    if (!settings.loginFile.isEmpty()) {
        QFile file(settings.loginFile);
        if (!file.open(QIODevice::ReadOnly)) {
            Console::writeError(settings.loginFile + u": " + file.errorString());
            return Console::ExitError;
        }
        const auto parsed = Monitor::Access::parseLogins(file.readAll(), settings.loginFile);
        if (!parsed) {
            Console::writeError(parsed.error);
            return Console::ExitError;
        }
        logins = *parsed;
    }
    Monitor::Monitor monitor(settings, Monitor::Access(settings.networks, logins));
    if (!monitor.start()) {
        return Console::ExitError;
    }
    Console::onInterrupt([] { QCoreApplication::exit(Console::ExitSuccess); });
    return QCoreApplication::exec();
}
