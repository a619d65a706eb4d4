// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtservicecontrollerhandler.h"
#include "service/serviceruntime.h"
#include "tests/support/capturedoutput.h"
#include "tests/support/fakescm.h"
#include "tests/support/testservice.h"

#include <QAbstractEventDispatcher>
#include <QCoreApplication>
#include <QMap>
#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

const QString Name = u"Quill Mere"_s;

// Runs the service as the service manager would, with an operator on a thread of its own; the main thread is
// the service's.
int runService(TestService &service, const std::function<void()> &operate)
{
    std::thread operating(operate);
    const int exitCode = service.exec();
    operating.join();
    return exitCode;
}

// The answer that repeats the status after a stop races with the last report, and either may be the first.
QList<Scm::Dword> withoutRepeats(const QList<Scm::Dword> &states)
{
    QList<Scm::Dword> result;
    for (const Scm::Dword state : states) {
        if (result.isEmpty() || result.last() != state) {
            result.append(state);
        }
    }
    return result;
}

void stopWhenRunning(FakeScm &scm)
{
    scm.waitForState(Scm::StateRunning);
    scm.postControl(Scm::ControlStop);
}

} // namespace

class TestServiceRuntime : public QObject
{
    Q_OBJECT

private slots:
    void runsFromStartToStop()
    {
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        QByteArray out;
        QByteArray err;
        int exitCode = -1;
        {
            const CapturedOutput captured;
            exitCode = runService(service, [&scm] { stopWhenRunning(scm); });
            out = captured.out();
            err = captured.err();
        }
        QCOMPARE(exitCode, 0);
        QCOMPARE(out, QByteArray());
        QCOMPARE(err, QByteArray());
        QCOMPARE(service.takeCalls(), QStringList({u"start"_s, u"stop"_s}));
        QVERIFY(service.allOnMainThread);
        QCOMPARE(withoutRepeats(scm.reportedStates()), QList<Scm::Dword>({2, 4, 3, 1}));
        QCOMPARE(scm.callsOf(u"startServiceCtrlDispatcher"_s),
                 QStringList{u"startServiceCtrlDispatcher Quill Mere"_s});
        QCOMPARE(scm.callsOf(u"registerServiceCtrlHandler"_s),
                 QStringList{u"registerServiceCtrlHandler Quill Mere"_s});
        QVERIFY(scm.statusHandle());
        const Scm::Status last = scm.reports().last();
        QCOMPARE(last.serviceType, Scm::Dword(0x110));
        QCOMPARE(last.controlsAccepted, Scm::Dword(1));
        QCOMPARE(last.win32ExitCode, Scm::Dword(0));
        QCOMPARE(last.serviceSpecificExitCode, Scm::Dword(0));
        QCOMPARE(last.checkPoint, Scm::Dword(0));
        QCOMPARE(last.waitHint, Scm::Dword(0));
        QVERIFY(scm.dispatcherThread() != std::this_thread::get_id());
        QVERIFY(scm.mainFunctionThread() != std::this_thread::get_id());
        QVERIFY(!ServiceRuntime::current());
        QVERIFY(!QCoreApplication::instance());
        QVERIFY(scm.events().isEmpty());
        QCOMPARE(scm.openHandles(), 0);
    }

    void runsTwiceInOneProcess()
    {
        FakeScm scm;
        TestService service({});
        for (int run = 0; run < 3; ++run) {
            scm.launch({Name});
            QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
            QCOMPARE(service.takeCalls(), QStringList({u"start"_s, u"stop"_s}));
            QCOMPARE(withoutRepeats(scm.reportedStates()), QList<Scm::Dword>({2, 4, 3, 1}));
        }
    }

    // The control handler's own last report comes before the end, however the threads run.
    void answersTheStopBeforeItReportsTheEnd()
    {
        FakeScm scm;
        TestService service({});
        for (int run = 0; run < 50; ++run) {
            scm.launch({Name});
            const qsizetype before = scm.reports().size();
            QCOMPARE(runService(service,
                                [&scm] {
                                    scm.waitForServiceMain();
                                    scm.postControl(Scm::ControlStop);
                                }),
                     0);
            QCOMPARE(scm.reportedStates().mid(before), QList<Scm::Dword>({2, 4, 4, 3, 3, 1}));
        }
    }

    void passesTheStartParametersToTheApplication()
    {
        FakeScm scm;
        scm.launch({Name, u"one"_s, u"with blank"_s, u"Größe"_s});
        TestService service({u"ignored"_s});
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        QCOMPARE(service.applicationArguments, QStringList({Name, u"one"_s, u"with blank"_s, u"Größe"_s}));
    }

