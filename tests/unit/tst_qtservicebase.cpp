// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"
#include "tests/support/capturedoutput.h"
#include "tests/support/fakescm.h"
#include "tests/support/testservice.h"

#include <QCoreApplication>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString Name = u"Quill Mere"_s;

constexpr auto Usage =
    "\n/opt/quill/quillmere -[i|u|e|t|p|r|c|v|h]\n\t-i(nstall) [account] [password]\t: Install the service, "
    "optionally using given account and password\n\t-u(ninstall)\t: Uninstall the service.\n\t-e(xec)\t\t: "
    "Run as "
    "a regular application. Useful for debugging.\n\t-t(erminate)\t: Stop the service.\n\t-p(ause)\t: Pause "
    "the "
    "service.\n\t-r(esume)\t: Resume a paused service.\n\t-c(ommand) num\t: Send command code num to the "
    "service.\n\t-v(ersion)\t: Print version and status information.\n\t-h(elp)   \t: Show this help\n\tNo "
    "arguments\t: Start the service.\n";

struct Outcome
{
    int exitCode = 0;
    QByteArray out;
    QByteArray err;
};

Outcome execute(TestService &service)
{
    const CapturedOutput captured;
    const int exitCode = service.exec();
    return {exitCode, captured.out(), captured.err()};
}

Outcome execute(const QStringList &options)
{
    TestService service(options);
    return execute(service);
}

} // namespace

