// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationconnection.h"

#include <QSignalSpy>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>
#include <QTimer>

#include <initializer_list>
#include <limits>
#include <memory>

namespace {

constexpr qint64 Unlimited = std::numeric_limits<qint64>::max();

QMR::Esn esnOf(quint8 serial)
{
    return {{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, serial}};
}

// Registered at 10.0.0.5, no services.
QByteArray notice(quint8 serial)
{
    return QByteArray::fromHex("514d5241 04 01 1600 0011aabb22cc33") + static_cast<char>(serial) +
           QByteArray::fromHex("123456789abcde 00 0500000a 03 00");
}

QByteArray notices(std::initializer_list<quint8> serials)
{
    QByteArray bytes;
    for (const quint8 serial : serials) {
        bytes += notice(serial);
    }
    return bytes;
}

} // namespace

// What an application is told, and what of it is not accepted.
class TestApplicationConnection : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<QTcpServer>();
        QVERIFY(server->listen(QHostAddress::LocalHost));
        application = std::make_unique<QTcpSocket>();
        application->connectToHost(server->serverAddress(), server->serverPort());
        QVERIFY(server->waitForNewConnection(5000));
        QVERIFY(application->waitForConnected(5000));
        connection = new QMR::ApplicationConnection(server->nextPendingConnection());
    }

    void cleanup()
    {
        application.reset();
        server.reset(); // and the connection with it
    }

    void whatIsMoreThanAllowedIsLostNoticeByNotice()
    {
        connection->completeTable();
        const qint64 room = notice(1).size() + notice(2).size();
        QCOMPARE(connection->tell(notices({1, 2, 3, 4}), room), 2);
        QCOMPARE(connection->tell(notice(5), Unlimited), 0);
        const QByteArray kept = notices({1, 2, 5});
        QCOMPARE(received(kept.size()), kept);
    }

    void whatIsMoreThanAllowedIsLostBehindTheTableToo()
    {
        connection->tellOfTable(esnOf(2), notice(2));
        // The radio after the last one of the table so far will be in the table.
        QCOMPARE(connection->tell(notices({1, 2, 3}), notice(1).size()), 1);
        QCOMPARE(connection->unsent(), notice(2).size() + notice(1).size());
        connection->completeTable();
        const QByteArray kept = notices({2, 1});
        QCOMPARE(received(kept.size()), kept);
    }

    void noticesOfABrokenConnectionAreLost()
    {
        connection->completeTable();
        connection->socket().abort();
        QTest::ignoreMessage(QtWarningMsg, "QIODevice::write (QTcpSocket): device not open");
        QTest::ignoreMessage(QtWarningMsg, "QIODevice::write (QTcpSocket): device not open");
        QTest::ignoreMessage(QtWarningMsg, "QIODevice::write (QTcpSocket): device not open");
        QCOMPARE(connection->tell(notices({1, 2}), Unlimited), 2);
    }

    void nothingIsLostOnceItHasEnded()
    {
        connection->completeTable();
        connection->end(QString());
        QCOMPARE(connection->tell(notices({1, 2}), 0), 0);
    }

    void theWaitForTheRestIsSupervisedToTheMillisecond()
    {
        applicationSends("QM");
        QVERIFY(!connection->hasMessage());
        const auto *timer = connection->findChild<QTimer *>();
        QVERIFY(timer->isActive());
        QCOMPARE(timer->interval(), 500);
        // Any other kind may be late, or early, by a twentieth.
        QCOMPARE(timer->timerType(), Qt::PreciseTimer);
    }

    void aTimeoutIsNoErrorOnlyWhileItLooksAgain()
    {
        bool wasLooking = false;
        connect(&connection->socket(), &QTcpSocket::errorOccurred, this,
                [&] { wasLooking = connection->isLookingAgain(); });
        applicationSends("QM");
        QVERIFY(!connection->hasMessage());
        QVERIFY(!connection->isLookingAgain());
        QSignalSpy waitEnded(connection, &QMR::ApplicationConnection::waitEnded);
        QVERIFY(waitEnded.wait(5000));
        QVERIFY(wasLooking);
        QVERIFY(!connection->isLookingAgain());
    }

    void nothingIsAwaitedOnceItHasEnded()
    {
        const auto *timer = connection->findChild<QTimer *>();
        applicationSends("QM");
        QVERIFY(!connection->hasMessage());
        QVERIFY(timer->isActive());
        applicationSends("RA");
        connection->end(QString());
        QVERIFY(!timer->isActive());
        QVERIFY(!connection->hasMessage());
        QVERIFY(connection->isAwaiting());
        QVERIFY(!timer->isActive());
    }

private:
    void applicationSends(const QByteArray &bytes);
    QByteArray received(qsizetype size);

    std::unique_ptr<QTcpServer> server;
    std::unique_ptr<QTcpSocket> application;
    QMR::ApplicationConnection *connection = nullptr;
};

void TestApplicationConnection::applicationSends(const QByteArray &bytes)
{
    QCOMPARE(application->write(bytes), bytes.size());
    QVERIFY(application->waitForBytesWritten(5000));
    QVERIFY(connection->socket().waitForReadyRead(5000));
}

// All that has been told, which is so many bytes.
QByteArray TestApplicationConnection::received(qsizetype size)
{
    connection->flush();
    QByteArray bytes;
    while (bytes.size() < size &&
           (application->bytesAvailable() > 0 || application->waitForReadyRead(5000))) {
        bytes += application->readAll();
    }
    return bytes;
}

QTEST_GUILESS_MAIN(TestApplicationConnection)
#include "tst_applicationconnection.moc"
