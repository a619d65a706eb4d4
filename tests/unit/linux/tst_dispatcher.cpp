// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/dispatcher.h"

#include "service/linux/controlsocket.h"
#include "service/linux/errors.h"
#include "service/linux/startparameters.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>

#include <spawn.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <mutex>
#include <thread>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

// The end of the notification socket that systemd holds.
class NotifySocket
{
public:
    explicit NotifySocket(const QByteArray &path)
        : descriptor(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
        if (::bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0) {
            qFatal("cannot bind %s", path.constData());
        }
    }
    ~NotifySocket() { ::close(descriptor); }
    Q_DISABLE_COPY_MOVE(NotifySocket)

    // Waits for the next notification.
    QByteArray next() const
    {
        std::array<char, 1024> buffer{};
        const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        return {buffer.data(), std::max<ssize_t>(count, 0)};
    }

private:
    int descriptor;
};

// What the functions without a context parameter, which Windows' signatures ask for, work on.
struct Scene
{
    void append(Scm::Dword control)
    {
        const std::lock_guard lock(mutex);
        received.append(control);
    }
    QList<Scm::Dword> controls()
    {
        const std::lock_guard lock(mutex);
        return received;
    }

    QStringList parameters;
    std::atomic<Scm::Dword> accepted{Scm::AcceptStop};
    std::atomic<bool> obeys{true}; // the stop control
    Scm::Handle status = nullptr;
    QSemaphore mayRun;
    QSemaphore controlled;

private:
    std::mutex mutex;
    QList<Scm::Dword> received;
};
Scene *scene = nullptr;
std::atomic<bool> mainHasEnded{false};

bool report(Scm::Dword state)
{
    Scm::Status status{};
    status.currentState = state;
    status.controlsAccepted = scene->accepted;
    return setServiceStatus(scene->status, &status) != 0;
}

void handleControl(Scm::Dword control)
{
    scene->append(control);
    if (control == Scm::ControlStop && scene->obeys) {
        report(Scm::StateStopPending);
        report(Scm::StateStopped);
    }
    scene->controlled.release();
}

void serviceMain(Scm::Dword argc, Scm::Char **argv)
{
    for (Scm::Dword i = 0; i < argc; ++i) {
        scene->parameters.append(QString::fromUtf16(argv[i]));
    }
    scene->status = registerServiceCtrlHandler(u"Quill Mere", handleControl);
    report(Scm::StateStartPending);
    scene->mayRun.acquire();
    report(Scm::StateRunning);
    mainHasEnded = true;
}

// What the signals did before: each something else, and none what it does by default.
class FormerHandlers
{
public:
    FormerHandlers()
    {
        for (size_t i = 0; i < numbers.size(); ++i) {
            struct sigaction action
            {
            };
            action.sa_handler = former[i];
            ::sigaction(numbers[i], &action, &before[i]);
        }
    }
    ~FormerHandlers()
    {
        for (size_t i = 0; i < numbers.size(); ++i) {
            ::sigaction(numbers[i], &before[i], nullptr);
        }
    }
    Q_DISABLE_COPY_MOVE(FormerHandlers)

    bool areBack() const { return count() == 3; }
    bool areAllReplaced() const { return count() == 0; }

private:
    int count() const
    {
        int found = 0;
        for (size_t i = 0; i < numbers.size(); ++i) {
            struct sigaction now
            {
            };
            ::sigaction(numbers[i], nullptr, &now);
            found += now.sa_handler == former[i] ? 1 : 0;
        }
        return found;
    }

    const std::array<int, 3> numbers = {SIGTERM, SIGINT, SIGHUP};
    const std::array<void (*)(int), 3> former = {SIG_IGN, [](int) {}, [](int) { qWarning("hang-up"); }};
    std::array<struct sigaction, 3> before{};
};

// In a process of its own: a service that is to stop, and whose main function then returns without having
// registered a handler.
constexpr auto WithoutAHandler = "QUILLMERE_TEST_WITHOUT_A_HANDLER";

Scm::Bool runWithoutAHandler()
{
    std::u16string name = u"Quill Mere";
    const Scm::ServiceMain main = [](Scm::Dword, Scm::Char **) {
        const QByteArray socket = qgetenv("RUNTIME_DIRECTORY") + ControlSocketName;
        ::kill(::getpid(), SIGTERM);
        for (int turn = 0; turn < 2; ++turn) { // the dispatcher has seen the signal by then
            (void)sendControl(socket, 200, 60000);
        }
    };
    const std::array<Scm::TableEntry, 2> table = {{{name.data(), main}, {nullptr, nullptr}}};
    return startServiceCtrlDispatcher(table.data());
}

} // namespace

