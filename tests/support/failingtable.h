// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QString>

// An empty table of the server's database that cannot be reached while this lives: on the default connection
// each statement about it fails as it is prepared, with a result code of SQLite's, a number of times.
class FailingTable
{
public:
    FailingTable(const QString &databaseFile, const QByteArray &name, int resultCode, int failures);
    ~FailingTable();
    Q_DISABLE_COPY_MOVE(FailingTable)

    // How many statements may still fail.
    int failuresLeft() const { return left; }

private:
    class Module;

    int resultCode;
    int left;
};