    void acceptsControlsByItsFlags_data()
    {
        QTest::addColumn<int>("flags");
        QTest::addColumn<Scm::Dword>("accepted");
        for (int flags = 0; flags < 8; ++flags) {
            const Scm::Dword accepted[] = {1, 3, 0, 2, 5, 7, 4, 6};
            QTest::addRow("flags %d", flags) << flags << accepted[flags];
        }
    }

    void acceptsControlsByItsFlags()
    {
        QFETCH(int, flags);
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        service.setServiceFlags(QtServiceBase::ServiceFlags(flags));
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        for (const Scm::Status &status : scm.reports()) {
            QTEST(status.controlsAccepted, "accepted");
        }
    }

    void answersEachControl_data()
    {
        using States = QList<Scm::Dword>;
        QTest::addColumn<Scm::Dword>("code");
        QTest::addColumn<States>("states");
        QTest::addColumn<QStringList>("calls");
        const QStringList none;
        QTest::newRow("pause") << Scm::Dword(2) << States{6, 7, 7} << QStringList{u"pause"_s};
        QTest::newRow("continue") << Scm::Dword(3) << States{5, 4, 4} << QStringList{u"resume"_s};
        QTest::newRow("interrogate") << Scm::Dword(4) << States{4} << none;
        QTest::newRow("none") << Scm::Dword(0) << States{4} << none;
        QTest::newRow("unknown 6") << Scm::Dword(6) << States{4} << none;
        QTest::newRow("unknown 127") << Scm::Dword(127) << States{4} << none;
        QTest::newRow("user 128") << Scm::Dword(128) << States{4} << QStringList{u"processCommand 0"_s};
        QTest::newRow("user 200") << Scm::Dword(200) << States{4} << QStringList{u"processCommand 72"_s};
        QTest::newRow("user 255") << Scm::Dword(255) << States{4} << QStringList{u"processCommand 127"_s};
        QTest::newRow("unknown 257") << Scm::Dword(257) << States{4} << none;
        QTest::newRow("start-up again") << Scm::Dword(256) << States{2, 4, 4} << QStringList{u"start"_s};
    }

    void answersEachControl()
    {
        QFETCH(Scm::Dword, code);
        QFETCH(QList<Scm::Dword>, states);
        QFETCH(QStringList, calls);
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        QList<Scm::Dword> reported;
        const int exitCode = runService(service, [&] {
            scm.waitForServiceMain(); // its own reports are over
            const qsizetype before = scm.reports().size();
            scm.control(code);
            reported = scm.reportedStates().mid(before);
            scm.postControl(Scm::ControlStop);
        });
        QCOMPARE(exitCode, 0);
        QCOMPARE(reported, states);
        QCOMPARE(service.takeCalls(), QStringList{u"start"_s} + calls + QStringList{u"stop"_s});
        QVERIFY(service.allOnMainThread);
    }

    void shutdownStopsWithoutAPendingState()
    {
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        QCOMPARE(runService(service,
                            [&scm] {
                                scm.waitForServiceMain();
                                scm.postControl(Scm::ControlShutdown);
                            }),
                 0);
        QCOMPARE(service.takeCalls(), QStringList({u"start"_s, u"stop"_s}));
        QCOMPARE(withoutRepeats(scm.reportedStates()), QList<Scm::Dword>({2, 4, 1}));
    }

    // Each operation runs after its pending state has been reported and before the next one is.
    void controlsWaitForTheMainThread()
    {
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        service.setServiceFlags(QtServiceBase::CanBeSuspended);
        QMap<QString, Scm::Dword> stateDuring;
        service.onCall = [&](const QString &operation) {
            stateDuring[operation] = scm.reportedStates().last();
        };
        QCOMPARE(runService(service,
                            [&scm] {
                                scm.waitForServiceMain();
                                scm.control(Scm::ControlPause);
                                scm.control(Scm::ControlUserFirst);
                                scm.control(Scm::ControlContinue);
                                scm.postControl(Scm::ControlStop);
                            }),
                 0);
        const QMap<QString, Scm::Dword> expected = {
            {u"start"_s, 2}, {u"pause"_s, 6}, {u"processCommand 0"_s, 7}, {u"resume"_s, 5}, {u"stop"_s, 3}};
        QCOMPARE(stateDuring, expected);
    }

    void reportsTheExitCodeOfTheEventLoop()
    {
        for (const int code : {7, -1}) {
            FakeScm scm;
            scm.launch({Name});
            TestService service({});
            service.onCall = [code](const QString &operation) {
                if (operation == u"processCommand 1"_s) {
                    QCoreApplication::exit(code);
                }
            };
            QCOMPARE(runService(service,
                                [&scm] {
                                    scm.waitForServiceMain();
                                    scm.postControl(129);
                                }),
                     0);
            QCOMPARE(service.takeCalls(), QStringList({u"start"_s, u"processCommand 1"_s}));
            QCOMPARE(scm.reports().last().currentState, Scm::Dword(1));
            QCOMPARE(scm.reports().last().win32ExitCode, static_cast<Scm::Dword>(code));
        }
    }

