// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/controlsocket.h"

#include "service/linux/controlclient.h"
#include "service/linux/errors.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <thread>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

class Client
{
public:
    explicit Client(const QByteArray &path) : descriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
        isConnected = ::connect(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    }
    ~Client() { ::close(descriptor); }
    Q_DISABLE_COPY_MOVE(Client)

    void send(const QByteArray &bytes) const
    {
        (void)::send(descriptor, bytes.constData(), static_cast<size_t>(bytes.size()), MSG_NOSIGNAL);
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

int listenAt(const QByteArray &path, int backlog)
{
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<size_t>(path.size()));
    if (::bind(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(descriptor, backlog) != 0) {
        qFatal("cannot listen");
    }
    return descriptor;
}

} // namespace

class TestControlSocket : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void protocolLines_data();
    void protocolLines();
    void answersARequest();
    void answersARequestInPieces();
    void closesOnGarbage_data();
    void closesOnGarbage();
    void keepsAnUnfinishedRequestWaiting();
    void oneRequestAConnection();
    void manyConnectionsDropTheOldest();
    void silentConnectionsExpire();
    void clientThatIsGoneHarmsNothing();
    void onlyTheOwnerCanOpenIt();
    void replacesAFileLeftBehind();
    void withoutAPathThereIsNoSocket();
    void acceptErrorPausesAccepting();
    void clientWithoutAService();
    void clientOfAServiceThatNeverAnswers();
    void clientOfAServiceThatHangsUp();
    void clientOfACrowdedService();
    void clientWithoutRights();
    void clientWithoutDescriptors();

private:
    // Everything that can be done now.
    void serve()
    {
        socket->serve([this](Scm::Dword control) {
            controls.append(control);
            return ControlAnswer{0, Scm::StateRunning, 1, 0};
        });
    }

    std::unique_ptr<QTemporaryDir> folder;
    QByteArray path;
    std::unique_ptr<ControlSocket> socket;
    QList<Scm::Dword> controls;
};

void TestControlSocket::init()
{
    folder = std::make_unique<QTemporaryDir>();
    path = QFile::encodeName(folder->filePath(u"control"_s));
    socket = std::make_unique<ControlSocket>(path);
    controls.clear();
    QVERIFY(socket->isOpen());
}

void TestControlSocket::cleanup()
{
    socket.reset();
    QVERIFY(!QFile::exists(QFile::decodeName(path)));
    folder.reset();
}

void TestControlSocket::protocolLines_data()
{
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<int>("control"); // -1: none
    QTest::newRow("stop") << QByteArray("1") << 1;
    QTest::newRow("user code") << QByteArray("255") << 255;
    QTest::newRow("empty") << QByteArray() << -1;
    QTest::newRow("sign") << QByteArray("+1") << -1;
    QTest::newRow("negative") << QByteArray("-1") << -1;
    QTest::newRow("blank") << QByteArray("1 ") << -1;
    QTest::newRow("too large") << QByteArray("4294967296") << -1;
    QTest::newRow("hexadecimal") << QByteArray("0x80") << -1;
    QTest::newRow("zero byte") << QByteArray("1\0", 2) << -1;
}

void TestControlSocket::protocolLines()
{
    QFETCH(QByteArray, line);
    QFETCH(int, control);
    const auto parsed = parseRequest(line);
    QCOMPARE(parsed ? static_cast<int>(*parsed) : -1, control);
    QCOMPARE(requestLine(200), QByteArray("200\n"));
    QCOMPARE(answerLine({1052, 4, 1, 0}), QByteArray("1052 4 1 0\n"));
    const auto answer = parseAnswer("1052 4 3 7");
    QVERIFY(answer);
    QCOMPARE(answer->error, 1052u);
    QCOMPARE(answer->state, 4u);
    QCOMPARE(answer->controlsAccepted, 3u);
    QCOMPARE(answer->exitCode, 7u);
    for (const char *bad : {"", "1", "1 2 3", "1 2 3 4 5", "a 2 3 4", "1 2  4", "1 2 3 -4"}) {
        QVERIFY2(!parseAnswer(bad), bad);
    }
}

void TestControlSocket::answersARequest()
{
    const Client client(path);
    client.send("200\n");
    serve();
    QCOMPARE(controls, QList<Scm::Dword>{200});
    QCOMPARE(client.received(), QByteArray("0 4 1 0\n"));
    QVERIFY(client.isClosed());
    QCOMPARE(socket->patience(), -1);
}

void TestControlSocket::answersARequestInPieces()
{
    const Client client(path);
    for (const char *piece : {"2", "0", "0"}) {
        client.send(piece);
        serve();
        QVERIFY(controls.isEmpty());
        QVERIFY(!client.isClosed());
    }
    client.send("\n");
    serve();
    QCOMPARE(controls, QList<Scm::Dword>{200});
    QCOMPARE(client.received(), QByteArray("0 4 1 0\n"));
}

