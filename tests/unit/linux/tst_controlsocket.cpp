// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/controlsocket.h"

#include "service/linux/errors.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>
#include <QtEndian>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <memory>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

class Client
{
public:
    explicit Client(const QByteArray &path) : descriptor(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
        isConnected = ::connect(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }
    ~Client() { ::close(descriptor); }
    Q_DISABLE_COPY_MOVE(Client)

    void send(const QByteArray &packet) const
    {
        (void)::send(descriptor, packet.constData(), static_cast<size_t>(packet.size()), MSG_NOSIGNAL);
    }
    void finish() const { ::shutdown(descriptor, SHUT_WR); }
    QByteArray received() const
    {
        std::array<char, 256> buffer{};
        const ssize_t count = ::recv(descriptor, buffer.data(), buffer.size(), 0);
        return {buffer.data(), std::max<ssize_t>(count, 0)};
    }
    bool isClosed() const
    {
        char byte = 0;
        const ssize_t count = ::recv(descriptor, &byte, 1, MSG_PEEK);
        return count == 0 || (count < 0 && errno != EAGAIN);
    }

    bool isConnected = false;

private:
    int descriptor;
};

// The packets as bytes, built here and not by the code under test.
QByteArray packet(std::initializer_list<Scm::Dword> numbers)
{
    QByteArray bytes;
    for (const Scm::Dword number : numbers) {
        std::array<char, 4> field{};
        qToUnaligned(number, field.data());
        bytes.append(field.data(), field.size());
    }
    return bytes;
}

int listenAt(const QByteArray &path, int backlog)
{
    const int descriptor = ::socket(AF_UNIX, SOCK_SEQPACKET, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(descriptor, backlog) != 0) {
        qFatal("cannot listen");
    }
    return descriptor;
}

// The other end of one sendControl().
class ScriptedService
{
public:
    explicit ScriptedService(const QByteArray &path) : listener(listenAt(path, 10)) {}
    ~ScriptedService()
    {
        if (thread.joinable()) {
            thread.join();
        }
        ::close(listener);
    }
    Q_DISABLE_COPY_MOVE(ScriptedService)

