// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/capturedoutput.h"
#include "tests/support/fakescm.h"
#include "tests/support/testservice.h"

#include <QCoreApplication>
#include <QTest>

using namespace Qt::StringLiterals;

class TestServiceLog : public QObject
{
    Q_OBJECT

private slots:
    void mapsTheTypeOfARecord_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<Scm::Word>("written");
        QTest::newRow("success") << 0 << Scm::Word(0);
        QTest::newRow("error") << 1 << Scm::Word(1);
        QTest::newRow("warning") << 2 << Scm::Word(2);
        QTest::newRow("information") << 3 << Scm::Word(4);
        QTest::newRow("out of range") << 7 << Scm::Word(0);
    }

    void mapsTheTypeOfARecord()
    {
        QFETCH(int, type);
        QFETCH(Scm::Word, written);
        FakeScm scm;
        const TestService service({});
        service.logMessage(u"text"_s, static_cast<QtServiceBase::MessageType>(type));
        QCOMPARE(scm.events().size(), 1);
        QCOMPARE(scm.events().first().type, written);
    }

    void defaultsToASuccessWithoutIdentifier()
    {
        FakeScm scm;
        const TestService service({});
        service.logMessage(u"text ÄÖ€"_s);
        QCOMPARE(scm.events(), (QList<LogRecord>{{u"Quill Mere"_s, 0, 0, 0, u"text ÄÖ€"_s, QByteArray()}}));
    }

    void passesTheIdentifierOn()
    {
        FakeScm scm;
        const TestService service({});
        service.logMessage(u"text"_s, QtServiceBase::Error, static_cast<int>(0xC0000001));
        QCOMPARE(scm.events().first().id, Scm::Dword(0xC0000001));
    }

    void cutsTheCategoryTo16Bits()
    {
        FakeScm scm;
        const TestService service({});
        service.logMessage(u"text"_s, QtServiceBase::Error, 1, 0x12345);
        QCOMPARE(scm.events().first().category, Scm::Word(0x2345));
    }

    void attachesData()
    {
        FakeScm scm;
        const TestService service({});
        const QByteArray data = QByteArray::fromHex("00ff4100");
        service.logMessage(u"text"_s, QtServiceBase::Error, 1, 0, data);
        QCOMPARE(scm.events().first().data, data);
        QCOMPARE(scm.callsOf(u"reportEvent"_s),
                 QStringList{u"reportEvent sid none strings 1 size 4 data some"_s});
    }

    void emptyDataIsNoPointer()
    {
        FakeScm scm;
        const TestService service({});
        service.logMessage(u"text"_s, QtServiceBase::Error, 1, 0, QByteArray(""));
        QCOMPARE(scm.callsOf(u"reportEvent"_s),
                 QStringList{u"reportEvent sid none strings 1 size 0 data none"_s});
    }

    void registersReportsAndDeregisters()
    {
        FakeScm scm;
        const TestService service({}, u"Two  Words"_s);
        service.logMessage(u"one"_s);
        service.logMessage(u"two"_s);
        const QStringList record = {
            u"registerEventSource - Two  Words"_s,
            u"reportEvent sid none strings 1 size 0 data none"_s,
            u"deregisterEventSource"_s,
        };
        QCOMPARE(scm.takeCalls(), record + record);
        QCOMPARE(scm.openHandles(), 0);
    }

    void losesARecordWhoseSourceIsRefused()
    {
        FakeScm scm;
        const TestService service({});
        scm.fail(u"registerEventSource"_s, Scm::ErrorAccessDenied);
        service.logMessage(u"text"_s);
        QCOMPARE(scm.takeCalls(), QStringList{u"registerEventSource - Quill Mere"_s});
    }

    void closesTheSourceOfAFailedReport()
    {
        FakeScm scm;
        const TestService service({});
        scm.fail(u"reportEvent"_s, Scm::ErrorAccessDenied);
        service.logMessage(u"text"_s);
        QCOMPARE(scm.takeCalls().last(), u"deregisterEventSource"_s);
        QCOMPARE(scm.openHandles(), 0);
    }

    void writesNothingWithoutTheFunctions()
    {
        FakeScm scm;
        const TestService service({});
        const Scm::Functions functions = platform.scm;
        scm.makeUnavailable();
        platform.scm.registerEventSource = functions.registerEventSource;
        platform.scm.reportEvent = functions.reportEvent;
        platform.scm.deregisterEventSource = functions.deregisterEventSource;
        service.logMessage(u"text"_s);
        QVERIFY(scm.takeCalls().isEmpty());
    }

    void onlyTheServiceManagerFunctionCounts()
    {
        FakeScm scm;
        const Scm::Functions functions = platform.scm;
        scm.makeUnavailable();
        QVERIFY(!platform.scmAvailable());
        platform.scm = functions;
        platform.scm.openScManager = nullptr;
        QVERIFY(!platform.scmAvailable());
        platform.scm = {};
        platform.scm.openScManager = functions.openScManager;
        QVERIFY(platform.scmAvailable());
    }

    void fillsTheTableOnce()
    {
        static int filled = 0;
        static Scm::Functions provided;
        FakeScm scm;
        filled = 0;
        provided = platform.scm;
        scm.makeUnavailable();
        platform.provide = [](Scm::Functions &functions) {
            ++filled;
            functions = provided;
        };
        QVERIFY(platform.scmAvailable());
        QVERIFY(platform.scmAvailable());
        QCOMPARE(filled, 1);
    }

    void foregroundRunsLogThereAndNowhereElse()
    {
        FakeScm scm;
        TestService service({u"-exec"_s});
        service.onCall = [&service](const QString &) {
            service.logMessage(u"text"_s, QtServiceBase::Warning);
            QCoreApplication::quit();
        };
        QByteArray out;
        QByteArray err;
        int exitCode = 0;
        {
            const CapturedOutput captured;
            exitCode = service.exec();
            out = captured.out();
            err = captured.err();
        }
        QCOMPARE(exitCode, 0);
        QCOMPARE(out, QByteArray());
        QCOMPARE(err, QByteArray());
        QCOMPARE(scm.events().size(), 1);
    }

    void threadsMayLogAtOnce()
    {
        constexpr int Records = 200;
        FakeScm scm;
        const TestService service({});
        const auto log = [&service] {
            for (int i = 0; i < Records; ++i) {
                service.logMessage(u"text"_s);
            }
        };
        std::thread one(log);
        std::thread two(log);
        one.join();
        two.join();
        QCOMPARE(scm.events().size(), 2 * Records);
        QCOMPARE(scm.openHandles(), 0);
    }
};

QTEST_APPLESS_MAIN(TestServiceLog)
#include "tst_servicelog.moc"
