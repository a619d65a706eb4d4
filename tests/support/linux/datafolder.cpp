// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/datafolder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

namespace {

// In memory where there is such a file system: the database waits for the disk at every write.
QString folderTemplate()
{
    const QFileInfo memory(u"/dev/shm"_s);
    return (memory.isWritable() ? memory.filePath() : QDir::tempPath()) + u"/quillmere-test-XXXXXX"_s;
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
    return d->folder.path() + u"/Brackwater/Quill Mere"_s;
}

void DataFolder::writeConfiguration(const QByteArray &content) const
{
    QFile file(path() + u"/qmr.cfg"_s);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(file.fileName()));
    }
}
