// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/commandline.h"
#include "tools/radio/fleet.h"
#include "tools/radio/radio.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

namespace {

template<class Runner>
int run(const RadioTool::Settings &settings)
{
    Runner runner(settings);
    Console::onInterrupt([&runner] { runner.interrupt(); });
    QMetaObject::invokeMethod(
        QCoreApplication::instance(), [&runner] { runner.start(); }, Qt::QueuedConnection);
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    Console::introduce(u"quillmere-radio"_s, QUILLMERE_VERSION);

    const auto commandLine = RadioTool::parse(QCoreApplication::arguments().mid(1));
    if (const auto exitCode = Console::answer(commandLine)) {
        return *exitCode;
    }
    if (commandLine.settings.command == RadioTool::Command::Fleet) {
        return run<RadioTool::Fleet>(commandLine.settings);
    }
    return run<RadioTool::Radio>(commandLine.settings);
}
