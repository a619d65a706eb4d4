// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/startparameters.h"

#include "service/linux/errors.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

using namespace Qt::StringLiterals;
using namespace Linux;

// The folder may be its account's own: nothing there is trusted.
class TestStartParameters : public QObject
{
    Q_OBJECT

private slots:
    void areTakenOnce()
    {
        const QStringList parameters{u"a b"_s, QString(), u"Größe \U0001F4FB\n%n"_s, u"-x"_s};
        QVERIFY(storeStartParameters(path(u"run"_s), parameters));
        QCOMPARE(takeStartParameters(path(u"run"_s)), parameters);
        QCOMPARE(takeStartParameters(path(u"run"_s)), QStringList());
    }

    void whatIsInTheWayIsReplaced()
    {
        QVERIFY(storeStartParameters(path(u"again"_s), {u"old"_s, u"older"_s}));
        QVERIFY(storeStartParameters(path(u"again"_s), {u"new"_s}));
        QCOMPARE(takeStartParameters(path(u"again"_s)), QStringList{u"new"_s});
    }

    void folderThatCannotBeMadeFails()
    {
        QVERIFY(!storeStartParameters(path(u"missing/run"_s), {u"a"_s}));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        QCOMPARE(takeStartParameters(path(u"missing/run"_s)), QStringList());
    }

    void folderThatIsAFileOrALinkFails()
    {
        QFile file(folder.filePath(u"file"_s));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QVERIFY(!storeStartParameters(path(u"file"_s), {u"a"_s}));
        QVERIFY(QDir(folder.path()).mkdir(u"target"_s));
        QVERIFY(QFile::link(folder.filePath(u"target"_s), folder.filePath(u"link"_s)));
        QVERIFY(!storeStartParameters(path(u"link"_s), {u"a"_s}));
        QVERIFY(QDir(folder.filePath(u"target"_s)).isEmpty());

        QVERIFY(storeStartParameters(path(u"target"_s), {u"another's"_s}));
        QCOMPARE(takeStartParameters(path(u"link"_s)), QStringList());
        QCOMPARE(takeStartParameters(path(u"target"_s)), QStringList{u"another's"_s});
    }

    void fileThatCannotBeReplacedFails()
    {
        QVERIFY(QDir(folder.path()).mkpath(u"taken/start-parameters"_s));
        QVERIFY(!storeStartParameters(path(u"taken"_s), {u"a"_s}));
    }

    void fileThatIsALinkIsNotFollowed()
    {
        writeFile(u"secret"_s, QByteArray("another's\0", 10));
        QVERIFY(QDir(folder.path()).mkdir(u"owned"_s));
        const QString link = folder.filePath(u"owned/start-parameters"_s);
        QVERIFY(QFile::link(folder.filePath(u"secret"_s), link));
        QCOMPARE(takeStartParameters(path(u"owned"_s)), QStringList());
        QVERIFY(storeStartParameters(path(u"owned"_s), {u"a"_s}));
        QVERIFY(!QFileInfo(link).isSymLink());
        QCOMPARE(readFile(u"secret"_s), QByteArray("another's\0", 10));
    }

    // Opening a pipe that nobody writes to would wait for ever.
    void fileThatIsAPipeHoldsNothingUp()
    {
        QVERIFY(QDir(folder.path()).mkdir(u"piped"_s));
        QCOMPARE(::mkfifo(path(u"piped/start-parameters"_s).constData(), 0600), 0);
        QCOMPARE(takeStartParameters(path(u"piped"_s)), QStringList());
        QVERIFY(!QFile::exists(folder.filePath(u"piped/start-parameters"_s)));
    }

    void areRefusedBeyondOneMebibyte()
    {
        const QStringList longest{QString((1 << 20) - 8, u'x'), u"behind"_s}; // with their ends
        QVERIFY(storeStartParameters(path(u"long"_s), longest));
        QCOMPARE(QFileInfo(folder.filePath(u"long/start-parameters"_s)).size(), 1 << 20);
        QCOMPARE(takeStartParameters(path(u"long"_s)), longest);

        QVERIFY(!storeStartParameters(path(u"longer"_s), {longest[0], u"behind."_s}));
        QCOMPARE(Linux::lastError(), Scm::Dword(Linux::ErrorInvalidParameter));
        QVERIFY(!QFile::exists(folder.filePath(u"longer"_s)));
        // What counts is what is written.
        QVERIFY(!storeStartParameters(path(u"longer"_s), {QString(1 << 19, u'ö')}));
        QVERIFY(!QFile::exists(folder.filePath(u"longer"_s)));
    }

    void fileThatNobodyStoredIsNotTaken()
    {
        QVERIFY(QDir(folder.path()).mkdir(u"made"_s));
        writeFile(u"made/start-parameters"_s, QByteArray((1 << 20) + 1, '\0'));
        QCOMPARE(takeStartParameters(path(u"made"_s)), QStringList());
        QVERIFY(!QFile::exists(folder.filePath(u"made/start-parameters"_s)));
    }

    // This process may not write a byte beyond the first four of a file.
    void fullDiskLeavesNoFile()
    {
        rlimit before{};
        QCOMPARE(::getrlimit(RLIMIT_FSIZE, &before), 0);
        const rlimit four{4, before.rlim_max};
        auto *const handler = ::signal(SIGXFSZ, SIG_IGN);
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &four), 0);
        const bool stored = storeStartParameters(path(u"full"_s), {u"too long"_s});
        QCOMPARE(::setrlimit(RLIMIT_FSIZE, &before), 0);
        (void)::signal(SIGXFSZ, handler);
        QVERIFY(!stored);
        QVERIFY(QDir(folder.filePath(u"full"_s)).isEmpty());
    }

private:
    QByteArray path(const QString &name) const { return QFile::encodeName(folder.filePath(name)); }

    void writeFile(const QString &name, const QByteArray &content) const
    {
        QFile file(folder.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), content.size());
    }
    QByteArray readFile(const QString &name) const
    {
        QFile file(folder.filePath(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    QTemporaryDir folder;
};

QTEST_GUILESS_MAIN(TestStartParameters)
#include "tst_startparameters.moc"