class TestDispatcher : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void withoutSystemdItFails();
    void aChildOfAServiceIsNoService();
    void runsAServiceToItsEnd();
    void interruptStopsItInGoodOrder();
    void hangUpIsIgnored();
    void signalsAreGivenBack();
    void mainFunctionThatHangsHoldsNothingUp();
    void serviceWithoutAHandlerEndsByTheSignal();
    void findsItsOwnRuntimeDirectory();
    void handsStartParametersOver();
    void carriesOutControls();
    void refusesControls_data();
    void refusesControls();
    void refusesControlsWhileStarting();
    void stopWaitsForTheStart();
    void stopWaitsThoughTheMainFunctionHasReturned();
    void oneSignalIsOneStop();
    void handlersNeedADispatcher();
    void reportsEveryState();
    void processHasOneDispatcher();

private:
    void dispatch()
    {
        thread = std::thread([this] {
            std::u16string name = u"Quill Mere";
            const std::array<Scm::TableEntry, 2> table = {{{name.data(), serviceMain}, {nullptr, nullptr}}};
            result = startServiceCtrlDispatcher(table.data());
        });
    }
    void start()
    {
        dispatch();
        QCOMPARE(notify->next(), QByteArray("STATUS=Starting"));
        scene->mayRun.release();
        QCOMPARE(notify->next(), QByteArray("STATUS=Running\nREADY=1"));
    }
    void stop(int signal = SIGTERM)
    {
        ::kill(::getpid(), signal);
        QCOMPARE(notify->next(), QByteArray("STATUS=Stopping\nSTOPPING=1"));
        QCOMPARE(notify->next(), QByteArray("STATUS=Stopped\nSTOPPING=1"));
        thread.join();
        QCOMPARE(result, 1);
    }
    QByteArray socket() const { return QFile::encodeName(folder->path()) + ControlSocketName; }
    ControlAnswer send(Scm::Dword control) const { return sendControl(socket(), control, 60000); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<NotifySocket> notify;
    std::unique_ptr<Scene> only;
    std::thread thread;
    Scm::Bool result = -1;
};

void TestDispatcher::init()
{
    folder = std::make_unique<QTemporaryDir>();
    const QByteArray path = QFile::encodeName(folder->filePath(u"notify"_s));
    notify = std::make_unique<NotifySocket>(path);
    qputenv("NOTIFY_SOCKET", path);
    qputenv("RUNTIME_DIRECTORY", QFile::encodeName(folder->path()));
    only = std::make_unique<Scene>();
    scene = only.get();
    mainHasEnded = false;
    result = -1;
}

void TestDispatcher::cleanup()
{
    qunsetenv("NOTIFY_SOCKET");
    qunsetenv("RUNTIME_DIRECTORY");
    qunsetenv("SYSTEMD_EXEC_PID");
}

void TestDispatcher::withoutSystemdItFails()
{
    qunsetenv("NOTIFY_SOCKET");
    dispatch();
    thread.join();
    QCOMPARE(result, 0);
    QVERIFY(scene->parameters.isEmpty());
    QVERIFY(!startServiceCtrlDispatcher(nullptr));
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorFailedControllerConnect));
}

void TestDispatcher::aChildOfAServiceIsNoService()
{
    qputenv("SYSTEMD_EXEC_PID", "1");
    QVERIFY(!startServiceCtrlDispatcher(nullptr));
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorFailedControllerConnect));
}

void TestDispatcher::runsAServiceToItsEnd()
{
    qputenv("SYSTEMD_EXEC_PID", QByteArray::number(::getpid()));
    start();
    QVERIFY(QFile::exists(QFile::decodeName(socket())));
    QCOMPARE(scene->parameters, QStringList{u"Quill Mere"_s});
    stop();
    QCOMPARE(scene->controls(), QList<Scm::Dword>{Scm::ControlStop});
    QVERIFY(!QFile::exists(QFile::decodeName(socket())));
    QVERIFY(!report(Scm::StateRunning)); // nothing more to report
}

void TestDispatcher::interruptStopsItInGoodOrder()
{
    start();
    stop(SIGINT);
    QCOMPARE(scene->controls(), QList<Scm::Dword>{Scm::ControlStop});
}

void TestDispatcher::hangUpIsIgnored()
{
    start();
    ::kill(::getpid(), SIGHUP);
    QCOMPARE(send(200).state, Scm::Dword(Scm::StateRunning));
    stop();
    QCOMPARE(scene->controls(), (QList<Scm::Dword>{200, Scm::ControlStop}));
}

void TestDispatcher::signalsAreGivenBack()
{
    const FormerHandlers former;
    start();
    QVERIFY(former.areAllReplaced());
    stop();
    QVERIFY(former.areBack());
}

