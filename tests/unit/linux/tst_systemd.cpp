// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemd.h"

#include "service/linux/errors.h"
#include "tests/unit/linux/fakesystemd.h"

#include <QTest>

#include <systemd/sd-bus-protocol.h>

using namespace Qt::StringLiterals;
using namespace Linux;

class TestSystemd : public QObject
{
    Q_OBJECT

private slots:
    void mapsActiveStates_data()
    {
        QTest::addColumn<QByteArray>("active");
        QTest::addColumn<QByteArray>("status");
        QTest::addColumn<int>("state");
        const auto row = [](const char *active, const char *status, int state) {
            QTest::addRow("%s \"%s\"", active, status) << QByteArray(active) << QByteArray(status) << state;
        };
        row("inactive", "", Scm::StateStopped);
        row("inactive", "Paused", Scm::StateStopped);
        row("failed", "", Scm::StateStopped);
        row("activating", "", Scm::StateStartPending);
        row("activating", "Starting", Scm::StateStartPending);
        row("maintenance", "", Scm::StateStartPending);
        row("deactivating", "Stopping", Scm::StateStopPending);
        row("active", "", Scm::StateRunning);
        row("active", "Running", Scm::StateRunning);
        row("active", "some other text", Scm::StateRunning);
        row("active", "Pausing", Scm::StatePausePending);
        row("active", "Paused", Scm::StatePaused);
        row("active", "Resuming", Scm::StateContinuePending);
        row("reloading", "Running", Scm::StateRunning);
        row("", "", Scm::StateStopped);
    }

    void mapsActiveStates()
    {
        QFETCH(QByteArray, active);
        QFETCH(QByteArray, status);
        QFETCH(int, state);
        FakeSystemd fake;
        fake.shows("LoadState=loaded\nActiveState=" + active + "\nStatusText=" + status + "\n");
        UnitState read;
        QVERIFY(Systemd(u"quill-mere"_s).query(read));
        QCOMPARE(static_cast<int>(read.state), state);
        QVERIFY(read.isLoaded);
        QCOMPARE(read.hasReported, !status.isEmpty());
    }

    void tellsTheRest()
    {
        FakeSystemd fake;
        fake.shows("ActiveState=activating\nSubState=auto-restart\nExecMainStatus=252\nLoadState=masked\n"
                   "InvocationID=7\n");
        UnitState failed;
        QVERIFY(Systemd(u"quill-mere"_s).query(failed));
        QVERIFY(failed.waitsForRestart);
        QVERIFY(failed.isMasked);
        QVERIFY(!failed.hasReported);
        QCOMPARE(failed.exitCode, 252u);
        QCOMPARE(failed.invocation, QByteArray("\x07"));
        fake.shows("ActiveState=activating\nSubState=auto-restart-queued\n");
        QVERIFY(Systemd(u"quill-mere"_s).query(failed));
        QVERIFY(failed.waitsForRestart);
        fake.shows(Shown::Stopped);
        QVERIFY(Systemd(u"quill-mere"_s).query(failed));
        QVERIFY(!failed.waitsForRestart);
        QVERIFY(!failed.isMasked);
        QCOMPARE(failed.exitCode, 0u);
    }

    void unitThatIsNotKnown()
    {
        FakeSystemd fake;
        for (const QByteArray &shown : {Shown::Absent, QByteArray(), QByteArray("LoadState=\n")}) {
            fake.shows(shown);
            UnitState read;
            QVERIFY(Systemd(u"quill-mere"_s).query(read));
            QVERIFY(!read.isLoaded);
            QCOMPARE(read.state, Scm::StateStopped);
        }
    }

    void answerOfAnotherShapeIsNone_data()
    {
        QTest::addColumn<QByteArray>("properties");
        QTest::newRow("no properties at all") << QByteArray("nothing");
        for (const char *name :
             {"LoadState", "ActiveState", "SubState", "StatusText", "ExecMainStatus", "InvocationID"}) {
            QTest::newRow(name) << QByteArray(name) + "=true\n" + Shown::Running;
        }
    }

