// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/checkfixture.h"

#include <QCoreApplication>
#include <QProcess>
#include <QTest>

using namespace Qt::StringLiterals;

void CheckFixture::begin()
{
    server = std::make_unique<TestServer>();
    server->startWithoutDiscovery();
}

void CheckFixture::run(const QStringList &arguments)
{
    QProcess tool;
    tool.start(QCoreApplication::applicationDirPath() + u"/quillmere-check"_s, arguments);
    const bool ended = QTest::qWaitFor([&tool] { return tool.state() == QProcess::NotRunning; }, 60'000);
    const bool hasRun = ended && tool.error() != QProcess::FailedToStart;
    exitCode = hasRun && tool.exitStatus() == QProcess::NormalExit ? tool.exitCode() : -1;
    lines = QString::fromUtf8(tool.readAllStandardOutput()).remove(u'\r').trimmed().split(u'\n');
    errors = QString::fromUtf8(tool.readAllStandardError()).remove(u'\r');
}

void CheckFixture::check(const QStringList &more)
{
    run(QStringList{u"--folder"_s, server->folder.path()} + more);
}

QString CheckFixture::of(const QString &subject) const
{
    for (const QString &line : lines.mid(1)) {
        if (line.section(u' ', 1).trimmed().startsWith(subject + u':')) {
            return line;
        }
    }
    return {};
}
