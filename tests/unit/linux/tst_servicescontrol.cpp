// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/services.h"

#include "service/linux/controlsocket.h"
#include "service/linux/errors.h"
#include "service/linux/startparameters.h"
#include "service/linux/systemd.h"
#include "tests/unit/linux/fakesystemd.h"

#include <QDir>
#include <QTest>

#include <systemd/sd-bus-protocol.h>

#include <atomic>
#include <memory>
#include <thread>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

// A service that listens on the control socket and answers every control as it is told.
class ListeningService
{
public:
    ListeningService(const QString &runtimeFolder, const ControlAnswer &given) : answer(given)
    {
        QDir(runtimeFolder).mkpath(u"quill-mere"_s);
        socket = std::make_unique<ControlSocket>(QFile::encodeName(runtimeFolder + u"/quill-mere") +
                                                 ControlSocketName);
        thread = std::thread([this] {
            while (!isEnding) {
                std::vector<pollfd> descriptors;
                socket->appendTo(descriptors);
                ::poll(descriptors.data(), descriptors.size(), 20);
                socket->serve([this](Scm::Dword control) {
                    received = control;
                    return answer;
                });
            }
        });
    }
    ~ListeningService()
    {
        isEnding = true;
        thread.join();
    }
    Q_DISABLE_COPY_MOVE(ListeningService)

    std::atomic<Scm::Dword> received{0};

private:
    ControlAnswer answer;
    std::unique_ptr<ControlSocket> socket;
    std::atomic<bool> isEnding{false};
    std::thread thread;
};

} // namespace

