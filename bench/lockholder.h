// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QProcess>

#include <chrono>

// Another process that holds a database locked: this program anew, with the arguments that isAsked() knows.
class LockHolder
{
public:
    // Returns when the database is locked.
    LockHolder(const QString &database, std::chrono::milliseconds time);
    Q_DISABLE_COPY_MOVE(LockHolder)

    // Returns when it is no longer locked.
    void release();

    // In the other process.
    static bool isAsked(const QStringList &arguments);
    static void hold(const QStringList &arguments);

private:
    QProcess process;
};
