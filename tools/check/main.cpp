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
    QCoreApplication::setApplicationName(u"quillmere-check"_s);
    QCoreApplication::setApplicationVersion(QString::fromLatin1(QUILLMERE_VERSION));
    // To whoever watches, not to have been told is not to know.
    Console::setExitWithoutOutput(static_cast<int>(CheckTool::State::Unknown));

    const auto commandLine = CheckTool::CommandLine::parse(QCoreApplication::arguments().mid(1));
    switch (commandLine.kind) {
    case CheckTool::CommandLine::Kind::Print:
        Console::writeLine(commandLine.text);
        return Console::ExitSuccess;
    case CheckTool::CommandLine::Kind::Error:
        Console::writeError(commandLine.text);
        Console::writeError(u"try --help"_s);
        return static_cast<int>(CheckTool::State::Unknown);
    case CheckTool::CommandLine::Kind::Run:
        break;
    }
    const CheckTool::Report report = CheckTool::check(commandLine.settings);
    if (commandLine.settings.asJson) {
        Console::writeJson(report.json());
    } else {
        Console::writeLine(report.text());
    }
    return static_cast<int>(report.state());
}