// The service reports its end from another thread, as it does where its start hangs.
void TestDispatcher::mainFunctionThatHangsHoldsNothingUp()
{
    const FormerHandlers former;
    dispatch();
    QCOMPARE(notify->next(), QByteArray("STATUS=Starting"));
    QVERIFY(report(Scm::StateStopped));
    thread.join();
    QCOMPARE(result, 1);
    QVERIFY(former.areBack());
    QVERIFY(!mainHasEnded);
    scene->mayRun.release();
    QTRY_VERIFY_WITH_TIMEOUT(mainHasEnded, 60000);
}

void TestDispatcher::serviceWithoutAHandlerEndsByTheSignal()
{
    QByteArray program = QFile::encodeName(QCoreApplication::applicationFilePath());
    const std::array<char *, 2> arguments = {program.data(), nullptr};
    pid_t process = -1;
    qputenv(WithoutAHandler, "1");
    const int error =
        ::posix_spawn(&process, program.constData(), nullptr, nullptr, arguments.data(), environ);
    qunsetenv(WithoutAHandler);
    QCOMPARE(error, 0);
    int status = 0;
    QCOMPARE(::waitpid(process, &status, 0), process);
    QVERIFY(WIFSIGNALED(status));
    QCOMPARE(WTERMSIG(status), SIGTERM);
}

// A drop-in can name others; which comes first is not its own affair.
void TestDispatcher::findsItsOwnRuntimeDirectory()
{
    const QDir parent(folder->path());
    QVERIFY(parent.mkpath(u"another/quill-mere"_s));
    QVERIFY(parent.mkdir(u"quill-mere"_s));
    const QByteArray another = QFile::encodeName(parent.filePath(u"another"_s));
    const QByteArray namesake = another + "/quill-mere";
    const QByteArray own = QFile::encodeName(parent.filePath(u"quill-mere"_s));
    const QByteArrayList orders = {another + ':' + own, own + ':' + another, namesake + ':' + own,
                                   own + ':' + namesake, another + ':' + namesake + ':' + own};
    for (const QByteArray &order : orders) {
        qputenv("RUNTIME_DIRECTORY", order);
        QVERIFY(storeStartParameters(own, {u"parameter"_s}));
        scene->parameters.clear();
        start();
        QCOMPARE(scene->parameters, (QStringList{u"Quill Mere"_s, u"parameter"_s}));
        QCOMPARE(sendControl(own + ControlSocketName, 200, 60000).error, 0u);
        stop();
    }
}

void TestDispatcher::handsStartParametersOver()
{
    QVERIFY(storeStartParameters(QFile::encodeName(folder->path()), {u"a b"_s, u"Größe"_s}));
    start();
    const QStringList expected = {u"Quill Mere"_s, u"a b"_s, u"Größe"_s};
    QCOMPARE(scene->parameters, expected);
    QVERIFY(!QFile::exists(folder->filePath(u"start-parameters"_s)));
    stop();
}

void TestDispatcher::carriesOutControls()
{
    scene->accepted = Scm::AcceptStop | Scm::AcceptPauseContinue;
    start();
    for (const Scm::Dword control : {128u, 255u, 4u, 2u, 3u}) {
        const ControlAnswer answer = send(control);
        QCOMPARE(answer.error, 0u);
        QCOMPARE(answer.state, Scm::Dword(Scm::StateRunning));
        QCOMPARE(answer.controlsAccepted, 3u);
        scene->controlled.acquire();
        QCOMPARE(scene->controls().last(), control);
    }
    // A stop is systemd's, and comes by signal.
    QCOMPARE(send(Scm::ControlStop).error, Scm::Dword(ErrorInvalidParameter));
    QCOMPARE(scene->controls().size(), 5);
    stop();
}

void TestDispatcher::refusesControls_data()
{
    QTest::addColumn<uint>("control");
    QTest::addColumn<uint>("error");
    QTest::newRow("stop") << 1u << uint(ErrorInvalidParameter);
    QTest::newRow("pause") << 2u << uint(Scm::ErrorServiceNotAcceptingControl);
    QTest::newRow("continue") << 3u << uint(Scm::ErrorServiceNotAcceptingControl);
    QTest::newRow("shutdown") << 5u << uint(ErrorInvalidParameter);
    QTest::newRow("0") << 0u << uint(ErrorInvalidParameter);
    QTest::newRow("127") << 127u << uint(ErrorInvalidParameter);
    QTest::newRow("the start-up code") << 256u << uint(ErrorInvalidParameter);
}

void TestDispatcher::refusesControls()
{
    QFETCH(uint, control);
    QFETCH(uint, error);
    scene->accepted = 0;
    start();
    QCOMPARE(send(control).error, error);
    QVERIFY(scene->controls().isEmpty());
    stop(); // a SIGTERM is not to be refused: a kill would follow
}

