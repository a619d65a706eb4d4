// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/errors.h"
#include "service/platform.h"
#include "service/semaphore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QTest>
#include <QThread>

#include <unistd.h>

#include <memory>

using namespace Qt::StringLiterals;

// What this platform provides beside the service-control functions.
class TestPlatform : public QObject
{
    Q_OBJECT

private slots:
    void errorsHaveTexts_data()
    {
        QTest::addColumn<Scm::Dword>("code");
        QTest::addColumn<QString>("text");
        QTest::newRow("none") << Scm::Dword(0) << u"The operation completed successfully."_s;
        QTest::newRow("5") << Scm::Dword(Scm::ErrorAccessDenied) << u"Access is denied."_s;
        QTest::newRow("1060") << Scm::Dword(Scm::ErrorServiceDoesNotExist)
                              << u"The specified service does not exist as an installed service."_s;
        QTest::newRow("the last") << Scm::Dword(Linux::ErrorManagerUnavailable)
                                  << u"The service manager is unavailable."_s;
        QTest::newRow("unknown") << Scm::Dword(4711) << u"Unknown error 4711."_s;
    }

    void errorsHaveTexts()
    {
        QFETCH(const Scm::Dword, code);
        QTEST(platform.errorText(code), "text");
    }

    void lastErrorIsTheThreadsOwn()
    {
        QCOMPARE(Linux::fail(Scm::ErrorAccessDenied), 0);
        Scm::Dword elsewhere = 1;
        const std::unique_ptr<QThread> thread(QThread::create([&] { elsewhere = platform.lastError(); }));
        thread->start();
        QVERIFY(thread->wait(5000));
        QCOMPARE(elsewhere, Scm::Dword(0));
        QCOMPARE(platform.lastError(), Scm::Dword(Scm::ErrorAccessDenied));
    }

    void executableIsThisProgram()
    {
        QCOMPARE(platform.executablePath(), QFile::symLinkTarget(u"/proc/self/exe"_s));
        QVERIFY(platform.executablePath().endsWith(u"/tst_platform"_s));
    }

    void sleepLastsAtLeastAsLong()
    {
        QElapsedTimer spent;
        spent.start();
        platform.sleep(20);
        QVERIFY(spent.nsecsElapsed() >= 20'000'000);
    }

    void waitForStartEndsWithTheReleaseOrTheTime()
    {
        Semaphore start;
        QVERIFY(!platform.waitForStart(start, 1));
        start.release();
        QVERIFY(platform.waitForStart(start, 60'000));
    }

    void waitForEndEndsWithTheThreadOrTheTime()
    {
        Semaphore end;
        const std::unique_ptr<QThread> thread(QThread::create([&] { end.acquire(); }));
        thread->start();
        const bool endedBefore = platform.waitForEnd(*thread, 1);
        end.release();
        QVERIFY(platform.waitForEnd(*thread, 60'000));
        QVERIFY(!endedBefore);
    }

    void functionsAreThereFromTheFirstUseOn()
    {
        QVERIFY(!platform.scm.openScManager);
        QVERIFY(platform.scmAvailable());
        QVERIFY(platform.scm.openScManager);
        QVERIFY(platform.scm.registerEventSource);
    }

    void dataFolderIsTheSystemsUnlessNamed()
    {
        qputenv("QUILLMERE_APPDATA", "/some/where");
        QCOMPARE(platform.commonDataFolder(), std::optional(u"/some/where"_s));
        qunsetenv("QUILLMERE_APPDATA");
        qputenv("XDG_DATA_HOME", "/somebody/data");
        QCOMPARE(platform.commonDataFolder(),
                 std::optional(::geteuid() == 0 ? u"/var/lib"_s : u"/somebody/data"_s));
        qunsetenv("XDG_DATA_HOME");
    }

    void journalNeedsNoMessageFile()
    {
        const QString file = QDir::tempPath() + u"/quillmere-message-file"_s;
        platform.registerMessageFile(u"Quill Mere"_s, file);
        platform.removeMessageFile(u"Quill Mere"_s);
        QVERIFY(!QFile::exists(file));
    }
};

QTEST_GUILESS_MAIN(TestPlatform)
#include "tst_platform.moc"