    void aRunEndedByItsOwnStartHasStoppedLast()
    {
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        service.onCall = [](const QString &) { QCoreApplication::quit(); };
        QCOMPARE(service.exec(), 0);
        QCOMPARE(scm.reports().first().currentState, Scm::Dword(2));
        QCOMPARE(scm.reports().last().currentState, Scm::Dword(1));
        QCOMPARE(scm.reportedStates().count(1), 1);
    }

    // The receiver lets the waiting control handler go after an event of any type, its own or not.
    void anyPostedEventLetsTheControlGo()
    {
        FakeScm scm;
        TestService service({});
        int argc = 0;
        QCoreApplication application(argc, nullptr);
        const std::shared_ptr<ServiceRuntime> runtime = ServiceRuntime::create(service);
        QtServiceControllerHandler receiver(&service, runtime);
        runtime->acceptControls(&receiver);
        std::thread manager([] { ServiceRuntime::controlHandler(Scm::ControlPause); });
        scm.waitForState(Scm::StatePausePending);
        QEvent other(static_cast<QEvent::Type>(1999));
        QCoreApplication::sendEvent(&receiver, &other);
        manager.join();
        QCOMPARE(scm.reportedStates(), QList<Scm::Dword>({6, 7, 7}));
        QVERIFY(service.takeCalls().isEmpty());
        QCoreApplication::sendPostedEvents(&receiver);
        QCOMPARE(service.takeCalls(), QStringList{u"pause"_s});
        runtime->end();
    }

    void asksForTheStartAndEndWaits()
    {
        FakeScm scm;
        scm.launch({Name});
        scm.holdDispatcher();
        TestService service({});
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        QCOMPARE(scm.sleeps(), QStringList({u"start 20000"_s, u"end 1000"_s}));
    }

    void leavesADispatcherAloneThatDoesNotReturn()
    {
        TestService service({});
        {
            FakeScm scm;
            scm.launch({Name});
            scm.holdDispatcher();
            QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
            QCOMPARE(scm.reportedStates().last(), Scm::Dword(1));
            QVERIFY(!ServiceRuntime::current());
            QVERIFY(!QCoreApplication::instance());
        }
        FakeScm scm;
        scm.launch({Name});
        service.takeCalls();
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        QCOMPARE(service.takeCalls(), QStringList({u"start"_s, u"stop"_s}));
    }

    void lateControlsAreIgnored()
    {
        FakeScm scm;
        scm.launch({Name});
        scm.holdDispatcher();
        TestService service({});
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        const qsizetype reports = scm.reports().size();
        service.takeCalls();
        for (const Scm::Dword code : {1U, 2U, 4U, 5U, 200U}) {
            scm.control(code); // returns
        }
        QCOMPARE(scm.reports().size(), reports);
        QVERIFY(service.takeCalls().isEmpty());
    }

    void failsWithoutTheFunctions()
    {
        FakeScm scm;
        scm.makeUnavailable();
        TestService service({});
        QCOMPARE(service.exec(), -4);
        QVERIFY(scm.takeCalls().isEmpty());
        QVERIFY(scm.sleeps().isEmpty());
        QVERIFY(!ServiceRuntime::current());
    }

    void failsWhenNothingStartsInTime()
    {
        FakeScm scm;
        scm.launch({Name});
        scm.withholdServiceMain();
        scm.expireStartWait();
        TestService service({});
        const CapturedOutput captured;
        QCOMPARE(service.exec(), -4);
        QCOMPARE(captured.err(), QByteArray("The service Quill Mere could not start\n"));
        QCOMPARE(scm.sleeps(), QStringList{u"start 20000"_s});
        QVERIFY(!ServiceRuntime::current());
        QVERIFY(service.takeCalls().isEmpty());
        QVERIFY(scm.events().isEmpty());
    }

    void failsWithoutAnApplication()
    {
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        service.withoutApplication = true;
        QCOMPARE(runService(service, [&scm] { scm.waitForServiceMain(); }), -4);
        QVERIFY(scm.reports().isEmpty());
        QVERIFY(scm.callsOf(u"registerServiceCtrlHandler"_s).isEmpty());
        QVERIFY(!ServiceRuntime::current());
    }

    void consoleStartLogsNothing()
    {
        FakeScm scm; // launches nothing: the dispatcher fails with 1063
        TestService service({});
        {
            const CapturedOutput captured;
            QCOMPARE(service.exec(), -4);
            QCOMPARE(captured.err(), QByteArray("The service Quill Mere could not start\n"));
            QCOMPARE(captured.out(), QByteArray());
        }
        QVERIFY(scm.events().isEmpty());
        QCOMPARE(scm.callsOf(u"openService"_s), QStringList{u"openService Quill Mere 0x10"_s});

        scm.services[Name] = {};
        QCOMPARE(service.exec(), 0);
        QCOMPARE(scm.services.value(Name).state, Scm::Dword(Scm::StateStartPending));
        QVERIFY(scm.events().isEmpty());
        QVERIFY(service.takeCalls().isEmpty());
        QVERIFY(!ServiceRuntime::current());
    }

