// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>

#include <memory>

using namespace Qt::StringLiterals;

// A data folder of this test's own, found by the server while the object lives: empty at first, gone
// afterwards.
class DataFolder
{
public:
    DataFolder();
    ~DataFolder();
    Q_DISABLE_COPY_MOVE(DataFolder)

    // Where the server's configuration and database lie, "…/Brackwater/Quill Mere".
    QString path() const;
    QString databaseFile() const { return path() + u"/qmr.db"_s; }
    void writeConfiguration(const QByteArray &content) const;

private:
    class Private;
    std::unique_ptr<Private> d;
};
