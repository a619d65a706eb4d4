// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedradio.h"
#include "tests/support/supervisedradio.h"

#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

constexpr int NotArmed = -1;

// What the discovery timer is armed to, in milliseconds.
int armedTo(const TestServer &server)
{
    const QTimer &timer = server->timerForDiscovery();
    return timer.isActive() ? timer.interval() : NotArmed;
}

QList<quint8> serialsInQueue(const TestServer &server)
{
    QList<quint8> serials;
    for (const QMR::RadioPointer &radio : server->dueForDiscovery()) {
        serials.append(radio->esn.bytes[7]);
    }
    return serials;
}

QByteArray minimumPeriod(qint64 seconds)
{
    return "minimumDiscoveryPeriod=" + QByteArray::number(seconds) + '\n';
}

} // namespace

// When the next discovery request may leave.
class TestDiscoveryTimer : public QObject
{
    Q_OBJECT

private slots:
    void runsOnlyWhileARadioIsSearchedFor()
    {
        TestServer server;
        server.start();
        QVERIFY(server->timerForDiscovery().isSingleShot());
        QCOMPARE(armedTo(server), NotArmed);

        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(armedTo(server), NotArmed);

        // A new radio counts as last searched for in 1970: once in doubt, it is due at once.
        server->handleRadioReport(radio.esn, radio.address());
        QCOMPARE(armedTo(server), 0);

        radio.registers();
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(armedTo(server), NotArmed);
        QVERIFY(server->dueForDiscovery().empty());
    }

    void waitsForTheFirstRadioInWholeSeconds_data()
    {
        QTest::addColumn<quint32>("availability");
        QTest::addColumn<qint64>("sinceLast"); // ms, since the last request
        QTest::addColumn<int>("interval");

        QTest::newRow("unconfirmed, asked now") << quint32{QMR::Unconfirmed} << qint64{0} << 300000;
        QTest::newRow("unconfirmed, 299 s ago") << quint32{QMR::Unconfirmed} << qint64{299000} << 1000;
        QTest::newRow("unconfirmed, 299.001 s ago") << quint32{QMR::Unconfirmed} << qint64{299001} << 1000;
        QTest::newRow("unconfirmed, 299.999 s ago") << quint32{QMR::Unconfirmed} << qint64{299999} << 1000;
        QTest::newRow("unconfirmed, due now") << quint32{QMR::Unconfirmed} << qint64{300000} << 0;
        QTest::newRow("unconfirmed, overdue") << quint32{QMR::Unconfirmed} << qint64{300001} << 0;
        QTest::newRow("unconfirmed, half a second past")
            << quint32{QMR::Unconfirmed} << qint64{500} << 300000;
        QTest::newRow("unreachable, asked now") << quint32{QMR::Unreachable} << qint64{0} << 1800000;
        QTest::newRow("unreachable, 1799 s ago") << quint32{QMR::Unreachable} << qint64{1799000} << 1000;
        QTest::newRow("unreachable, due now") << quint32{QMR::Unreachable} << qint64{1800000} << 0;
        QTest::newRow("state without a name") << quint32{7} << qint64{0} << 1800000;
    }

    void waitsForTheFirstRadioInWholeSeconds()
    {
        QFETCH(const quint32, availability);
        QFETCH(const qint64, sinceLast);
        QFETCH(const int, interval);
        TestServer server;
        const qint64 last = server.clock.seconds();
        startWith(
            server,
            {{.availability = availability, .lastContact = last, .lastDiscovery = last},
             {.serial = 2, .availability = availability, .lastContact = last, .lastDiscovery = last + 10}});

        server.clock.set(server.clock.now().addMSecs(sinceLast));
        server->rearmDiscoveryTimer();

        QCOMPARE(armedTo(server), interval);
        QCOMPARE(serialsInQueue(server), (QList<quint8>{1, 2}));
    }

