// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/datafolder.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

class DataFolder::Private
{
public:
    QTemporaryDir folder;
};

DataFolder::DataFolder() : d(std::make_unique<Private>())
{
    qputenv("QUILLMERE_APPDATA", QFile::encodeName(d->folder.path()));
    QDir().mkpath(path());
}

DataFolder::~DataFolder()
{
    qunsetenv("QUILLMERE_APPDATA");
}

QString DataFolder::path() const
{
    return d->folder.path() + QStringLiteral("/Brackwater/Quill Mere");
}

void DataFolder::writeConfiguration(const QByteArray &content) const
{
    QFile file(path() + QStringLiteral("/qmr.cfg"));
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(file.fileName()));
    }
}
