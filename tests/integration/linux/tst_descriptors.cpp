// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationlistener.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QTest>
#include <QTimer>

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

const QString Connected = u"Application connected from 127.0.0.1"_s;
const QString Disconnected = u"Application disconnected from 127.0.0.1"_s;

// Holds every file descriptor that the process may still have, but for a number of them.
class DescriptorShortage
{
public:
    explicit DescriptorShortage(size_t left)
    {
        getrlimit(RLIMIT_NOFILE, &saved);
        rlimit lowered = saved;
        lowered.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 512);
        setrlimit(RLIMIT_NOFILE, &lowered);
        for (int fd = open("/dev/null", O_RDONLY | O_CLOEXEC); fd >= 0;
             fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) {
            held.push_back(fd);
        }
        while (left-- > 0) {
            close(held.back());
            held.pop_back();
        }
    }
    ~DescriptorShortage()
    {
        std::for_each(held.begin(), held.end(), close);
        setrlimit(RLIMIT_NOFILE, &saved);
    }
    Q_DISABLE_COPY_MOVE(DescriptorShortage)

private:
    rlimit saved{};
    std::vector<int> held;
};

} // namespace

// The process runs out of file descriptors, and gets them back.
class TestDescriptors : public QObject
{
    Q_OBJECT

private slots:
    void applicationsConnectAgainWhenDescriptorsAreBack()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        ScriptedApplication before(server.applicationPort());
        radio.registers();
        QVERIFY(before.sees(radio, QMR::Registered));

        QTcpSocket early;
        QTcpSocket late;
        {
            // Enough for two clients' own ends, and none for the server's.
            const DescriptorShortage shortage(2);
            early.connectToHost(QHostAddress::LocalHost, server.applicationPort());
            late.connectToHost(QHostAddress::LocalHost, server.applicationPort());
            QTRY_COMPARE(early.state(), QAbstractSocket::ConnectedState);
            QTRY_COMPARE(late.state(), QAbstractSocket::ConnectedState);
            server.log.take();

            // Who is connected is served on, even where the database has no descriptor for its journal.
            radio.registers(QByteArray::fromHex("01"));
            QVERIFY(radio.isAcknowledged());
            QVERIFY(before.sees(radio, QMR::Registered, QByteArray::fromHex("01")));
            QCOMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 0);
        }
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 2);
        QTRY_COMPARE(early.bytesAvailable(), 31);
        QTRY_COMPARE(late.bytesAvailable(), 31);
        ScriptedApplication after(server.applicationPort());
        QVERIFY(after.sees(radio, QMR::Registered, QByteArray::fromHex("01")));
    }

    // The applications may have all but a reserve, so that what is acknowledged can be stored. Again and
    // again: the system's refusal is not waited for.
    void applicationsLeaveAReserve()
    {
        constexpr int Reserve = 16;
        constexpr int Acceptable = 20; // each takes a descriptor at both its ends here
        constexpr int Waiting = 5;
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        for (char round = 1; round <= 3; ++round) {
            const DescriptorShortage shortage(2 * Acceptable + Reserve);
            std::vector<std::unique_ptr<QTcpSocket>> clients;
            for (int i = 0; i < Acceptable + Waiting; ++i) {
                clients.push_back(std::make_unique<QTcpSocket>());
                clients.back()->connectToHost(QHostAddress::LocalHost, server.applicationPort());
                QTRY_COMPARE(clients.back()->state(), QAbstractSocket::ConnectedState);
                QTRY_COMPARE(server.log.count(Connected), std::min(i + 1, Acceptable));
            }
            radio.registers(QByteArray(1, round));
            QVERIFY(radio.isAcknowledged());
            QCOMPARE(server.log.takeMessages(),
                     QStringList(Acceptable, Connected) + QStringList(radio.registeredText()));
            QCOMPARE(server.query(u"SELECT service FROM supported_services"_s),
                     QList<QVariantList>{QVariantList{int{round}}});

            // Some go, and one has its place: the waiting ones have taken from the reserve.
            constexpr int Leaving = Waiting / 2 + 1;
            clients.erase(clients.begin(), clients.begin() + Leaving);
            QTRY_COMPARE(server.log.count(Connected), 2 * Leaving - Waiting);
            QCOMPARE(server.log.count(Disconnected), Leaving);
            clients.clear();
            QTRY_COMPARE(server.log.count(Disconnected), Acceptable + Waiting);
            server.log.take();
        }
    }

    void noneIsAcceptedBeforeTheFirstLookEither()
    {
        constexpr int Reserve = 16;
        const quint16 port = freeTcpPort();
        const DescriptorShortage shortage(Reserve + 1); // for the listening socket
        int connected = 0;
        QMR::ApplicationListener listener(port, [&connected] { ++connected; });
        QVERIFY(listener.isListening());
        QTcpSocket client;
        client.connectToHost(QHostAddress::LocalHost, port);
        QTRY_COMPARE(client.state(), QAbstractSocket::ConnectedState);
        for (int i = 0; i < 10; ++i) {
            QCoreApplication::processEvents();
        }
        QCOMPARE(connected, 0);
    }

    // Qt stops accepting for good only when the very first accept fails: a later failure looks to it like the
    // end of the queue.
    void firstApplicationConnectsWhenDescriptorsAreBack()
    {
        TestServer server;
        server.start();
        QTcpSocket first;
        {
            const DescriptorShortage shortage(1);
            first.connectToHost(QHostAddress::LocalHost, server.applicationPort());
            QTRY_COMPARE(first.state(), QAbstractSocket::ConnectedState);
            // The server has had its turn behind the connection.
            bool isTimed = false;
            QTimer::singleShot(0, this, [&isTimed] { isTimed = true; });
            QTRY_VERIFY(isTimed);
            QCOMPARE(server.log.records().size(), 0);
        }
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
    }
};

QTEST_GUILESS_MAIN(TestDescriptors)
#include "tst_descriptors.moc"