    void answerOfAnotherShapeIsNone()
    {
        QFETCH(QByteArray, properties);
        FakeSystemd fake;
        fake.shows(properties);
        Systemd systemd(u"quill-mere"_s);
        UnitState state;
        state.state = Scm::StatePaused;
        QVERIFY(!systemd.query(state));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorManagerUnavailable));
        QCOMPARE(state.state, Scm::Dword(Scm::StatePaused));
        fake.shows(Shown::Running);
        QVERIFY(systemd.query(state));
        QCOMPARE(state.state, Scm::Dword(Scm::StateRunning));
    }

    void asksOnOneConnection()
    {
        FakeSystemd fake;
        Systemd systemd(u"quill-mere"_s);
        UnitState read;
        for (int i = 0; i < 5; ++i) {
            QVERIFY(systemd.query(read));
        }
        QCOMPARE(fake.connections(), 1);
    }

    void callsByName()
    {
        FakeSystemd fake;
        Systemd systemd(u"quill-mere"_s);
        QVERIFY(systemd.start());
        QVERIFY(systemd.stop());
        QVERIFY(systemd.enable());
        QVERIFY(systemd.disable());
        QVERIFY(systemd.forgetFailure());
        const QByteArrayList expected = {"StartUnit quill-mere.service replace",
                                         "StopUnit quill-mere.service replace",
                                         "EnableUnitFiles [quill-mere.service] false false",
                                         "Reload",
                                         "DisableUnitFiles [quill-mere.service] false",
                                         "ResetFailedUnit quill-mere.service"};
        QCOMPARE(fake.calls(), expected);
    }

    void errors_data()
    {
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<uint>("error");
        const auto row = [](const char *name, uint error) {
            QTest::newRow(name) << QByteArray(name) << error;
        };
        row("org.freedesktop.systemd1.NoSuchUnit", Scm::ErrorServiceDoesNotExist);
        row("org.freedesktop.systemd1.UnitMasked", ErrorServiceDisabled);
        row("org.freedesktop.systemd1.AnythingElse", ErrorManagerUnavailable);
        row(SD_BUS_ERROR_ACCESS_DENIED, Scm::ErrorAccessDenied);
        row(SD_BUS_ERROR_AUTH_FAILED, Scm::ErrorAccessDenied);
        row(SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED, Scm::ErrorAccessDenied);
        row(SD_BUS_ERROR_NO_REPLY, ErrorRequestTimeout);
        row(SD_BUS_ERROR_TIMEOUT, ErrorRequestTimeout);
        row(SD_BUS_ERROR_FAILED, ErrorManagerUnavailable);
    }

    void errors()
    {
        QFETCH(QByteArray, name);
        QFETCH(uint, error);
        FakeSystemd fake;
        fake.fails("StartUnit", name);
        fake.fails("GetAll", name);
        Systemd systemd(u"quill-mere"_s);
        QVERIFY(!systemd.start());
        QCOMPARE(lastError(), error);
        fail(0);
        UnitState read;
        QVERIFY(!systemd.query(read));
        QCOMPARE(lastError(), error);
        QVERIFY(systemd.stop()); // the connection goes on
    }

    void speaksToABusDaemonToo()
    {
        FakeSystemd fake;
        fake.listensAtTheBusOnly();
        fake.shows(Shown::Running);
        Systemd systemd(u"quill-mere"_s);
        UnitState read;
        QVERIFY(systemd.query(read));
        QCOMPARE(read.state, Scm::StateRunning);
        QVERIFY(systemd.stop());
        QCOMPARE(fake.calls(), QByteArrayList{"StopUnit quill-mere.service replace"});
    }

    void answerThatDoesNotComeIsATimeout()
    {
        FakeSystemd fake;
        places().timeoutMilliseconds = 100;
        Systemd systemd(u"quill-mere"_s);
        UnitState read;
        QVERIFY(systemd.query(read));
        fake.fallsSilent();
        QVERIFY(!systemd.stop());
        QCOMPARE(lastError(), Scm::Dword(ErrorRequestTimeout));
    }

    void connectionThatIsNeverMadeIsGivenUp()
    {
        FakeSystemd fake;
        fake.fallsSilent();
        places().timeoutMilliseconds = 100;
        Systemd systemd(u"quill-mere"_s);
        QVERIFY(!systemd.stop());
        QCOMPARE(lastError(), Scm::Dword(ErrorManagerUnavailable));
        QVERIFY(fake.calls().isEmpty());
    }

    void nobodyListens()
    {
        FakeSystemd fake;
        places().managerSocket = "/nowhere";
        places().busSocket = "/nowhere";
        Systemd systemd(u"quill-mere"_s);
        QVERIFY(!systemd.isReached());
        UnitState read;
        QVERIFY(!systemd.query(read));
        QCOMPARE(lastError(), Scm::Dword(ErrorManagerUnavailable));
        fail(0);
        QVERIFY(!systemd.start());
        QCOMPARE(lastError(), Scm::Dword(ErrorManagerUnavailable));
    }

    void everyStateHasItsText()
    {
        const QByteArrayList texts = {"Stopped",  "Starting", "Stopping", "Running",
                                      "Resuming", "Pausing",  "Paused"};
        for (Scm::Dword state = Scm::StateStopped; state <= Scm::StatePaused; ++state) {
            QCOMPARE(statusText(state), texts[state - 1]);
        }
        QCOMPARE(statusText(8), QByteArray());
    }
};

QTEST_GUILESS_MAIN(TestSystemd)
#include "tst_systemd.moc"
