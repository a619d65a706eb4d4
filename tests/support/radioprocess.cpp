// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radioprocess.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QTest>

using namespace Qt::StringLiterals;

RadioProcess::RadioProcess(const QString &line) : RadioProcess(QStringList(), line)
{
}

RadioProcess::RadioProcess(const QStringList &program, const QString &line)
{
    const QStringList command = program +
                                QStringList(QCoreApplication::applicationDirPath() + u"/quillmere-radio"_s) +
                                line.split(u' ', Qt::SkipEmptyParts);
    process.start(command.first(), command.mid(1));
}

RadioProcess::~RadioProcess()
{
    process.kill();
    process.waitForFinished();
}

int RadioProcess::exitCode()
{
    const bool ended = QTest::qWaitFor([this] { return process.state() == QProcess::NotRunning; }, 30'000);
    if (process.error() == QProcess::FailedToStart) {
        qWarning("not started: %s", qPrintable(process.errorString()));
        return -1; // and not the 0 of a process that has not been
    }
    return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

QString RadioProcess::output()
{
    text += process.readAllStandardOutput();
    return QString::fromUtf8(text).remove(u'\r');
}

QString RadioProcess::errors()
{
    return QString::fromUtf8(process.readAllStandardError()).remove(u'\r');
}

QList<QJsonObject> RadioProcess::objects()
{
    QList<QJsonObject> list;
    for (const QString &line : output().split(u'\n', Qt::SkipEmptyParts)) {
        const QJsonDocument document = QJsonDocument::fromJson(line.toUtf8());
        if (!document.isObject()) {
            qWarning("not an object: %s", qPrintable(line));
        }
        list.append(document.object());
    }
    return list;
}

QString serverOption(quint16 port)
{
    return u" --server 127.0.0.1:%1"_s.arg(port);
}
