// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"
#include "service/qtservicecontroller.h"
#include "tests/support/fakescm.h"
#include "tests/support/testservice.h"

#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QString Name = u"Quill Mere"_s;

using Operation = std::function<bool(const QtServiceController &)>;

void addInstalled(FakeScm &scm, Scm::Dword state = Scm::StateRunning)
{
    scm.services[Name].state = state;
}

} // namespace

Q_DECLARE_METATYPE(Operation)

class TestQtServiceController : public QObject
{
    Q_OBJECT

private slots:
    void opensActsAndClosesInOrder_data()
    {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QStringList>("calls");
        const auto row = [](const char *tag, const Operation &operation, const QString &manager,
                            const QString &service, const QStringList &action) {
            QTest::newRow(tag)
                << operation
                << QStringList{u"openScManager "_s + manager, u"openService Quill Mere "_s + service} +
                       action + QStringList{u"closeServiceHandle service"_s, u"closeServiceHandle manager"_s};
        };
        row("isInstalled", [](const auto &c) { return c.isInstalled(); }, u"0x0"_s, u"0x1"_s, {});
        row("isRunning", [](const auto &c) { return c.isRunning(); }, u"0x0"_s, u"0x4"_s,
            {u"queryServiceStatus"_s});
        row("uninstall", [](const auto &c) { return c.uninstall(); }, u"0xf003f"_s, u"0x10000"_s,
            {u"deleteService"_s, u"removeMessageFile Quill Mere"_s});
        row("pause", [](const auto &c) { return c.pause(); }, u"0x1"_s, u"0x40"_s, {u"controlService 2"_s});
        row("resume", [](const auto &c) { return c.resume(); }, u"0x1"_s, u"0x40"_s, {u"controlService 3"_s});
        row(
            "stop",
            [](const auto &c) {
                return !c.stop(); // the service stays running
            },
            u"0x1"_s, u"0x24"_s,
            QStringList{u"controlService 1"_s} + QStringList(10, u"queryServiceStatus"_s));
    }

    void opensActsAndClosesInOrder()
    {
        QFETCH(Operation, operation);
        FakeScm scm;
        addInstalled(scm);
        QVERIFY(operation(QtServiceController(Name)));
        QTEST(scm.takeCalls(), "calls");
        QCOMPARE(scm.openHandles(), 0);
    }

    void failsCleanlyAtEachStep_data()
    {
        QTest::addColumn<Operation>("operation");
        QTest::addColumn<QString>("failing"); // empty: the functions are not available
        QTest::addColumn<int>("skipped");
        const auto rows = [](const char *tag, const Operation &operation, const QStringList &steps) {
            for (const QString &step : QStringList{QString(), u"openScManager"_s, u"openService"_s} + steps) {
                QTest::addRow("%s, %s", tag, qPrintable(step)) << operation << step << 0;
            }
        };
        rows("isInstalled", [](const auto &c) { return c.isInstalled(); }, {});
        rows("isRunning", [](const auto &c) { return c.isRunning(); }, {u"queryServiceStatus"_s});
        rows("uninstall", [](const auto &c) { return c.uninstall(); }, {u"deleteService"_s});
        rows("start", [](const auto &c) { return c.start({u"a"_s}); }, {u"startService"_s});
        rows("stop", [](const auto &c) { return c.stop(); }, {});
        rows("pause", [](const auto &c) { return c.pause(); }, {u"controlService"_s});
        rows("resume", [](const auto &c) { return c.resume(); }, {u"controlService"_s});
        const Operation command = [](const auto &c) { return c.sendCommand(1); };
        rows("sendCommand", command, {u"queryServiceStatus"_s, u"controlService"_s});
        QTest::newRow("sendCommand, second openScManager") << command << u"openScManager"_s << 1;
        QTest::newRow("sendCommand, second openService") << command << u"openService"_s << 1;
    }

