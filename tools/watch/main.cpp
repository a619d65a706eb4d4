// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/commandline.h"
#include "tools/watch/watch.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    Console::introduce(u"quillmere-watch"_s, QUILLMERE_VERSION);

    const auto commandLine = WatchTool::parse(QCoreApplication::arguments().mid(1));
    if (const auto exitCode = Console::answer(commandLine)) {
        return *exitCode;
    }
    WatchTool::Watch watch(commandLine.settings);
    Console::onInterrupt([&watch] { watch.interrupt(); });
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&watch] { watch.start(); }, Qt::QueuedConnection);
    return QCoreApplication::exec();
}
