// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/startparameters.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace Linux;

// The folder may be its account's own: nothing there is trusted.
class TestStartParameters : public QObject
{
    Q_OBJECT

private slots:
    void areTakenOnce();
    void whatIsInTheWayIsReplaced();
    void folderThatCannotBeMadeFails();
    void folderThatIsAFileOrALinkFails();
    void fileThatCannotBeReplacedFails();
    void longParametersAreBounded();

private:
    QByteArray path(const QString &name) const { return QFile::encodeName(folder.filePath(name)); }

    QTemporaryDir folder;
};

void TestStartParameters::areTakenOnce()
{
    const QStringList parameters{u"a b"_s, QString(), u"Größe"_s};
    QVERIFY(storeStartParameters(path(u"run"_s), parameters));
    QCOMPARE(takeStartParameters(path(u"run"_s)), parameters);
    QCOMPARE(takeStartParameters(path(u"run"_s)), QStringList());
}

void TestStartParameters::whatIsInTheWayIsReplaced()
{
    QVERIFY(storeStartParameters(path(u"again"_s), {u"old"_s, u"older"_s}));
    QVERIFY(storeStartParameters(path(u"again"_s), {u"new"_s}));
    QCOMPARE(takeStartParameters(path(u"again"_s)), QStringList{u"new"_s});
}

void TestStartParameters::folderThatCannotBeMadeFails()
{
    QVERIFY(!storeStartParameters(path(u"missing/run"_s), {u"a"_s}));
    QCOMPARE(takeStartParameters(path(u"missing/run"_s)), QStringList());
}

void TestStartParameters::folderThatIsAFileOrALinkFails()
{
    QFile file(folder.filePath(u"file"_s));
    QVERIFY(file.open(QIODevice::WriteOnly));
    QVERIFY(!storeStartParameters(path(u"file"_s), {u"a"_s}));
    QVERIFY(QDir(folder.path()).mkdir(u"target"_s));
    QVERIFY(QFile::link(folder.filePath(u"target"_s), folder.filePath(u"link"_s)));
    QVERIFY(!storeStartParameters(path(u"link"_s), {u"a"_s}));
    QVERIFY(QDir(folder.filePath(u"target"_s)).isEmpty());
}

void TestStartParameters::fileThatCannotBeReplacedFails()
{
    QVERIFY(QDir(folder.path()).mkpath(u"taken/start-parameters"_s));
    QVERIFY(!storeStartParameters(path(u"taken"_s), {u"a"_s}));
}

void TestStartParameters::longParametersAreBounded()
{
    const QStringList parameters{QString(3 << 20, u'x'), u"behind"_s};
    QVERIFY(storeStartParameters(path(u"long"_s), parameters));
    QCOMPARE(takeStartParameters(path(u"long"_s)), QStringList()); // cut before the first one's end
}

QTEST_GUILESS_MAIN(TestStartParameters)
#include "tst_startparameters.moc"