    void otherDispatcherFailuresAreLogged_data()
    {
        QTest::addColumn<Scm::Dword>("error");
        QTest::newRow("access denied") << Scm::Dword(5);
        QTest::newRow("invalid data") << Scm::Dword(13);
        QTest::newRow("already running") << Scm::Dword(1056);
    }

    void otherDispatcherFailuresAreLogged()
    {
        QFETCH(Scm::Dword, error);
        FakeScm scm;
        scm.services[Name] = {};
        scm.fail(u"startServiceCtrlDispatcher"_s, error);
        TestService service({});
        const CapturedOutput captured;
        QCOMPARE(service.exec(), -4);
        QCOMPARE(captured.err(), QByteArray("The service Quill Mere could not start\n"));
        const QString message = u"The Service failed to start [100%s sure: error %1]"_s.arg(error);
        QCOMPARE(scm.events(), (QList<LogRecord>{{Name, 1, 0, 0, message, QByteArray()}}));
        QVERIFY(scm.callsOf(u"startService"_s).isEmpty());
        QCOMPARE(scm.openHandles(), 0);
    }

    void refusedControlHandlerLeavesTheLoopRunning()
    {
        FakeScm scm;
        scm.launch({Name});
        scm.fail(u"registerServiceCtrlHandler"_s, Scm::ErrorServiceDoesNotExist);
        TestService service({});
        qsizetype reportsWhileRunning = -1;
        QCOMPARE(runService(service,
                            [&] {
                                scm.waitForServiceMain();
                                reportsWhileRunning = scm.reports().size();
                                // Only the test ends the loop.
                                QMetaObject::invokeMethod(QCoreApplication::instance(), "quit",
                                                          Qt::QueuedConnection);
                            }),
                 0);
        QCOMPARE(reportsWhileRunning, 0);
        QVERIFY(service.takeCalls().isEmpty());
        QCOMPARE(scm.reportedStates(), QList<Scm::Dword>{1});
        QVERIFY(!scm.statusHandle());
    }

    void refusedStatusChangesNothing()
    {
        FakeScm scm;
        scm.launch({Name});
        scm.fail(u"setServiceStatus"_s, Scm::ErrorAccessDenied);
        TestService service({});
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        QCOMPARE(service.takeCalls(), QStringList({u"start"_s, u"stop"_s}));
    }

    void callbacksWithoutARunDoNothing()
    {
        FakeScm scm;
        ServiceRuntime::serviceMain(0, nullptr);
        ServiceRuntime::controlHandler(Scm::ControlStop);
        QVERIFY(scm.takeCalls().isEmpty());

        // A record but no service object.
        std::shared_ptr<ServiceRuntime> runtime;
        {
            const TestService service({});
            runtime = ServiceRuntime::create(service);
        }
        ServiceRuntime::serviceMain(0, nullptr);
        QVERIFY(!runtime->started.tryAcquire(std::chrono::milliseconds(0)));
        QVERIFY(scm.takeCalls().isEmpty());
        runtime->end();
    }

    void installsTheLogOffFilterInServicesOnly()
    {
        // As the event dispatcher of Windows passes the message on.
        struct
        {
            void *window;
            quint32 message;
            quintptr wParam;
            qintptr lParam;
        } logOff = {nullptr, 0x16, 0, static_cast<qintptr>(0x80000000LL)};
        QMap<QString, bool> swallowed;
        const auto offer = [&](TestService &service, const QString &mode) {
            service.onCall = [&, mode](const QString &operation) {
                if (operation == u"start"_s) {
                    qintptr result = 0;
                    swallowed[mode] = QCoreApplication::eventDispatcher()->filterNativeEvent(
                        "windows_dispatcher_MSG"_ba, &logOff, &result);
                    if (mode == u"exec"_s) {
                        QCoreApplication::quit();
                    }
                }
            };
        };
        FakeScm scm;
        scm.launch({Name});
        TestService service({});
        offer(service, u"service"_s);
        QCOMPARE(runService(service, [&scm] { stopWhenRunning(scm); }), 0);
        TestService foreground({u"-exec"_s});
        offer(foreground, u"exec"_s);
        QCOMPARE(foreground.exec(), 0);
        QCOMPARE(swallowed, (QMap<QString, bool>{{u"exec"_s, false}, {u"service"_s, true}}));
    }
};

QTEST_APPLESS_MAIN(TestServiceRuntime)
#include "tst_serviceruntime.moc"