    void failsCleanlyAtEachStep()
    {
        QFETCH(Operation, operation);
        QFETCH(QString, failing);
        QFETCH(int, skipped);
        FakeScm scm;
        addInstalled(scm);
        if (failing.isEmpty()) {
            scm.makeUnavailable();
        } else {
            scm.fail(failing, Scm::ErrorAccessDenied, skipped);
        }
        QVERIFY(!operation(QtServiceController(Name)));
        QCOMPARE(scm.openHandles(), 0);
        QVERIFY(scm.services.contains(Name));
        QVERIFY(scm.callsOf(u"removeMessageFile"_s).isEmpty());
        if (!failing.isEmpty()) {
            QCOMPARE(scm.callsOf(failing).size(), skipped + 1);
        }
        if (!failing.isEmpty() && failing != u"openScManager"_s) {
            QCOMPARE(scm.takeCalls().last(), u"closeServiceHandle manager"_s);
        }
    }

    void countsEveryStateButStoppedAsRunning_data()
    {
        QTest::addColumn<Scm::Dword>("state");
        QTest::addColumn<bool>("running");
        QTest::newRow("stopped") << Scm::Dword(1) << false;
        QTest::newRow("start pending") << Scm::Dword(2) << true;
        QTest::newRow("stop pending") << Scm::Dword(3) << true;
        QTest::newRow("running") << Scm::Dword(4) << true;
        QTest::newRow("continue pending") << Scm::Dword(5) << true;
        QTest::newRow("pause pending") << Scm::Dword(6) << true;
        QTest::newRow("paused") << Scm::Dword(7) << true;
    }

    void countsEveryStateButStoppedAsRunning()
    {
        QFETCH(Scm::Dword, state);
        FakeScm scm;
        addInstalled(scm, state);
        QTEST(QtServiceController(Name).isRunning(), "running");
    }

    void installsForTheAccount_data()
    {
        using Text = std::optional<QString>;
        QTest::addColumn<QString>("account");
        QTest::addColumn<QString>("password");
        QTest::addColumn<Text>("runsUnder");
        QTest::addColumn<Text>("passed");
        QTest::addColumn<Scm::Dword>("type");
        const Text none;
        QTest::newRow("no account") << QString() << QString() << none << none << Scm::Dword(0x110);
        QTest::newRow("no account, password") << QString() << u"pw"_s << none << none << Scm::Dword(0x110);
        QTest::newRow("local") << u"someone"_s << u"pw"_s << Text(u".\\someone"_s) << Text(u"pw"_s)
                               << Scm::Dword(0x10);
        QTest::newRow("local, no password")
            << u"someone"_s << QString() << Text(u".\\someone"_s) << none << Scm::Dword(0x10);
        QTest::newRow("domain") << u"MYDOMAIN\\someone"_s << u"pw"_s << Text(u"MYDOMAIN\\someone"_s)
                                << Text(u"pw"_s) << Scm::Dword(0x10);
        QTest::newRow("LocalSystem") << u"LocalSystem"_s << u"pw"_s << none << none << Scm::Dword(0x110);
        QTest::newRow("domain LocalSystem")
            << u"NT AUTHORITY\\LocalSystem"_s << u"pw"_s << none << none << Scm::Dword(0x110);
        QTest::newRow("another case")
            << u"localsystem"_s << u"pw"_s << Text(u".\\localsystem"_s) << Text(u"pw"_s) << Scm::Dword(0x10);
        QTest::newRow("only the end of a name")
            << u"MyLocalSystem"_s << u"pw"_s << Text(u".\\MyLocalSystem"_s) << Text(u"pw"_s)
            << Scm::Dword(0x10);
    }

    void installsForTheAccount()
    {
        FakeScm scm;
        TestService object({});
        object.setServiceDescription(u"Keeps radios"_s);
        QFETCH(QString, account);
        QFETCH(QString, password);
        QVERIFY(QtServiceController(Name).install(account, password));
        const QStringList calls = {
            u"openScManager 0xf003f"_s,
            u"createService Quill Mere 0xf01ff"_s,
            u"changeServiceConfig2 1 Keeps radios"_s,
            u"registerMessageFile Quill Mere"_s,
            u"closeServiceHandle service"_s,
            u"closeServiceHandle manager"_s,
        };
        QCOMPARE(scm.takeCalls(), calls);
        QCOMPARE(scm.openHandles(), 0);
        const FakeScm::Service service = scm.services.value(Name);
        QCOMPARE(service.displayName, Name);
        QCOMPARE(service.description, u"Keeps radios"_s);
        QCOMPARE(service.binaryPath, platform.executablePath());
        QVERIFY(service.binaryPath.contains(u"tst_qtservicecontroller"_s));
        QVERIFY(!service.binaryPath.contains(u'"'));
        QCOMPARE(scm.messageFiles.value(Name), service.binaryPath);
        QCOMPARE(service.startType, Scm::Dword(3));
        QCOMPARE(service.errorControl, Scm::Dword(1));
        QTEST(service.type, "type");
        QTEST(service.account, "runsUnder");
        QTEST(service.password, "passed");
    }