void TestControlSocket::closesOnGarbage_data()
{
    QTest::addColumn<QByteArray>("bytes");
    QTest::newRow("text") << QByteArray("hello\n");
    QTest::newRow("zero bytes") << QByteArray(16, '\0');
    QTest::newRow("no line end") << QByteArray(16, '1');
    QTest::newRow("much") << QByteArray(100000, 'x');
    QTest::newRow("empty line") << QByteArray("\n");
    QTest::newRow("negative") << QByteArray("-1\n");
}

void TestControlSocket::closesOnGarbage()
{
    QFETCH(QByteArray, bytes);
    const Client client(path);
    client.send(bytes);
    serve();
    QVERIFY(client.isClosed());
    QVERIFY(controls.isEmpty());
    const Client next(path);
    next.send("4\n");
    serve();
    QCOMPARE(controls, QList<Scm::Dword>{4});
}

void TestControlSocket::keepsAnUnfinishedRequestWaiting()
{
    const Client silent(path);
    const Client ended(path);
    ended.send("20");
    ended.finish();
    serve();
    serve();
    QVERIFY(!silent.isClosed());
    QVERIFY(ended.isClosed());
    QVERIFY(controls.isEmpty());
    QVERIFY(socket->patience() >= 0);
}

void TestControlSocket::oneRequestAConnection()
{
    const Client client(path);
    client.send("200\n201\n");
    serve();
    serve();
    QCOMPARE(controls, QList<Scm::Dword>{200});
}

void TestControlSocket::manyConnectionsDropTheOldest()
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
    clients.back()->send("200\n");
    serve();
    QCOMPARE(controls, QList<Scm::Dword>{200});
}

void TestControlSocket::silentConnectionsExpire()
{
    const Client client(path);
    serve();
    QTRY_VERIFY_WITH_TIMEOUT((serve(), client.isClosed()), 60000);
    QVERIFY(controls.isEmpty());
    QCOMPARE(socket->patience(), -1);
}

void TestControlSocket::clientThatIsGoneHarmsNothing()
{
    for (int i = 0; i < 100; ++i) {
        const Client client(path);
        client.send("200\n");
    }
    serve();
    QCOMPARE(controls.size(), 100);
}

void TestControlSocket::onlyTheOwnerCanOpenIt()
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
    stranger.send("200\n");
    serve();
    QVERIFY(stranger.isClosed());
    QVERIFY(controls.isEmpty());
}

void TestControlSocket::replacesAFileLeftBehind()
{
    const QByteArray other = path + "2";
    QFile left(QFile::decodeName(other));
    QVERIFY(left.open(QIODevice::WriteOnly));
    const ControlSocket second(other);
    QVERIFY(second.isOpen());
}

void TestControlSocket::withoutAPathThereIsNoSocket()
{
    const QByteArrayList paths = {"/nowhere/control", "/tmp/" + QByteArray(200, 'x')};
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

void TestControlSocket::acceptErrorPausesAccepting()
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
    client.send("200\n");
    QTRY_VERIFY_WITH_TIMEOUT((serve(), !controls.isEmpty()), 60000);
}

void TestControlSocket::clientWithoutAService()
{
    socket.reset();
    QCOMPARE(sendControl(path, 200, 1000).error, Scm::Dword(Scm::ErrorServiceNotActive));
    QCOMPARE(sendControl(QByteArray(300, 'x'), 200, 1000).error, Scm::Dword(Scm::ErrorServiceNotActive));
}

void TestControlSocket::clientOfAServiceThatNeverAnswers()
{
    QCOMPARE(sendControl(path, 200, 100).error, Scm::Dword(ErrorRequestTimeout));
}

void TestControlSocket::clientOfAServiceThatHangsUp()
{
    const int listener = listenAt(path + "2", 10);
    std::thread service([listener] { ::close(::accept(listener, nullptr, nullptr)); });
    const ControlAnswer answer = sendControl(path + "2", 200, 60000);
    service.join();
    ::close(listener);
    QCOMPARE(answer.error, Scm::Dword(ErrorRequestTimeout)); // long before the time
}

void TestControlSocket::clientOfACrowdedService()
{
    const int listener = listenAt(path + "2", 0);
    const Client first(path + "2");
    QVERIFY(first.isConnected);
    QCOMPARE(sendControl(path + "2", 200, 60000).error, Scm::Dword(ErrorRequestTimeout));
    ::close(listener);
}

void TestControlSocket::clientWithoutRights()
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

void TestControlSocket::clientWithoutDescriptors()
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

QTEST_GUILESS_MAIN(TestControlSocket)
#include "tst_controlsocket.moc"
