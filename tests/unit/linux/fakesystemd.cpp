// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/unit/linux/fakesystemd.h"

#include "service/linux/systemctl.h"

#include <QDir>
#include <QFile>

using namespace Qt::StringLiterals;

namespace {

// Answers with "answer"; a file "next" takes its place after that.
constexpr auto Script = R"sh(#!/bin/sh
cd "$(dirname "$0")" || exit 1
if [ "$1" = show ]; then
    cat answer
    if [ -e next ]; then mv next answer; fi
else
    echo "$*" >> calls
fi
if [ -e "exit-$1" ]; then exit "$(cat "exit-$1")"; fi
)sh";

} // namespace

FakeSystemd::FakeSystemd()
{
    for (const QString &path : {unitFolder(), vendorFolder(), runtimeFolder()}) {
        QDir().mkpath(path);
    }
    const QString script = folder.filePath(u"systemctl"_s);
    writeFile(script, Script);
    QFile::setPermissions(script, QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ExeOwner);
    Linux::Places &places = Linux::places();
    places.unitFolders = {QFile::encodeName(unitFolder()), QFile::encodeName(vendorFolder())};
    places.runtimeFolder = QFile::encodeName(runtimeFolder());
    places.systemctl = QFile::encodeName(script);
    shows(Shown::Absent);
}

FakeSystemd::~FakeSystemd()
{
    Linux::places() = {};
}

void FakeSystemd::shows(const QByteArray &properties)
{
    writeFile(folder.filePath(u"answer"_s), properties);
}

void FakeSystemd::thenShows(const QByteArray &properties)
{
    writeFile(folder.filePath(u"next"_s), properties);
}

void FakeSystemd::setExitCode(const QByteArray &verb, int code)
{
    writeFile(folder.filePath(u"exit-"_s + QString::fromLatin1(verb)), QByteArray::number(code));
}

QByteArrayList FakeSystemd::calls() const
{
    QByteArrayList lines = readFile(folder.filePath(u"calls"_s)).split('\n');
    lines.removeLast();
    return lines;
}

void FakeSystemd::writeFile(const QString &path, const QByteArray &content) const
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

QByteArray FakeSystemd::readFile(const QString &path) const
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