class TestServicesControl : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        systemd = std::make_unique<FakeSystemd>();
        status = {};
    }

    void cleanup() { systemd.reset(); }

    void tellsTheStatus()
    {
        systemd->shows(Shown::Running);
        QCOMPARE(queryServiceStatus(&handle, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateRunning));
        QCOMPARE(status.serviceType, Scm::Dword(Scm::OwnProcess));
        QCOMPARE(status.win32ExitCode, 0u);
        systemd->shows(Shown::Stopped + "ExecMainStatus=252\n");
        QCOMPARE(queryServiceStatus(&handle, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateStopped));
        QCOMPARE(status.win32ExitCode, 252u);
        systemd->fails("GetAll", SD_BUS_ERROR_FAILED);
        QVERIFY(!queryServiceStatus(&handle, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorManagerUnavailable));
    }

    void statusOfADeletedService()
    {
        systemd->shows("LoadState=not-found\nActiveState=active\n");
        QCOMPARE(queryServiceStatus(&handle, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateRunning));
        // Whoever waits for its end sees it.
        systemd->shows(Shown::Absent);
        QCOMPARE(queryServiceStatus(&handle, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateStopped));
    }

    void whoCannotAskSeesTheRuntimeFolder()
    {
        QVERIFY(QDir(systemd->runtimeFolder()).mkdir(u"quill-mere"_s));
        systemd->shows(Shown::Stopped); // who can ask believes systemd
        QCOMPARE(queryServiceStatus(&handle, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateStopped));
        places().managerSocket = "/nowhere";
        places().busSocket = "/nowhere";
        QCOMPARE(queryServiceStatus(&handle, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateRunning));
        // What would change something is not left to a guess.
        QVERIFY(!startService(&handle, 0, nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorManagerUnavailable));
        QVERIFY(QDir(systemd->runtimeFolder()).rmdir(u"quill-mere"_s));
        QVERIFY(!queryServiceStatus(&handle, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorManagerUnavailable));
    }

    void startsAndWaitsForTheReport()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows(Shown::Starting);
        QCOMPARE(startService(&handle, 0, nullptr), 1);
        QCOMPARE(systemd->calls(), QByteArrayList{"StartUnit quill-mere.service replace"});
        QVERIFY(QDir(systemd->runtimeFolder()).isEmpty());
    }

    void startHandsParametersOver()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows(Shown::Running);
        const std::array<const Scm::Char *, 4> parameters = {u"first one", u"", u"Größe\n", u"-x"};
        QCOMPARE(startService(&handle, 4, const_cast<const Scm::Char **>(parameters.data())), 1);
        const QByteArray folder = QFile::encodeName(systemd->runtimeFolder() + u"/quill-mere");
        QCOMPARE(QFile::permissions(QFile::decodeName(folder + "/start-parameters")) & 0x0077,
                 QFileDevice::Permissions());
        const QStringList expected = {u"first one"_s, QString(), u"Größe\n"_s, u"-x"_s};
        QCOMPARE(takeStartParameters(folder), expected);
        QCOMPARE(takeStartParameters(folder), QStringList());
        QCOMPARE(takeStartParameters("/nowhere"), QStringList());
    }

    void startNeedsAPlaceForItsParameters()
    {
        systemd->shows(Shown::Stopped);
        systemd->writeFile(systemd->runtimeFolder() + u"/quill-mere", "a file");
        const std::array<const Scm::Char *, 1> parameters = {u"one"};
        QVERIFY(!startService(&handle, 1, const_cast<const Scm::Char **>(parameters.data())));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        QVERIFY(systemd->calls().isEmpty());
    }

    void startRefusesParametersThatAreTooLong()
    {
        systemd->shows(Shown::Stopped);
        const std::u16string tooLong(1 << 20, u'x');
        const std::array<const Scm::Char *, 1> parameters = {tooLong.c_str()};
        QVERIFY(!startService(&handle, 1, const_cast<const Scm::Char **>(parameters.data())));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidParameter));
        QVERIFY(systemd->calls().isEmpty());
        QVERIFY(QDir(systemd->runtimeFolder()).isEmpty());

        const QByteArray directory = runtimeDirectory(u"quill-mere"_s);
        QVERIFY(storeStartParameters(directory, {u"of another start"_s}));
        QVERIFY(!startService(&handle, 1, const_cast<const Scm::Char **>(parameters.data())));
        QCOMPARE(takeStartParameters(directory), QStringList{u"of another start"_s});
    }

    void startRefuses_data()
    {
        QTest::addColumn<QByteArray>("shown");
        QTest::addColumn<uint>("error");
        QTest::newRow("running") << Shown::Running << uint(Scm::ErrorServiceAlreadyRunning);
        QTest::newRow("starting") << Shown::Starting << uint(Scm::ErrorServiceAlreadyRunning);
        QTest::newRow("stopping") << QByteArray("LoadState=loaded\nActiveState=deactivating\n")
                                  << uint(Scm::ErrorServiceAlreadyRunning);
        QTest::newRow("masked") << QByteArray("LoadState=masked\nActiveState=inactive\n")
                                << uint(ErrorServiceDisabled);
        QTest::newRow("absent") << Shown::Absent << uint(Scm::ErrorServiceDoesNotExist);
    }

    void startRefuses()
    {
        QFETCH(QByteArray, shown);
        QFETCH(uint, error);
        systemd->shows(shown);
        QVERIFY(!startService(&handle, 0, nullptr));
        QCOMPARE(Linux::lastError(), error);
        QVERIFY(systemd->calls().isEmpty());
    }

    void startThatSystemdRefusesLeavesNoParameters()
    {
        systemd->shows(Shown::Stopped);
        systemd->fails("StartUnit", SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED);
        const Scm::Char *parameter = u"x";
        QVERIFY(!startService(&handle, 1, &parameter));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
        QVERIFY(QDir(systemd->runtimeFolder()).isEmpty());
    }

    void startThatFailsAtOnceIsStopped()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows(
            "LoadState=loaded\nActiveState=activating\nSubState=auto-restart\nInvocationID=2\n");
        QVERIFY(!startService(&handle, 0, nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorProcessAborted));
        QCOMPARE(systemd->calls().last(), QByteArray("StopUnit quill-mere.service replace"));
    }

    void startThatEndedAlreadyHasBegun()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows("LoadState=loaded\nActiveState=inactive\nInvocationID=2\nExecMainStatus=0\n");
        QCOMPARE(startService(&handle, 0, nullptr), 1);
    }

    // systemd is started anew, say.
    void startOutlivesALostConnection()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows(Shown::Running);
        systemd->breaksAtQuery(2);
        places().timeoutMilliseconds = 5000;
        QCOMPARE(startService(&handle, 0, nullptr), 1);
        QCOMPARE(systemd->connections(), 2);
    }

    void startThatNeverReportsTimesOut()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows("LoadState=loaded\nActiveState=activating\nSubState=start\nInvocationID=2\n");
        places().timeoutMilliseconds = 500;
        QVERIFY(!startService(&handle, 0, nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorRequestTimeout));
    }

    void startThatNeverBeginsLeavesNoParameters()
    {
        systemd->shows(Shown::Stopped);
        places().timeoutMilliseconds = 500;
        const Scm::Char *parameter = u"x";
        QVERIFY(!startService(&handle, 1, &parameter));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorRequestTimeout));
        QVERIFY(QDir(systemd->runtimeFolder()).isEmpty());
    }

    void startThatFailsLeavesALivingServiceItsFolder()
    {
        systemd->shows(Shown::Stopped);
        systemd->thenShows("LoadState=loaded\nActiveState=activating\nSubState=start\nInvocationID=2\n");
        places().timeoutMilliseconds = 500;
        const Scm::Char *parameter = u"x";
        QVERIFY(!startService(&handle, 1, &parameter));
        const QDir folder(systemd->runtimeFolder() + u"/quill-mere");
        QVERIFY(folder.exists());
        QVERIFY(folder.isEmpty());
    }

    void sendsControls_data()
    {
        QTest::addColumn<uint>("control");
        for (const uint control : {2u, 3u, 4u, 128u, 200u, 255u}) {
            QTest::addRow("%u", control) << control;
        }
    }

    void sendsControls()
    {
        QFETCH(uint, control);
        systemd->shows(Shown::Running);
        ListeningService service(systemd->runtimeFolder(), {0, Scm::StatePaused, 3, 7});
        QCOMPARE(controlService(&handle, control, &status), 1);
        QCOMPARE(service.received.load(), control);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StatePaused));
        QCOMPARE(status.controlsAccepted, 3u);
        QCOMPARE(status.win32ExitCode, 7u);
        QVERIFY(systemd->calls().isEmpty());
    }

    void refusesWhatCannotBeSent_data()
    {
        QTest::addColumn<uint>("control");
        for (const uint control : {0u, 5u, 6u, 127u, 256u, 0xFFFFFFFFu}) {
            QTest::addRow("%u", control) << control;
        }
    }

    void refusesWhatCannotBeSent()
    {
        QFETCH(uint, control);
        systemd->shows(Shown::Running);
        ListeningService service(systemd->runtimeFolder(), {});
        QVERIFY(!controlService(&handle, control, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidParameter));
        QCOMPARE(service.received.load(), 0u);
    }

    void refusedControlTellsWhy()
    {
        systemd->shows(Shown::Running);
        ListeningService service(systemd->runtimeFolder(), {Scm::ErrorServiceNotAcceptingControl, 4, 1, 0});
        QVERIFY(!controlService(&handle, Scm::ControlPause, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceNotAcceptingControl));
    }

    void controlOfAServiceThatDoesNotRun()
    {
        for (const Scm::Dword control : {1u, 2u, 3u, 4u, 200u}) {
            systemd->shows(Shown::Stopped);
            QVERIFY(!controlService(&handle, control, &status));
            QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceNotActive));
            systemd->shows(Shown::Absent);
            QVERIFY(!controlService(&handle, control, &status));
            QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceDoesNotExist));
        }
        QVERIFY(!controlService(nullptr, 200, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
    }

    void controlOfAServiceThatDoesNotListen()
    {
        systemd->shows(Shown::Running);
        QVERIFY(!controlService(&handle, 200, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceNotActive));
        QCOMPARE(controlService(&handle, Scm::ControlStop, &status), 1); // it can be stopped nevertheless
        QCOMPARE(systemd->calls(), QByteArrayList{"StopUnit quill-mere.service replace"});
    }

    // It listens, so that clients can connect and send, and never answers.
    void controlOfAFrozenService()
    {
        systemd->shows(Shown::Running);
        QVERIFY(QDir(systemd->runtimeFolder()).mkpath(u"quill-mere"_s));
        const ControlSocket frozen(QFile::encodeName(systemd->runtimeFolder() + u"/quill-mere") +
                                   ControlSocketName);
        QVERIFY(frozen.isOpen());
        QCOMPARE_LE(AnswerMilliseconds, 2000);
        for (const Scm::Dword control : {2u, 3u, 200u}) {
            QVERIFY(!controlService(&handle, control, &status));
            QCOMPARE(Linux::lastError(), Scm::Dword(ErrorRequestTimeout));
        }
    }

    void stopIsSystemdsAlone()
    {
        systemd->shows(Shown::Running);
        // Not even a service that would refuse is asked.
        ListeningService service(systemd->runtimeFolder(), {Scm::ErrorServiceNotAcceptingControl, 4, 0, 0});
        QCOMPARE(controlService(&handle, Scm::ControlStop, &status), 1);
        QCOMPARE(service.received.load(), 0u);
        QCOMPARE(status.currentState,
                 Scm::Dword(Scm::StateStopPending)); // though systemd still shows it running
        QCOMPARE(systemd->calls(), QByteArrayList{"StopUnit quill-mere.service replace"});
        systemd->thenShows(Shown::Stopped);
        QCOMPARE(controlService(&handle, Scm::ControlStop, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateStopped));
    }

    // systemd is started anew, say: what it was told it does.
    void stopThatIsTakenIsNoFailureWithoutItsState()
    {
        systemd->shows(Shown::Running);
        systemd->breaksAtQuery(2);
        QCOMPARE(controlService(&handle, Scm::ControlStop, &status), 1);
        QCOMPARE(status.currentState, Scm::Dword(Scm::StateStopPending));
        QCOMPARE(systemd->calls(), QByteArrayList{"StopUnit quill-mere.service replace"});
    }

    void stopWithoutRights()
    {
        systemd->shows(Shown::Running);
        systemd->fails("StopUnit", SD_BUS_ERROR_ACCESS_DENIED);
        QVERIFY(!controlService(&handle, Scm::ControlStop, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorAccessDenied));
    }

private:
    std::unique_ptr<FakeSystemd> systemd;
    ServiceHandle handle{u"quill-mere"_s};
    Scm::Status status{};
};

QTEST_GUILESS_MAIN(TestServicesControl)
#include "tst_servicescontrol.moc"
