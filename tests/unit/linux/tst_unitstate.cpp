// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/unitstate.h"

#include <QTest>

using namespace Linux;

class TestUnitState : public QObject
{
    Q_OBJECT

private slots:
    void mapsActiveStates_data();
    void mapsActiveStates();
    void tellsTheRest();
    void unreadableAnswerIsAnAbsentUnit();
    void everyStateHasItsText();
};

void TestUnitState::mapsActiveStates_data()
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

void TestUnitState::mapsActiveStates()
{
    QFETCH(QByteArray, active);
    QFETCH(QByteArray, status);
    QFETCH(int, state);
    const UnitState read =
        unitState("LoadState=loaded\nActiveState=" + active + "\nStatusText=" + status + "\n");
    QCOMPARE(static_cast<int>(read.state), state);
    QVERIFY(read.isLoaded);
}

void TestUnitState::tellsTheRest()
{
    const UnitState failed = unitState("ActiveState=activating\nSubState=auto-restart\nExecMainStatus=252\n"
                                       "LoadState=masked\nInvocationID=abc\nStatusText=a=b\n");
    QVERIFY(failed.waitsForRestart);
    QVERIFY(failed.isMasked);
    QVERIFY(failed.hasReported);
    QCOMPARE(failed.exitCode, 252u);
    QCOMPARE(failed.invocation, QByteArray("abc"));
    QVERIFY(!unitState("LoadState=not-found\n").isLoaded);
}

void TestUnitState::unreadableAnswerIsAnAbsentUnit()
{
    for (const char *text : {"", "\n\n", "=\n", "garbage", "=loaded\n"}) {
        const UnitState read = unitState(text);
        QVERIFY(!read.isLoaded);
        QCOMPARE(read.state, Scm::StateStopped);
    }
}

void TestUnitState::everyStateHasItsText()
{
    const QByteArrayList texts = {"Stopped",  "Starting", "Stopping", "Running",
                                  "Resuming", "Pausing",  "Paused"};
    for (Scm::Dword state = Scm::StateStopped; state <= Scm::StatePaused; ++state) {
        QCOMPARE(statusText(state), texts[state - 1]);
    }
    QCOMPARE(statusText(8), QByteArray());
}

QTEST_GUILESS_MAIN(TestUnitState)
#include "tst_unitstate.moc"
