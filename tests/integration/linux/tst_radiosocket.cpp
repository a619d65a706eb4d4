// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/radiosocket.h"
#include "tests/support/testserver.h"

#include <QTest>

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>

using QMR::RadioSocket;

namespace {

// What a read yields where the system does not simply cut a datagram that is too long.
struct ReadFault
{
    QByteArray bytes; // are in the buffer all the same, then zeros; none: it is left alone
    ssize_t result = -1;
};
std::optional<ReadFault> readFault;

int bufferAskedFor = 0;

const QHostAddress Loopback(QHostAddress::LocalHost);

QByteArray bufferOf(const RadioSocket::Datagram &datagram)
{
    return QByteArrayView(datagram.bytes.data(), datagram.bytes.size()).toByteArray();
}

} // namespace

// These take the place of the system's for the whole process.

extern "C" int setsockopt(int socket, int level, int name, const void *value, socklen_t size) noexcept
{
    if (level == SOL_SOCKET && name == SO_RCVBUF) {
        std::memcpy(&bufferAskedFor, value, sizeof bufferAskedFor);
    }
    return static_cast<int>(::syscall(SYS_setsockopt, socket, level, name, value, size));
}

extern "C" ssize_t recvmsg(int socket, msghdr *message, int flags)
{
    const iovec &buffer = *message->msg_iov;
    const QByteArray before(static_cast<const char *>(buffer.iov_base),
                            static_cast<qsizetype>(buffer.iov_len));
    const ssize_t received = ::syscall(SYS_recvmsg, socket, message, flags);
    if (!readFault || (flags & MSG_PEEK) != 0) {
        return received;
    }
    const QByteArray after =
        readFault->bytes.isEmpty() ? before : readFault->bytes.leftJustified(before.size(), '\0');
    std::memcpy(buffer.iov_base, after.constData(), buffer.iov_len);
    errno = EIO;
    return readFault->result;
}

// How much of a datagram there is, whatever the system says of it.
class TestRadioSocket : public QObject
{
    Q_OBJECT

private slots:
    void takesWhatHasArrived_data()
    {
        QTest::addColumn<qsizetype>("sent");
        QTest::addColumn<qint64>("size");
        QTest::newRow("nothing") << qsizetype{0} << qint64{0};
        QTest::newRow("one byte") << qsizetype{1} << qint64{1};
        QTest::newRow("a message of the largest size") << qsizetype{280} << qint64{280};
        QTest::newRow("more than that") << qsizetype{281} << qint64{280};
    }

    void takesWhatHasArrived()
    {
        QFETCH(qsizetype, sent);
        QFETCH(qint64, size);
        const quint16 port = freeUdpPort();
        RadioSocket socket(port, [] {});
        QVERIFY(socket.isBound());
        QUdpSocket radio;
        QCOMPARE(radio.writeDatagram(QByteArray(sent, 'x'), Loopback, port), sent);
        QVERIFY(socket.hasWaiting());
        const RadioSocket::Datagram datagram = socket.take();
        QCOMPARE(datagram.size, size);
        QCOMPARE(bufferOf(datagram).first(size), QByteArray(size, 'x'));
        QCOMPARE(datagram.sender, Loopback);
        QCOMPARE(datagram.port, radio.localPort());
        QVERIFY(!socket.hasWaiting());
    }

    void failedReadYieldsNothingUnlessItHasFilledTheBuffer_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("result");
        QTest::addColumn<qint64>("size");
        QTest::newRow("an error") << QByteArray() << -1 << qint64{0};
        QTest::newRow("no bytes") << QByteArray() << 0 << qint64{0};
        QTest::newRow("cut, an error") << QByteArray(280, 'x') << -1 << qint64{280};
        QTest::newRow("cut, no bytes") << QByteArray(280, 'x') << 0 << qint64{280};
        QTest::newRow("cut, but for its first byte all zeros") << QByteArray("x") << 0 << qint64{280};
    }

    void failedReadYieldsNothingUnlessItHasFilledTheBuffer()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, result);
        QFETCH(qint64, size);
        const quint16 port = freeUdpPort();
        RadioSocket socket(port, [] {});
        QUdpSocket radio;
        QCOMPARE(radio.writeDatagram("x", Loopback, port), 1);
        readFault = ReadFault{bytes, result};
        const RadioSocket::Datagram datagram = socket.take();
        readFault.reset();
        QCOMPARE(datagram.size, size);
        QVERIFY(bufferOf(datagram).startsWith(bytes));
    }

    // The datagram is made in place, where another one lay.
    void failedReadDoesNotBringBackWhatLayThere()
    {
        const quint16 port = freeUdpPort();
        RadioSocket socket(port, [] {});
        QUdpSocket radio;
        QCOMPARE(radio.writeDatagram("x", Loopback, port), 1);
        alignas(RadioSocket::Datagram) std::array<char, sizeof(RadioSocket::Datagram)> place{};
        place.fill('Q');
        readFault = ReadFault{};
        auto *datagram = new (place.data()) RadioSocket::Datagram(socket.take());
        readFault.reset();
        QCOMPARE(datagram->size, 0);
        QCOMPARE(bufferOf(*datagram), QByteArray(280, '\0'));
        std::destroy_at(datagram);
    }

    // All radios may answer at once. What the system gives of it is the system's.
    void asksForABufferOf8MiB()
    {
        const RadioSocket socket(freeUdpPort(), [] {});
        QVERIFY(socket.isBound());
        QCOMPARE(bufferAskedFor, 8'388'608);
    }

    // Nobody handles it, and it is not kept either.
    void unboundSocketDropsWhatReachesIt()
    {
        const quint16 port = freeUdpPort();
        QUdpSocket squatter;
        QVERIFY(squatter.bind(port, QAbstractSocket::DefaultForPlatform));
        bool isHandled = false;
        RadioSocket socket(port, [&isHandled] { isHandled = true; });
        QVERIFY(!socket.isBound());
        QUdpSocket radio;
        QVERIFY(radio.bind(Loopback));
        QVERIFY(socket.send("x", Loopback, radio.localPort()));
        QTRY_VERIFY(radio.hasPendingDatagrams());
        char byte = 0;
        quint16 itsPort = 0;
        radio.readDatagram(&byte, 1, nullptr, &itsPort);
        for (int i = 0; i < 3; ++i) {
            QCOMPARE(radio.writeDatagram("x", Loopback, itsPort), 1);
        }
        QVERIFY(socket.hasWaiting());
        QTRY_VERIFY(!socket.hasWaiting());
        QVERIFY(!isHandled);
    }
};

QTEST_GUILESS_MAIN(TestRadioSocket)
#include "tst_radiosocket.moc"
