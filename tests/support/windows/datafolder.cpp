// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/datafolder.h"

#include "service/platform.h"

#include <QDir>
#include <QFile>

using namespace Qt::StringLiterals;

// Windows has one common data folder and no way to name another, so tests that use it run one after the
// other, in a Wine made for them.
class DataFolder::Private
{
public:
    Private()
    {
        // A folder that no test has made belongs to a server that somebody runs.
        if (folder.exists() && !QFile::exists(marker)) {
            qFatal("%s is in use", qPrintable(folder.path()));
        }
        clear();
        folder.mkpath(u"Quill Mere"_s);
        QFile file(marker);
        if (!file.open(QIODevice::WriteOnly)) {
            qFatal("cannot write %s", qPrintable(marker));
        }
    }
    ~Private() { clear(); }
    Q_DISABLE_COPY_MOVE(Private)

    QDir folder{platform.commonDataFolder().value_or(QString()) + u"\\Brackwater"_s};

private:
    // A file that the server still has open stays, and goes before the next test; so does the marker then.
    void clear()
    {
        if (QDir(folder.filePath(u"Quill Mere"_s)).removeRecursively()) {
            folder.removeRecursively();
        }
    }

    QString marker = folder.filePath(u"made-by-a-test"_s);
};

DataFolder::DataFolder() : d(std::make_unique<Private>())
{
}

DataFolder::~DataFolder() = default;

QString DataFolder::path() const
{
    return platform.commonDataFolder().value_or(QString()) + u"\\Brackwater\\Quill Mere"_s;
}

void DataFolder::writeConfiguration(const QByteArray &content) const
{
    QFile file(path() + u"/qmr.cfg"_s);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(file.fileName()));
    }
}
