// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/dispatcher.h"

#include "service/linux/controlsocket.h"
#include "service/linux/errors.h"
#include "service/linux/startparameters.h"
#include "service/linux/systemd.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>

#include <spawn.h>
#include <sys/resource.h>
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
    bool isStoppedFirst = false;   // before it has a handler
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

// Until the dispatcher has seen the signal. ThreadSanitizer now and then loses one.
void askToStop(const QByteArray &socket)
{
    for (int turn = 0; turn < 2; ++turn) {
        ::kill(::getpid(), SIGTERM);
        (void)sendControl(socket, 200, 60000);
    }
}

void serviceMain(Scm::Dword argc, Scm::Char **argv)
{
    if (scene->isStoppedFirst) {
        askToStop(qgetenv("RUNTIME_DIRECTORY") + ControlSocketName);
    }
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
            struct sigaction action = {};
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

// Names what a process of its own is to do.
constexpr auto Alone = "QUILLMERE_TEST_ALONE";

// A service that is to stop, and whose main function then returns without having registered a handler.
Scm::Bool runWithoutAHandler()
{
    std::u16string name = u"Quill Mere";
    places().runtimeFolder = qgetenv("RUNTIME_DIRECTORY").chopped(sizeof "/quill-mere" - 1);
    const Scm::ServiceMain main = [](Scm::Dword, Scm::Char **) {
        askToStop(qgetenv("RUNTIME_DIRECTORY") + ControlSocketName);
    };
    ::alarm(60); // another signal's end, should this one never come
    const std::array<Scm::TableEntry, 2> table = {{{name.data(), main}, {nullptr, nullptr}}};
    return startServiceCtrlDispatcher(table.data());
}

// The very first dispatcher of the process finds no descriptor left. Returns its error.
Scm::Dword runWithoutADescriptor()
{
    std::u16string name = u"Quill Mere";
    const std::array<Scm::TableEntry, 2> table = {{{name.data(), [](Scm::Dword, Scm::Char **) {}}, {}}};
    rlimit limit = {};
    (void)::getrlimit(RLIMIT_NOFILE, &limit);
    const int next = ::dup(STDERR_FILENO);
    ::close(next);
    const rlimit none = {static_cast<rlim_t>(next), limit.rlim_max};
    (void)::setrlimit(RLIMIT_NOFILE, &none);
    const Scm::Bool hasRun = startServiceCtrlDispatcher(table.data());
    const Scm::Dword error = hasRun ? 0 : lastError();
    (void)::setrlimit(RLIMIT_NOFILE, &limit);
    return error;
}

// How the process ended.
int statusAlone(const char *what)
{
    QByteArray program = QFile::encodeName(QCoreApplication::applicationFilePath());
    const std::array<char *, 2> arguments = {program.data(), nullptr};
    pid_t process = -1;
    int status = -1;
    qputenv(Alone, what);
    if (::posix_spawn(&process, program.constData(), nullptr, nullptr, arguments.data(), environ) == 0) {
        ::waitpid(process, &status, 0);
    }
    qunsetenv(Alone);
    return status;
}

} // namespace