    void installsForAutomaticStart()
    {
        FakeScm scm;
        TestService object({});
        object.setStartupType(QtServiceBase::AutoStartup);
        QVERIFY(QtServiceController(Name).install(QString(), QString()));
        QCOMPARE(scm.services.value(Name).startType, Scm::Dword(2));
        scm.services.clear();
        object.setStartupType(static_cast<QtServiceBase::StartupType>(5)); // anything but 0 is manual
        QVERIFY(QtServiceController(Name).install(QString(), QString()));
        QCOMPARE(scm.services.value(Name).startType, Scm::Dword(3));
    }

    void installsWithoutDescription()
    {
        FakeScm scm;
        TestService object({});
        QVERIFY(QtServiceController(Name).install(QString(), QString()));
        QVERIFY(scm.callsOf(u"changeServiceConfig2"_s).isEmpty());
    }

    void installsAlthoughTheDescriptionIsRefused()
    {
        FakeScm scm;
        TestService object({});
        object.setServiceDescription(u"Keeps radios"_s);
        scm.fail(u"changeServiceConfig2"_s, Scm::ErrorAccessDenied);
        QVERIFY(QtServiceController(Name).install(QString(), QString()));
        QCOMPARE(scm.callsOf(u"changeServiceConfig2"_s).size(), 1);
        QCOMPARE(scm.openHandles(), 0);
    }

    void installLeavesNothingOpenWhenRefused_data()
    {
        QTest::addColumn<QString>("failing");
        QTest::newRow("manager") << u"openScManager"_s;
        QTest::newRow("service") << u"createService"_s;
        QTest::newRow("not available") << QString();
    }

    void installLeavesNothingOpenWhenRefused()
    {
        QFETCH(QString, failing);
        FakeScm scm;
        if (failing.isEmpty()) {
            scm.makeUnavailable();
        } else {
            scm.fail(failing, Scm::ErrorAccessDenied);
        }
        QVERIFY(!QtServiceController(Name).install(u"someone"_s, u"pw"_s));
        QCOMPARE(scm.openHandles(), 0);
        QVERIFY(scm.services.isEmpty());
        QVERIFY(scm.messageFiles.isEmpty());
        if (failing == u"createService"_s) {
            QCOMPARE(scm.takeCalls().last(), u"closeServiceHandle manager"_s);
        }
    }

    void startPassesEveryArgument()
    {
        FakeScm scm;
        addInstalled(scm, Scm::StateStopped);
        const QStringList arguments = {u"one"_s, QString(), u"with blank"_s, u"ÄÖ€"_s};
        QVERIFY(QtServiceController(Name).start(arguments));
        QCOMPARE(scm.services.value(Name).startParameters, arguments);
        const QStringList calls = {
            u"openScManager 0x1"_s,
            u"openService Quill Mere 0x10"_s,
            u"startService one||with blank|ÄÖ€"_s,
            u"closeServiceHandle service"_s,
            u"closeServiceHandle manager"_s,
        };
        QCOMPARE(scm.takeCalls(), calls);
        QVERIFY(!QtServiceController(Name).start({})); // it runs by now
        QCOMPARE(scm.openHandles(), 0);
    }

    void stopPollsTenTimesAtMost()
    {
        FakeScm scm;
        addInstalled(scm, Scm::StateStopPending);
        scm.statesToReport =
            QList<Scm::Dword>(10, Scm::StateStopPending) + QList<Scm::Dword>{Scm::StateStopped};
        QVERIFY(!QtServiceController(Name).stop());
        QCOMPARE(scm.callsOf(u"queryServiceStatus"_s).size(), 10);
        QCOMPARE(scm.sleeps(), QStringList(10, u"sleep 200"_s));
        QCOMPARE(scm.openHandles(), 0);
    }