class TestQtServiceBase : public QObject
{
    Q_OBJECT

private slots:
    void obeysTheCommandLine_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<bool>("installed");
        QTest::addColumn<QString>("failing");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QByteArray>("out");
        QTest::addColumn<QByteArray>("err");
        const QString none;
        const auto both = [](const QString &shortForm, const QString &longForm, bool installed,
                             const QString &failing, int exitCode, const QByteArray &out,
                             const QByteArray &err, const char *tag) {
            for (const QString &option : {shortForm, longForm}) {
                QTest::addRow("%s %s", qPrintable(option), tag)
                    << QStringList{option} << installed << failing << exitCode << out << err;
            }
        };
        both(u"-i"_s, u"-install"_s, true, none, 0, "", "The service Quill Mere is already installed\n",
             "twice");
        both(u"-i"_s, u"-install"_s, false, u"createService"_s, -1, "",
             "The service Quill Mere could not be installed\n", "refused");
        both(u"-u"_s, u"-uninstall"_s, false, none, 0, "", "The service Quill Mere is not installed\n",
             "not installed");
        both(u"-u"_s, u"-uninstall"_s, true, none, 0, "The service Quill Mere has been uninstalled.\n", "",
             "done");
        both(u"-u"_s, u"-uninstall"_s, true, u"deleteService"_s, -1, "",
             "The service Quill Mere could not be uninstalled\n", "refused");
        both(u"-v"_s, u"-version"_s, false, none, 0,
             "The service\n\tQuill Mere\n\t/opt/quill/quillmere\n\nis not installed and not running\n\n", "",
             "not installed");
        both(u"-h"_s, u"-help"_s, false, none, 0, Usage, "", "");
        both(u"-p"_s, u"-pause"_s, true, none, 0, "", "", "");
        both(u"-r"_s, u"-resume"_s, true, none, 0, "", "", "");
        both(u"-c"_s, u"-command"_s, true, none, 0, "", "", "");
        for (const QString &option : {u"-I"_s, u"--install"_s, u"/install"_s, u"-inst"_s, u"-instal"_s, u""_s,
                                      u"install"_s, u"-V"_s, u"--help"_s, u"-exec "_s}) {
            QTest::addRow("'%s' starts the service", qPrintable(option))
                << QStringList{option} << true << none << 0 << QByteArray() << QByteArray();
            QTest::addRow("'%s' cannot start the service", qPrintable(option))
                << QStringList{option} << false << none << -4 << QByteArray()
                << QByteArray("The service Quill Mere could not start\n");
        }
        QTest::newRow("nothing starts the service")
            << QStringList() << true << none << 0 << QByteArray() << QByteArray();
        QTest::newRow("nothing cannot start the service")
            << QStringList() << false << none << -4 << QByteArray()
            << QByteArray("The service Quill Mere could not start\n");
        QTest::newRow("only the first argument is an option")
            << QStringList{u"x"_s, u"-i"_s} << false << none << -4 << QByteArray()
            << QByteArray("The service Quill Mere could not start\n");
    }

    void obeysTheCommandLine()
    {
        QFETCH(QStringList, options);
        QFETCH(bool, installed);
        QFETCH(QString, failing);
        FakeScm scm;
        if (installed) {
            scm.services[Name] = {};
        }
        if (!failing.isEmpty()) {
            scm.fail(failing, Scm::ErrorAccessDenied);
        }
        const Outcome outcome = execute(options);
        QTEST(outcome.exitCode, "exitCode");
        QTEST(outcome.out, "out");
        QTEST(outcome.err, "err");
        QCOMPARE(scm.openHandles(), 0);
        QVERIFY(scm.events().isEmpty());
    }

    void installsUnderItsPath()
    {
        FakeScm scm;
        const Outcome outcome = execute({u"-install"_s});
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.out, "The service Quill Mere has been installed under: " +
                                  platform.executablePath().toLatin1() + '\n');
        QCOMPARE(outcome.err, QByteArray());
        QVERIFY(scm.services.contains(Name));
    }

    void installsWithAccountAndPassword()
    {
        FakeScm scm;
        QCOMPARE(execute({u"-i"_s, u"someone"_s, u"secret"_s}).exitCode, 0);
        QCOMPARE(scm.services.value(Name).account, u".\\someone"_s);
        QCOMPARE(scm.services.value(Name).password, u"secret"_s);
    }

    void showsTheStatusOfTheService_data()
    {
        QTest::addColumn<Scm::Dword>("state");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("stopped") << Scm::Dword(1) << QByteArray("is installed and not running\n\n");
        QTest::newRow("start pending") << Scm::Dword(2) << QByteArray("is installed and running\n\n");
        QTest::newRow("running") << Scm::Dword(4) << QByteArray("is installed and running\n\n");
        QTest::newRow("paused") << Scm::Dword(7) << QByteArray("is installed and running\n\n");
    }

    void showsTheStatusOfTheService()
    {
        QFETCH(Scm::Dword, state);
        QFETCH(QByteArray, line);
        FakeScm scm;
        scm.services[Name].state = state;
        const Outcome outcome = execute({u"-v"_s});
        QCOMPARE(outcome.out, "The service\n\tQuill Mere\n\t/opt/quill/quillmere\n\n" + line);
        QCOMPARE(outcome.exitCode, 0);
    }

    void saysNothingOfRefusedControls_data()
    {
        QTest::addColumn<QString>("option");
        QTest::newRow("pause") << u"-p"_s;
        QTest::newRow("resume") << u"-r"_s;
        QTest::newRow("command") << u"-c"_s;
    }

    void saysNothingOfRefusedControls()
    {
        QFETCH(QString, option);
        FakeScm scm;
        scm.services[Name].state = Scm::StateRunning;
        scm.fail(u"controlService"_s, Scm::ErrorServiceNotAcceptingControl);
        const Outcome outcome = execute({option});
        QCOMPARE(scm.callsOf(u"controlService"_s).size(), 1);
        QCOMPARE(outcome.exitCode, 0);
        QCOMPARE(outcome.out, QByteArray());
        QCOMPARE(outcome.err, QByteArray());
    }

    void stopFailureIsAWarningOnly()
    {
        FakeScm scm;
        for (const QString &option : {u"-t"_s, u"-terminate"_s}) {
            // Not installed: the error is that of the call that failed.
            QTest::ignoreMessage(QtCriticalMsg, "The service could not be stopped. (100%s sure: error 1060)");
            const Outcome outcome = execute({option});
            QCOMPARE(outcome.exitCode, 0);
            QCOMPARE(outcome.out, QByteArray());
            QCOMPARE(outcome.err, QByteArray());
        }
        scm.services[Name].state = Scm::StateStopped;
        QTest::ignoreMessage(QtCriticalMsg, "stopping (100%s sure: error 1062)");
        QTest::ignoreMessage(QtCriticalMsg, "The service could not be stopped. (100%s sure: error 1062)");
        QCOMPARE(execute({u"-t"_s}).exitCode, 0);

        scm.services[Name].state = Scm::StateStopPending;
        scm.statesToReport = {Scm::StateStopped};
        QCOMPARE(execute({u"-t"_s}).exitCode, 0);
        QVERIFY(scm.events().isEmpty());
    }

    void readsTheCommandNumber_data()
    {
        QTest::addColumn<QStringList>("options");
        QTest::addColumn<QStringList>("sent");
        const QStringList none;
        QTest::newRow("missing") << QStringList{u"-c"_s} << QStringList{u"controlService 128"_s};
        QTest::newRow("no number") << QStringList{u"-c"_s, u"x"_s} << QStringList{u"controlService 128"_s};
        QTest::newRow("not decimal") << QStringList{u"-c"_s, u"0x10"_s}
                                     << QStringList{u"controlService 128"_s};
        QTest::newRow("0") << QStringList{u"-c"_s, u"0"_s} << QStringList{u"controlService 128"_s};
        QTest::newRow("127") << QStringList{u"-command"_s, u"127"_s} << QStringList{u"controlService 255"_s};
        QTest::newRow("leading zeros")
            << QStringList{u"-c"_s, u"010"_s} << QStringList{u"controlService 138"_s};
        QTest::newRow("128") << QStringList{u"-c"_s, u"128"_s} << none;
        QTest::newRow("-1") << QStringList{u"-c"_s, u"-1"_s} << none;
    }

    void readsTheCommandNumber()
    {
        QFETCH(QStringList, options);
        FakeScm scm;
        scm.services[Name].state = Scm::StateRunning;
        const Outcome outcome = execute(options);
        QCOMPARE(outcome.exitCode, 0);
        QTEST(scm.callsOf(u"controlService"_s), "sent");
    }

    void consoleStartPassesTheArgumentsOn()
    {
        FakeScm scm;
        scm.services[Name] = {};
        QCOMPARE(execute({u"one"_s, u"Größe"_s}).exitCode, 0);
        QCOMPARE(scm.services.value(Name).startParameters, QStringList({u"one"_s, u"Größe"_s}));
        // It is starting now; a second start is refused.
        const Outcome again = execute(QStringList());
        QCOMPARE(again.exitCode, -4);
        QCOMPARE(again.err, QByteArray("The service Quill Mere could not start\n"));
    }

    void executesInTheForeground_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<int>("exitCode");
        QTest::newRow("short") << u"-e"_s << 0;
        QTest::newRow("long") << u"-exec"_s << 0;
        QTest::newRow("with a result") << u"-e"_s << 7;
    }

    void executesInTheForeground()
    {
        QFETCH(QString, option);
        QFETCH(int, exitCode);
        FakeScm scm;
        TestService service({option, u"x"_s, u"-i"_s});
        service.onCall = [exitCode](const QString &) { QCoreApplication::exit(exitCode); };
        const Outcome outcome = execute(service);
        QCOMPARE(outcome.exitCode, exitCode);
        QCOMPARE(outcome.out, QByteArray());
        QCOMPARE(outcome.err, QByteArray());
        QCOMPARE(service.applicationArguments, QStringList({u"/opt/quill/quillmere"_s, u"x"_s, u"-i"_s}));
        QCOMPARE(service.takeCalls(), QStringList{u"start"_s}); // and no stop
        QVERIFY(service.allOnMainThread);
        QVERIFY(!QCoreApplication::instance());
        QVERIFY(scm.takeCalls().isEmpty());
    }

    void executionFailureIsAWarning()
    {
        FakeScm scm;
        TestService service({u"-e"_s});
        service.withoutApplication = true;
        QTest::ignoreMessage(QtCriticalMsg, "The service could not be executed. (100%s sure: error 0)");
        const Outcome outcome = execute(service);
        QCOMPARE(outcome.exitCode, -1);
        QCOMPARE(outcome.err, QByteArray());
        QVERIFY(service.takeCalls().isEmpty());

        // An event loop that ends with -1 is told the same way.
        TestService ending({u"-e"_s});
        ending.onCall = [](const QString &) { QCoreApplication::exit(-1); };
        QTest::ignoreMessage(QtCriticalMsg, "The service could not be executed. (100%s sure: error 0)");
        QCOMPARE(execute(ending).exitCode, -1);
    }

    void printsNamesAsTheyAre()
    {
        FakeScm scm;
        TestService percent({u"-u"_s}, u"50%s off %n"_s);
        QCOMPARE(execute(percent).err, QByteArray("The service 50%s off %n is not installed\n"));
        TestService latin({u"-u"_s}, u"Größe €"_s);
        QCOMPARE(execute(latin).err, u"The service Größe ? is not installed\n"_s.toLatin1());
    }

    void keepsAnOrdinaryName()
    {
        const TestService service({}, QString(255, u'x'));
        QCOMPARE(service.serviceName(), QString(255, u'x'));
    }

    void cutsALongName()
    {
        // What is cut off is not looked at any more: its backslash is no second warning.
        QTest::ignoreMessage(QtWarningMsg, "QtService: 'name' is longer than 255 characters.");
        const TestService service({}, QString(299, u'x') + u'\\');
        QCOMPARE(service.serviceName(), QString(255, u'x'));

        QTest::ignoreMessage(QtWarningMsg, "QtService: 'name' is longer than 255 characters.");
        QTest::ignoreMessage(QtWarningMsg, "QtService: 'name' contains backslashes '\\'.");
        const TestService both({}, u'\\' + QString(299, u'x'));
        QCOMPARE(both.serviceName(), QChar(0) + QString(254, u'x'));
    }

    void warnsOnceOfEachFault()
    {
        static QStringList warnings;
        warnings.clear();
        const auto handler = qInstallMessageHandler(
            [](QtMsgType, const QMessageLogContext &, const QString &text) { warnings.append(text); });
        {
            const TestService service({}, u'\\' + QString(299, u'x') + u'\\');
            (void)service.serviceName();
        }
        qInstallMessageHandler(handler);
        QCOMPARE(warnings, QStringList({u"QtService: 'name' is longer than 255 characters."_s,
                                        u"QtService: 'name' contains backslashes '\\'."_s}));
    }

    void backslashesEndTheName()
    {
        FakeScm scm;
        scm.services[u"Quill"_s].state = Scm::StateRunning;
        QTest::ignoreMessage(QtWarningMsg, "QtService: 'name' contains backslashes '\\'.");
        TestService service({u"-i"_s}, u"Quill\\Mere\\"_s);
        QCOMPARE(service.serviceName(), u"Quill"_s + QChar(0) + u"Mere"_s + QChar(0));
        QCOMPARE(execute(service).err, QByteArray("The service Quill is already installed\n"));
        QCOMPARE(scm.callsOf(u"openService"_s), QStringList{u"openService Quill 0x1"_s});
    }

    void instanceIsTheLatestObject()
    {
        const TestService first({});
        QCOMPARE(QtServiceBase::instance(), &first);
        {
            const TestService second({});
            QCOMPARE(QtServiceBase::instance(), &second);
        }
        QVERIFY(!QtServiceBase::instance());
    }

    void hasPlainDefaults()
    {
        const TestService service({});
        QCOMPARE(service.serviceDescription(), QString());
        QCOMPARE(service.startupType(), QtServiceBase::ManualStartup);
        QCOMPARE(service.serviceFlags(), QtServiceBase::ServiceFlags(QtServiceBase::Default));
    }

    // What a service leaves out is no failure of it.
    void operationsNeedNotBeThere()
    {
        class PlainService : public QtService<QCoreApplication>
        {
        public:
            using QtService<QCoreApplication>::QtService;
            using QtServiceBase::pause;
            using QtServiceBase::processCommand;
            using QtServiceBase::resume;
            using QtServiceBase::stop;

        protected:
            void start() override {}
        };
        char program[] = "quillmere";
        char *arguments[] = {program, nullptr};
        PlainService service(1, arguments, u"Quill Mere"_s);
        service.pause();
        service.resume();
        service.processCommand(127);
        service.stop();
        QCOMPARE(QtServiceBase::instance(), &service);
    }
};

QTEST_APPLESS_MAIN(TestQtServiceBase)
#include "tst_qtservicebase.moc"