class TestDispatcher : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        const QByteArray path = QFile::encodeName(folder->filePath(u"notify"_s));
        notify = std::make_unique<NotifySocket>(path);
        qputenv("NOTIFY_SOCKET", path);
        QVERIFY(QDir(folder->path()).mkdir(u"quill-mere"_s));
        places().runtimeFolder = QFile::encodeName(folder->path());
        qputenv("RUNTIME_DIRECTORY", ownDirectory());
        only = std::make_unique<Scene>();
        scene = only.get();
        mainHasEnded = false;
        result = -1;
    }

    void cleanup()
    {
        qunsetenv("NOTIFY_SOCKET");
        qunsetenv("RUNTIME_DIRECTORY");
        qunsetenv("SYSTEMD_EXEC_PID");
        places() = {};
    }

    void withoutSystemdItFails()
    {
        qunsetenv("NOTIFY_SOCKET");
        dispatch();
        thread.join();
        QCOMPARE(result, 0);
        QVERIFY(scene->parameters.isEmpty());
        QVERIFY(!startServiceCtrlDispatcher(nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorFailedControllerConnect));
    }

    void aChildOfAServiceIsNoService()
    {
        qputenv("SYSTEMD_EXEC_PID", "1");
        QVERIFY(!startServiceCtrlDispatcher(nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorFailedControllerConnect));
    }

    void runsAServiceToItsEnd()
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

    void interruptStopsItInGoodOrder()
    {
        start();
        stop(SIGINT);
        QCOMPARE(scene->controls(), QList<Scm::Dword>{Scm::ControlStop});
    }

    void hangUpIsIgnored()
    {
        start();
        ::kill(::getpid(), SIGHUP);
        QCOMPARE(send(200).state, Scm::Dword(Scm::StateRunning));
        stop();
        QCOMPARE(scene->controls(), (QList<Scm::Dword>{200, Scm::ControlStop}));
    }

    void signalsAreGivenBack()
    {
        const FormerHandlers former;
        start();
        QVERIFY(former.areAllReplaced());
        stop();
        QVERIFY(former.areBack());
    }

    // The service reports its end from another thread, as it does where its start hangs.
    void mainFunctionThatHangsHoldsNothingUp()
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

    void serviceWithoutAHandlerEndsByTheSignal()
    {
        const int status = statusAlone("handler");
        QVERIFY(WIFSIGNALED(status));
        QCOMPARE(WTERMSIG(status), SIGTERM);
    }

    // It is no console start, which would ask systemd to start it again.
    void withoutADescriptorItFails()
    {
        const int status = statusAlone("descriptor");
        QVERIFY(WIFEXITED(status));
        QCOMPARE(WEXITSTATUS(status), 1);
    }

    // A drop-in can name others, in any order.
    void findsItsOwnRuntimeDirectory()
    {
        const QDir parent(folder->path());
        QVERIFY(parent.mkpath(u"another/quill-mere"_s));
        const QByteArray another = QFile::encodeName(parent.filePath(u"another"_s));
        const QByteArray namesake = another + "/quill-mere";
        const QByteArray own = ownDirectory();
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
        qputenv("RUNTIME_DIRECTORY", another + ':' + namesake);
        QVERIFY(storeStartParameters(own, {u"parameter"_s}));
        scene->parameters.clear();
        start();
        QCOMPARE(scene->parameters, QStringList{u"Quill Mere"_s});
        QVERIFY(!QFile::exists(QFile::decodeName(namesake + ControlSocketName)));
        stop();
    }

    void handsStartParametersOver()
    {
        QVERIFY(storeStartParameters(ownDirectory(), {u"a b"_s, u"Größe"_s}));
        start();
        const QStringList expected = {u"Quill Mere"_s, u"a b"_s, u"Größe"_s};
        QCOMPARE(scene->parameters, expected);
        QVERIFY(!QFile::exists(folder->filePath(u"quill-mere/start-parameters"_s)));
        stop();
    }

    void carriesOutControls()
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

    void refusesControls_data()
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

    void refusesControls()
    {
        QFETCH(uint, control);
        QFETCH(uint, error);
        scene->accepted = 0;
        start();
        QCOMPARE(send(control).error, error);
        QVERIFY(scene->controls().isEmpty());
        stop(); // a SIGTERM is not to be refused: a kill would follow
    }

    void refusesControlsWhileStarting()
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

    void stopWaitsForTheHandler()
    {
        scene->isStoppedFirst = true;
        start();
        QCOMPARE(notify->next(), QByteArray("STATUS=Stopping\nSTOPPING=1"));
        QCOMPARE(notify->next(), QByteArray("STATUS=Stopped\nSTOPPING=1"));
        thread.join();
        QCOMPARE(scene->controls(), QList<Scm::Dword>{Scm::ControlStop});
    }

    void stopWaitsForTheStart()
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

    void stopWaitsThoughTheMainFunctionHasReturned()
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

    void oneSignalIsOneStop()
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

    void handlersNeedADispatcher()
    {
        QVERIFY(!registerServiceCtrlHandler(u"Quill Mere", handleControl));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorNotInExecutable));
        Scm::Status status{};
        QVERIFY(!setServiceStatus(nullptr, &status));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidHandle));
        QVERIFY(!startServiceCtrlDispatcher(nullptr));
        QCOMPARE(Linux::lastError(), Scm::Dword(ErrorInvalidParameter));
    }

    void reportsEveryState()
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

    void processHasOneDispatcher()
    {
        start();
        std::u16string name = u"Another";
        const std::array<Scm::TableEntry, 2> table = {{{name.data(), serviceMain}, {nullptr, nullptr}}};
        QVERIFY(!startServiceCtrlDispatcher(table.data()));
        QCOMPARE(Linux::lastError(), Scm::Dword(Scm::ErrorServiceAlreadyRunning));
        QCOMPARE(send(200).error, 0u); // the first one is as it was
        stop();
    }

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
    QByteArray ownDirectory() const { return QFile::encodeName(folder->filePath(u"quill-mere"_s)); }
    QByteArray socket() const { return ownDirectory() + ControlSocketName; }
    ControlAnswer send(Scm::Dword control) const { return sendControl(socket(), control, 60000); }

    std::unique_ptr<QTemporaryDir> folder;
    std::unique_ptr<NotifySocket> notify;
    std::unique_ptr<Scene> only;
    std::thread thread;
    Scm::Bool result = -1;
};

int main(int argc, char **argv)
{
    const QByteArray alone = qgetenv(Alone);
    if (alone == "handler") {
        return runWithoutAHandler();
    }
    if (alone == "descriptor") {
        return runWithoutADescriptor() == ErrorManagerUnavailable;
    }
    const QCoreApplication application(argc, argv);
    TestDispatcher test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_dispatcher.moc"
