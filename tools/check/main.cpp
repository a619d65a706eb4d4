// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/check.h"
#include "tools/check/commandline.h"
#include "tools/console.h"

#include <QCoreApplication>

using namespace Qt::StringLiterals;

int main(int argc, char *argv[])
{
    const QCoreApplication application(argc, argv);
    Console::introduce(u"quillmere-check"_s, QUILLMERE_VERSION);
    // To whoever watches, not to have been told is not to know.
    Console::setExitWithoutOutput(static_cast<int>(CheckTool::State::Unknown));

    const auto commandLine = CheckTool::parse(QCoreApplication::arguments().mid(1));
    if (const auto exitCode = Console::answer(commandLine, static_cast<int>(CheckTool::State::Unknown))) {
        return *exitCode;
    }
    const CheckTool::Report report = CheckTool::check(commandLine.settings);
    if (commandLine.settings.asJson) {
        Console::writeJson(report.json());
    } else {
        Console::writeLine(report.text());
    }
    return static_cast<int>(report.state());
}