    void stopEndsWithTheStoppedState()
    {
        FakeScm scm;
        addInstalled(scm);
        scm.statesToReport =
            QList<Scm::Dword>(9, Scm::StateStopPending) + QList<Scm::Dword>{Scm::StateStopped};
        QVERIFY(QtServiceController(Name).stop());
        QCOMPARE(scm.callsOf(u"queryServiceStatus"_s).size(), 10);
        scm.takeCalls();

        scm.statesToReport = {Scm::StateStopPending, Scm::StateStopped};
        QVERIFY(QtServiceController(Name).stop());
        QCOMPARE(scm.callsOf(u"queryServiceStatus"_s).size(), 2);
    }

    void stopNeedsNoPollForAServiceThatStopsAtOnce()
    {
        FakeScm scm;
        addInstalled(scm);
        platform.scm.controlService = [](Scm::Handle, Scm::Dword, Scm::Status *status) -> Scm::Bool {
            *status = {};
            status->currentState = Scm::StateStopped;
            return 1;
        };
        QVERIFY(QtServiceController(Name).stop());
        QVERIFY(scm.callsOf(u"queryServiceStatus"_s).isEmpty());
        QVERIFY(scm.sleeps().isEmpty());
    }

    void stopKeepsTheLastAnswerWhenAQueryFails()
    {
        FakeScm scm;
        addInstalled(scm);
        scm.fail(u"queryServiceStatus"_s, Scm::ErrorAccessDenied, 2);
        QVERIFY(!QtServiceController(Name).stop());
        QCOMPARE(scm.callsOf(u"queryServiceStatus"_s).size(), 3);
        QCOMPARE(scm.sleeps().size(), 3);
        QCOMPARE(scm.openHandles(), 0);
    }

    void stopWarnsWhenRefused()
    {
        FakeScm scm;
        addInstalled(scm);
        scm.fail(u"controlService"_s, Scm::ErrorServiceNotAcceptingControl);
        QTest::ignoreMessage(QtCriticalMsg, "stopping (100%s sure: error 1052)");
        QVERIFY(!QtServiceController(Name).stop());
        QVERIFY(scm.sleeps().isEmpty());
        QCOMPARE(scm.openHandles(), 0);
    }

    void commandSendsUserControl_data()
    {
        QTest::addColumn<int>("code");
        QTest::addColumn<QString>("call");
        QTest::newRow("lowest") << 0 << u"controlService 128"_s;
        QTest::newRow("in between") << 72 << u"controlService 200"_s;
        QTest::newRow("highest") << 127 << u"controlService 255"_s;
    }

    void commandSendsUserControl()
    {
        QFETCH(int, code);
        QFETCH(QString, call);
        FakeScm scm;
        addInstalled(scm);
        QVERIFY(QtServiceController(Name).sendCommand(code));
        const QStringList closing = {u"closeServiceHandle service"_s, u"closeServiceHandle manager"_s};
        const QStringList query = {u"openScManager 0x0"_s, u"openService Quill Mere 0x4"_s,
                                   u"queryServiceStatus"_s};
        const QStringList control = {u"openScManager 0x1"_s, u"openService Quill Mere 0x100"_s, call};
        QCOMPARE(scm.takeCalls(), query + closing + control + closing);
    }

    void commandOutOfRangeAsksNobody_data()
    {
        QTest::addColumn<int>("code");
        QTest::newRow("below") << -1;
        QTest::newRow("above") << 128;
        QTest::newRow("far below") << std::numeric_limits<int>::min();
        QTest::newRow("far above") << std::numeric_limits<int>::max();
    }

    void commandOutOfRangeAsksNobody()
    {
        QFETCH(int, code);
        FakeScm scm;
        addInstalled(scm);
        QVERIFY(!QtServiceController(Name).sendCommand(code));
        QVERIFY(scm.takeCalls().isEmpty());
    }

    void commandNeedsARunningService()
    {
        FakeScm scm;
        addInstalled(scm, Scm::StateStopped);
        QVERIFY(!QtServiceController(Name).sendCommand(1));
        QVERIFY(scm.callsOf(u"controlService"_s).isEmpty());
        QCOMPARE(scm.openHandles(), 0);
    }

    void serviceFilePathNeedsNoServiceManager()
    {
        FakeScm scm;
        scm.makeUnavailable();
        QVERIFY(QtServiceController::serviceFilePath().contains(u"tst_qtservicecontroller"_s));
    }
};

QTEST_APPLESS_MAIN(TestQtServiceController)
#include "tst_qtservicecontroller.moc"