void TestDispatcher::refusesControlsWhileStarting()
{
    dispatch();
    QCOMPARE(notify->next(), QByteArray("STATUS=Starting"));
    QCOMPARE(send(200).error, Scm::Dword(ErrorCannotAcceptControl));
    QCOMPARE(send(Scm::ControlPause).error, Scm::Dword(ErrorCannotAcceptControl));
    scene->mayRun.release();
    QCOMPARE(notify->next(), QByteArray("STATUS=Running\nREADY=1"));
    QVERIFY(scene->controls().isEmpty());
    stop();
}

void TestDispatcher::stopWaitsForTheStart()
{
    dispatch();
    QCOMPARE(notify->next(), QByteArray("STATUS=Starting"));
    ::kill(::getpid(), SIGTERM);
    QCOMPARE(send(200).error, Scm::Dword(ErrorCannotAcceptControl)); // the dispatcher has turned since
    QVERIFY(scene->controls().isEmpty());
    scene->mayRun.release();
    QCOMPARE(notify->next(), QByteArray("STATUS=Running\nREADY=1"));
    QCOMPARE(notify->next(), QByteArray("STATUS=Stopping\nSTOPPING=1"));
    QCOMPARE(notify->next(), QByteArray("STATUS=Stopped\nSTOPPING=1"));
    thread.join();
    QCOMPARE(scene->controls(), QList<Scm::Dword>{Scm::ControlStop});
}

void TestDispatcher::stopWaitsThoughTheMainFunctionHasReturned()
{
    start();
    QTRY_VERIFY_WITH_TIMEOUT(mainHasEnded, 60000);
    QVERIFY(report(Scm::StateStartPending));
    QCOMPARE(notify->next(), QByteArray("STATUS=Starting"));
    ::kill(::getpid(), SIGTERM);
    QCOMPARE(send(200).error, Scm::Dword(ErrorCannotAcceptControl));
    QVERIFY(scene->controls().isEmpty());
    QVERIFY(report(Scm::StateRunning));
    QCOMPARE(notify->next(), QByteArray("STATUS=Running\nREADY=1"));
    QCOMPARE(notify->next(), QByteArray("STATUS=Stopping\nSTOPPING=1"));
    QCOMPARE(notify->next(), QByteArray("STATUS=Stopped\nSTOPPING=1"));
    thread.join();
    QCOMPARE(scene->controls(), QList<Scm::Dword>{Scm::ControlStop});
}

void TestDispatcher::oneSignalIsOneStop()
{
    scene->obeys = false;
    start();
    ::kill(::getpid(), SIGTERM);
    scene->controlled.acquire();
    for (const Scm::Dword control : {200u, 201u}) {
        QCOMPARE(send(control).error, 0u);
    }
    QCOMPARE(scene->controls(), (QList<Scm::Dword>{Scm::ControlStop, 200, 201}));
    scene->obeys = true;
    stop();
    QCOMPARE(scene->controls(), (QList<Scm::Dword>{Scm::ControlStop, 200, 201, Scm::ControlStop}));
}

void TestDispatcher::handlersNeedADispatcher()
{
    QVERIFY(!registerServiceCtrlHandler(u"Quill Mere", handleControl));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorNotInExecutable));
    Scm::Status status{};
    QVERIFY(!setServiceStatus(nullptr, &status));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
    QVERIFY(!startServiceCtrlDispatcher(nullptr));
    QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidParameter));
}

void TestDispatcher::reportsEveryState()
{
    start();
    const QByteArrayList expected = {"STATUS=Pausing", "STATUS=Paused", "STATUS=Resuming",
                                     "STATUS=Running\nREADY=1"};
    int row = 0;
    for (const Scm::Dword state :
         {Scm::StatePausePending, Scm::StatePaused, Scm::StateContinuePending, Scm::StateRunning}) {
        QVERIFY(report(state));
        QCOMPARE(notify->next(), expected[row++]);
    }
    stop();
}

void TestDispatcher::processHasOneDispatcher()
{
    start();
    std::u16string name = u"Another";
    const std::array<Scm::TableEntry, 2> table = {{{name.data(), serviceMain}, {nullptr, nullptr}}};
    QVERIFY(!startServiceCtrlDispatcher(table.data()));
    QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceAlreadyRunning));
    QCOMPARE(send(200).error, 0u); // the first one is as it was
    stop();
}

int main(int argc, char **argv)
{
    if (qEnvironmentVariableIsSet(WithoutAHandler)) {
        return runWithoutAHandler();
    }
    const QCoreApplication application(argc, argv);
    TestDispatcher test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_dispatcher.moc"