    // first: what it does between the request and the answer.
    void answersOnce(
        const QByteArray &bytes, const std::function<void()> &first = [] {})
    {
        thread = std::thread([this, bytes, first] {
            const int connection = ::accept(listener, nullptr, nullptr);
            std::array<char, 256> buffer{};
            const ssize_t count = ::recv(connection, buffer.data(), buffer.size(), 0);
            received = {buffer.data(), std::max<ssize_t>(count, 0)};
            first();
            (void)::send(connection, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
            ::close(connection);
        });
    }
    QByteArray request()
    {
        thread.join();
        return received;
    }

private:
    int listener;
    QByteArray received;
    std::thread thread;
};

} // namespace

class TestControlSocket : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        folder = std::make_unique<QTemporaryDir>();
        path = QFile::encodeName(folder->filePath(u"control"_s));
        socket = std::make_unique<ControlSocket>(path);
        controls.clear();
        QVERIFY(socket->isOpen());
    }

    void cleanup()
    {
        socket.reset();
        QVERIFY(!QFile::exists(QFile::decodeName(path)));
        folder.reset();
    }

    void answersARequest()
    {
        const Client client(path);
        client.send(packet({200}));
        serve();
        QCOMPARE(controls, QList<Scm::Dword>{200});
        QCOMPARE(client.received(), packet({1052, 4, 3, 7}));
        QVERIFY(client.isClosed());
        QCOMPARE(socket->patience(), -1);
    }

    void closesOnAnotherSize_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("one byte") << QByteArray("\xC8");
        QTest::newRow("one byte less") << packet({200}).first(3);
        QTest::newRow("one byte more") << packet({200}) + '\0';
        QTest::newRow("twice") << packet({200, 200});
        QTest::newRow("an answer") << packet({0, 4, 1, 0});
        QTest::newRow("text") << QByteArray("200\n2");
        QTest::newRow("much") << QByteArray(100000, 'x');
    }

    void closesOnAnotherSize()
    {
        QFETCH(QByteArray, bytes);
        const Client atOnce(path);
        atOnce.send(bytes);
        const Client later(path);
        serve();
        QVERIFY(!later.isClosed());
        later.send(bytes);
        serve();
        for (const Client *client : {&atOnce, &later}) {
            QVERIFY(client->received().isEmpty());
            QVERIFY(client->isClosed());
        }
        QVERIFY(controls.isEmpty());
        const Client next(path);
        next.send(packet({4}));
        serve();
        QCOMPARE(controls, QList<Scm::Dword>{4});
    }

    // Which of them is a control is the handler's affair.
    void handsAnyControlOn_data()
    {
        QTest::addColumn<uint>("control");
        for (const uint control : {0u, 1u, 255u, 0x01020304u, 0xFFFFFFFFu}) {
            QTest::addRow("%u", control) << control;
        }
    }

    void handsAnyControlOn()
    {
        QFETCH(uint, control);
        const Client client(path);
        client.send(packet({control}));
        serve();
        QCOMPARE(controls, QList<Scm::Dword>{control});
    }

    void keepsASilentClientWaiting()
    {
        const Client silent(path);
        const Client ended(path);
        ended.finish();
        serve();
        serve();
        QVERIFY(!silent.isClosed());
        QVERIFY(ended.isClosed());
        QVERIFY(controls.isEmpty());
        QVERIFY(socket->patience() >= 0);
        silent.send(packet({200}));
        serve();
        QCOMPARE(silent.received(), packet({1052, 4, 3, 7}));
        QVERIFY(silent.isClosed());
    }

    void oneRequestAConnection()
    {
        const Client client(path);
        client.send(packet({200}));
        client.send(packet({201}));
        serve();
        serve();
        QCOMPARE(controls, QList<Scm::Dword>{200});
    }

    void manyConnectionsDropTheOldest()
    {
        std::vector<std::unique_ptr<Client>> clients;
        for (size_t i = 0; i < 3 * ControlSocket::MaximumConnections; ++i) {
            clients.push_back(std::make_unique<Client>(path));
            QVERIFY(clients.back()->isConnected);
            serve();
            std::vector<pollfd> descriptors;
            socket->appendTo(descriptors);
            QVERIFY(descriptors.size() <= ControlSocket::MaximumConnections + 1);
        }
        QVERIFY(clients.front()->isClosed());
        QVERIFY(!clients.back()->isClosed());
        clients.back()->send(packet({200}));
        serve();
        QCOMPARE(controls, QList<Scm::Dword>{200});
    }

    void silentConnectionsExpire()
    {
        const Client client(path);
        serve();
        QTRY_VERIFY_WITH_TIMEOUT((serve(), client.isClosed()), 60000);
        QVERIFY(controls.isEmpty());
        QCOMPARE(socket->patience(), -1);
    }

    void clientThatIsGoneHarmsNothing()
    {
        for (int i = 0; i < 100; ++i) {
            const Client client(path);
            client.send(packet({200}));
        }
        serve();
        QCOMPARE(controls.size(), 100);
    }

    void onlyTheOwnerCanOpenIt()
    {
        struct stat file
        {
        };
        QCOMPARE(::stat(path.constData(), &file), 0);
        QCOMPARE(file.st_mode, static_cast<mode_t>(S_IFSOCK | S_IRUSR | S_IWUSR));
        QCOMPARE(file.st_uid, ::geteuid());
        if (::geteuid() != 0) {
            return; // only root can become somebody else
        }
        // Even where somebody has opened the file to all, another account is turned away.
        QFile::setPermissions(folder->path(), QFileDevice::Permissions(0x7777));
        QFile::setPermissions(QFile::decodeName(path), QFileDevice::Permissions(0x7777));
        QCOMPARE(::seteuid(65534), 0);
        const Client stranger(path);
        QCOMPARE(::seteuid(0), 0);
        QVERIFY(stranger.isConnected);
        stranger.send(packet({200}));
        serve();
        QVERIFY(stranger.isClosed());
        QVERIFY(controls.isEmpty());
    }

    void replacesAFileLeftBehind()
    {
        const QByteArray other = path + "2";
        QFile left(QFile::decodeName(other));
        QVERIFY(left.open(QIODevice::WriteOnly));
        const ControlSocket second(other);
        QVERIFY(second.isOpen());
    }

    void withoutAPathThereIsNoSocket()
    {
        const QByteArrayList paths = {"/nowhere/control", "/tmp/" + QByteArray(103, 'x'),
                                      "/tmp/" + QByteArray(200, 'x')}; // an address holds 107 bytes
        for (const QByteArray &bad : paths) {
            ControlSocket none(bad);
            QVERIFY(!none.isOpen());
            std::vector<pollfd> descriptors;
            none.appendTo(descriptors);
            QVERIFY(descriptors.empty());
            QCOMPARE(none.patience(), -1);
            none.serve([](Scm::Dword) { return ControlAnswer(); });
        }
    }

    void acceptErrorPausesAccepting()
    {
        const Client client(path);
        std::vector<int> taken;
        for (int descriptor = 0; (descriptor = ::dup(STDIN_FILENO)) >= 0;) {
            taken.push_back(descriptor);
        }
        serve();
        std::vector<pollfd> descriptors;
        socket->appendTo(descriptors);
        const size_t waitedFor = descriptors.size();
        const int patience = socket->patience();
        for (const int descriptor : taken) {
            ::close(descriptor);
        }
        QCOMPARE(waitedFor, 0u); // or the dispatcher would spin
        QVERIFY(patience >= 0);
        client.send(packet({200}));
        QTRY_VERIFY_WITH_TIMEOUT((serve(), !controls.isEmpty()), 60000);
    }

    void clientIsAnswered()
    {
        ScriptedService service(path + "2");
        service.answersOnce(packet({1052, 4, 3, 7}));
        const ControlAnswer answer = sendControl(path + "2", 200, 60000);
        QCOMPARE(service.request(), packet({200}));
        QCOMPARE(answer.error, 1052u);
        QCOMPARE(answer.state, 4u);
        QCOMPARE(answer.controlsAccepted, 3u);
        QCOMPARE(answer.exitCode, 7u);
    }

    void clientTakesNoAnswerOfAnotherSize_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        const QByteArray good = packet({0, 4, 3, 7});
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("one byte less") << good.first(15);
        QTest::newRow("one byte more") << good + '\0';
        QTest::newRow("twice") << good + good;
        QTest::newRow("text") << QByteArray("0 4 3 7\n");
    }

    void clientTakesNoAnswerOfAnotherSize()
    {
        QFETCH(QByteArray, bytes);
        ScriptedService service(path + "2");
        service.answersOnce(bytes);
        const ControlAnswer answer = sendControl(path + "2", 200, 60000);
        QCOMPARE(answer.error, Scm::Dword(ErrorRequestTimeout));
        QCOMPARE(answer.state, 0u);
        QCOMPARE(answer.controlsAccepted, 0u);
        QCOMPARE(answer.exitCode, 0u);
    }

    void clientWaitsThroughSignals()
    {
        static std::atomic<int> signalsSeen;
        signalsSeen = 0;
        struct sigaction before
        {
        };
        struct sigaction counting
        {
        };
        counting.sa_handler = [](int) { ++signalsSeen; };
        ::sigaction(SIGUSR1, &counting, &before);
        ScriptedService service(path + "2");
        const pthread_t client = ::pthread_self();
        service.answersOnce(packet({0, 4, 3, 7}), [client] {
            for (int i = 0; i < 100; ++i) {
                ::pthread_kill(client, SIGUSR1);
                while (signalsSeen <= i) {
                    std::this_thread::yield();
                }
            }
        });
        const ControlAnswer answer = sendControl(path + "2", 200, 60000);
        ::sigaction(SIGUSR1, &before, nullptr);
        QCOMPARE(signalsSeen.load(), 100);
        QCOMPARE(answer.error, 0u);
        QCOMPARE(answer.exitCode, 7u);
    }

    void clientWithoutAService()
    {
        socket.reset();
        QCOMPARE(sendControl(path, 200, 1000).error, Scm::Dword(Scm::ErrorServiceNotActive));
        QCOMPARE(sendControl(QByteArray(300, 'x'), 200, 1000).error, Scm::Dword(Scm::ErrorServiceNotActive));
    }

    void clientOfAServiceThatNeverAnswers()
    {
        QCOMPARE(sendControl(path, 200, 100).error, Scm::Dword(ErrorRequestTimeout));
    }

    void clientOfAServiceThatHangsUp()
    {
        const int listener = listenAt(path + "2", 10);
        std::thread service([listener] { ::close(::accept(listener, nullptr, nullptr)); });
        const ControlAnswer answer = sendControl(path + "2", 200, 60000);
        service.join();
        ::close(listener);
        QCOMPARE(answer.error, Scm::Dword(ErrorRequestTimeout)); // long before the time
    }

    void clientOfACrowdedService()
    {
        const int listener = listenAt(path + "2", 0);
        const Client first(path + "2");
        QVERIFY(first.isConnected);
        QCOMPARE(sendControl(path + "2", 200, 60000).error, Scm::Dword(ErrorRequestTimeout));
        ::close(listener);
    }

    void clientWithoutRights()
    {
        if (::geteuid() != 0) {
            return; // only root can become somebody else
        }
        QFile::setPermissions(folder->path(), QFileDevice::Permissions(0x7777));
        QCOMPARE(::seteuid(65534), 0);
        const ControlAnswer answer = sendControl(path, 200, 1000);
        QCOMPARE(::seteuid(0), 0);
        QCOMPARE(answer.error, Scm::Dword(Scm::ErrorAccessDenied));
    }

    void clientWithoutDescriptors()
    {
        std::vector<int> taken;
        for (int descriptor = 0; (descriptor = ::dup(STDIN_FILENO)) >= 0;) {
            taken.push_back(descriptor);
        }
        const ControlAnswer answer = sendControl(path, 200, 1000);
        for (const int descriptor : taken) {
            ::close(descriptor);
        }
        QCOMPARE(answer.error, Scm::Dword(ErrorRequestTimeout));
    }

private:
    // Everything that can be done now.
    void serve()
    {
        socket->serve([this](Scm::Dword control) {
            controls.append(control);
            return ControlAnswer{1052, 4, 3, 7};
        });
    }

    std::unique_ptr<QTemporaryDir> folder;
    QByteArray path;
    std::unique_ptr<ControlSocket> socket;
    QList<Scm::Dword> controls;
};

QTEST_GUILESS_MAIN(TestControlSocket)
#include "tst_controlsocket.moc"
