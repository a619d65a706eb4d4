// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QTemporaryDir>

// Stands in for systemd while it lives: folders of its own, and a systemctl that writes down how it was
// called and answers as it was told.
class FakeSystemd
{
public:
    FakeSystemd();
    ~FakeSystemd();
    Q_DISABLE_COPY_MOVE(FakeSystemd)

    // What "show" prints from now on, and what after it has printed that once.
    void shows(const QByteArray &properties);
    void thenShows(const QByteArray &properties);
    void setExitCode(const QByteArray &verb, int code);

    // The calls so far, each one its arguments joined by a blank; those of "show" left out.
    QByteArrayList calls() const;

    QString unitFolder() const { return folder.path() + QStringLiteral("/units"); }
    QString vendorFolder() const { return folder.path() + QStringLiteral("/vendor"); }
    QString runtimeFolder() const { return folder.path() + QStringLiteral("/run"); }
    void writeFile(const QString &path, const QByteArray &content) const;
    QByteArray readFile(const QString &path) const;

private:
    QTemporaryDir folder;
};

namespace Shown {

const QByteArray Absent = "LoadState=not-found\nActiveState=inactive\nSubState=dead\n";
const QByteArray Stopped = "LoadState=loaded\nActiveState=inactive\nSubState=dead\nInvocationID=1\n";
const QByteArray Starting =
    "LoadState=loaded\nActiveState=activating\nSubState=start\nStatusText=Starting\nInvocationID=2\n";
const QByteArray Running =
    "LoadState=loaded\nActiveState=active\nSubState=running\nStatusText=Running\nInvocationID=2\n";

} // namespace Shown