    void servesRadiosDueAtOnceInEsnOrderSpaced()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 9, .lastContact = now, .lastDiscovery = now - 400},
                           {.serial = 2, .lastContact = now, .lastDiscovery = now - 400}});
        QCOMPARE(armedTo(server), 0);

        server.expireDiscovery();
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 1, now, now},
                                                                {QMR::Unconfirmed, 0, now, now - 400}}));
        QCOMPARE(serialsInQueue(server), (QList<quint8>{9, 2}));
        QCOMPARE(armedTo(server), 30000);

        server.clock.advance(29);
        server.expireDiscovery();
        QCOMPARE(liveStates(server)[1].attempts, 0);
        QCOMPARE(armedTo(server), 1000);

        server.clock.advance(1);
        server.expireDiscovery();
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 1, now, now},
                                                                {QMR::Unconfirmed, 1, now, now + 30}}));
        QCOMPARE(armedTo(server), 270000);
    }

    void spacingIsRoundedUpToWholeSeconds()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now}, {.serial = 2, .lastContact = now}});
        server.expireDiscovery();

        server.clock.set(server.clock.now().addMSecs(1));
        server->rearmDiscoveryTimer();
        QCOMPARE(armedTo(server), 30000);

        server.clock.set(server.clock.now().addMSecs(29998));
        server->rearmDiscoveryTimer();
        QCOMPARE(armedTo(server), 1000);
        server.expireDiscovery();
        QCOMPARE(liveStates(server)[1].attempts, 0);
    }

    void withoutSpacingAnOverdueRadioIsServedAtOnce()
    {
        TestServer server;
        server.configure(minimumPeriod(0));
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now - 300},
                           {.serial = 2, .lastContact = now, .lastDiscovery = now - 299},
                           {.serial = 3, .lastContact = now, .lastDiscovery = now - 301}});
        QCOMPARE(serialsInQueue(server), (QList<quint8>{3, 1, 2}));

        server.expireDiscovery();
        QCOMPARE(armedTo(server), 0);
        server.expireDiscovery();
        QCOMPARE(armedTo(server), 1000);
        QCOMPARE(serialsInQueue(server), (QList<quint8>{2, 1, 3}));
    }

    void radioLoadedLongOverdueIsSearchedForAtOnce()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.lastContact = now - 100, .lastDiscovery = now - 100000}});
        QCOMPARE(armedTo(server), 0);

        // The timer itself expires here. The request to the radio's loopback address comes to the server's
        // own socket, which listens on every address, and is rejected as no message of a radio.
        QTRY_COMPARE(server.log.count(u"QMRS Protocol error: invalid message (2)"_s), 1);

        QCOMPARE(server.log.take().size(), 1);
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 1, now - 100, now}}));
        QCOMPARE(armedTo(server), 300000);
    }

    void expiryBeforeTheTimeSendsNothingAndArmsAgain()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.lastContact = now, .lastDiscovery = now}});
        server.clock.set(server.clock.now().addMSecs(299001));

        server.expireDiscovery();

        QCOMPARE(armedTo(server), 1000);
        QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 0, now, now}}));
        ScriptedRadio garbage(server.registrationPort(), 1);
        garbage.sends("?");
        QTRY_VERIFY(!server.log.records().isEmpty());
        QCOMPARE(server.log.takeMessages(),
                 QStringList{u"QMRS Protocol error: invalid message received (1)"_s});
    }

    void expiryOfAnEmptyQueueDoesNothing()
    {
        TestServer server;
        server.start();

        server.expireDiscovery();
        server.expireHeartbeat();

        QCOMPARE(server.log.records(), QList<LogRecord>());
        QCOMPARE(armedTo(server), NotArmed);
        QVERIFY(!server->timerForDeadline().isActive());
    }

    void stopEndsAllThreeTimers()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.lastContact = now, .lastDiscovery = now}});
        ScriptedRadio radio(server.registrationPort(), 2, u"127.0.0.3"_s);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        QVERIFY(server->timerForDiscovery().isActive());
        QVERIFY(server->timerForDeadline().isActive());
        QVERIFY(server->timerForTimeoutCheck().isActive());

        server.stop();

        QVERIFY(!server->timerForDiscovery().isActive());
        QVERIFY(!server->timerForDeadline().isActive());
        QVERIFY(!server->timerForTimeoutCheck().isActive());
        QVERIFY(server->radios().empty());
        QVERIFY(server->dueForDiscovery().empty());
        QVERIFY(server->awaitingConfirmation().empty());
    }
};

QTEST_GUILESS_MAIN(TestDiscoveryTimer)
#include "tst_discoverytimer.moc"
