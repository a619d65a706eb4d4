// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/datafolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

namespace {

// In memory where there is such a file system: the database waits for the disk at every write.
QString folderTemplate()
{
    const QFileInfo memory(QStringLiteral("/dev/shm"));
    return (memory.isWritable() ? memory.filePath() : QDir::tempPath()) +
           QStringLiteral("/quillmere-test-XXXXXX");
}

} // namespace

class DataFolder::Private
{
public:
    QTemporaryDir folder{folderTemplate()};
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
