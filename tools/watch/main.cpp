// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/commandline.h"
#include "tools/watch/watch.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(u"quillmere-watch"_s);
    QCoreApplication::setApplicationVersion(QString::fromLatin1(QUILLMERE_VERSION));

    const auto commandLine = WatchTool::CommandLine::parse(QCoreApplication::arguments().mid(1));
    switch (commandLine.kind) {
    case WatchTool::CommandLine::Kind::Print:
        Console::writeLine(commandLine.text);
        return Console::ExitSuccess;
    case WatchTool::CommandLine::Kind::Error:
        Console::writeError(commandLine.text);
        Console::writeError(u"try --help"_s);
        return Console::ExitUsage;
    case WatchTool::CommandLine::Kind::Run:
        break;
    }
    WatchTool::Watch watch(commandLine.settings);
    Console::onInterrupt([&watch] { watch.interrupt(); });
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&watch] { watch.start(); }, Qt::QueuedConnection);
    return QCoreApplication::exec();
}
