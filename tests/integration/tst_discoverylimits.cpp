// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/supervisedradio.h"

#include <QTest>

#include <limits>

namespace {

constexpr int LongestInterval = std::numeric_limits<int>::max(); // ms, what a timer takes
constexpr qint64 Furthest = std::numeric_limits<qint32>::max();  // seconds, the longest wait that counts

int armedTo(const TestServer &server)
{
    return server->timerForDiscovery().isActive() ? server->timerForDiscovery().interval() : -1;
}

QByteArray minimumPeriod(qint64 seconds)
{
    return "minimumDiscoveryPeriod=" + QByteArray::number(seconds) + '\n';
}

} // namespace

// Settings, stored times and clocks far from the usual arm no wrong timer.
class TestDiscoveryLimits : public QObject
{
    Q_OBJECT

private slots:
    // Waits are deliberately compared as signed 32-bit numbers of seconds: one of 2^31 (68 years) or more
    // counts as none. A wait that counts, but is longer than a timer takes, is taken in pieces.
    void largestSettings_data()
    {
        QTest::addColumn<qint64>("period");
        QTest::addColumn<int>("atStart");
        QTest::addColumn<int>("afterRequest");

        // At the start the spacing counts from 1970.
        QTest::newRow("default") << qint64{30} << 0 << 300000;
        QTest::newRow("more than an unconfirmed radio's own") << qint64{301} << 0 << 301000;
        QTest::newRow("longest a timer takes") << qint64{2147483} << 0 << 2147483000;
        QTest::newRow("one second more") << qint64{2147484} << 0 << LongestInterval;
        QTest::newRow("longest that counts") << Furthest << LongestInterval << LongestInterval;
        QTest::newRow("counts from 1970 only") << Furthest + 1 << LongestInterval << 300000;
        QTest::newRow("largest") << qint64{4294967295} << 0 << 300000;
    }

    void largestSettings()
    {
        QFETCH(const qint64, period);
        QFETCH(const int, atStart);
        QFETCH(const int, afterRequest);
        TestServer server;
        server.configure(minimumPeriod(period));
        const qint64 now = server.clock.seconds();
        startWith(server, {{.lastContact = now, .lastDiscovery = now - 300}});

        server->rearmDiscoveryTimer();
        QCOMPARE(armedTo(server), atStart);
        server.expireDiscovery();
        const bool waited = atStart > 0;
        QCOMPARE(liveStates(server)[0].attempts, waited ? 0 : 1);
        if (waited) {
            QCOMPARE(armedTo(server), atStart);
            server.clock.set(QDateTime::fromSecsSinceEpoch(period, Qt::UTC));
            server.expireDiscovery();
            QCOMPARE(liveStates(server)[0].attempts, 1);
        }
        QCOMPARE(armedTo(server), afterRequest);
    }

    void dueTimesFarAhead_data()
    {
        QTest::addColumn<qint64>("untilDue");
        QTest::addColumn<int>("interval");
        QTest::newRow("24 days") << qint64{2147483} << 2147483000;
        QTest::newRow("25 days") << qint64{2147484} << LongestInterval;
        QTest::newRow("longest that counts") << Furthest << LongestInterval;
        QTest::newRow("68 years: counts as none") << Furthest + 1 << 0;
    }

    void dueTimesFarAhead()
    {
        QFETCH(const qint64, untilDue);
        QFETCH(const int, interval);
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.lastContact = now, .lastDiscovery = now + untilDue - 300}});

        QCOMPARE(armedTo(server), interval);
        server.expireDiscovery();
        QCOMPARE(liveStates(server)[0].attempts, interval == 0 ? 1 : 0);
        QCOMPARE(armedTo(server), interval == 0 ? 300000 : interval);
    }

    void clockSetFarAheadMakesDueAtOnce()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.lastContact = now, .lastDiscovery = now}});
        server.clock.advance(60LL * 365 * 86400);

        server->rearmDiscoveryTimer();
        QCOMPARE(armedTo(server), 0);
        server.expireDiscovery();

        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unconfirmed, 1, now, server.clock.seconds()}}));
        QCOMPARE(armedTo(server), 300000);
    }

    void clockSetBackHoldsRequestsBack()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now - 300},
                           {.serial = 2, .lastContact = now, .lastDiscovery = 0}});
        server.expireDiscovery(); // 2, the longer overdue

        server.clock.advance(-10);
        server->rearmDiscoveryTimer();
        QCOMPARE(armedTo(server), 40000); // the spacing from the last request, which is now to come

        server.clock.advance(-365LL * 86400);
        server.expireDiscovery();
        QCOMPARE(armedTo(server), LongestInterval);
        QCOMPARE(liveStates(server)[0].attempts, 0);

        server.clock.set(QDateTime::fromSecsSinceEpoch(now + 30, Qt::UTC));
        server.expireDiscovery();
        QCOMPARE(liveStates(server)[0].attempts, 1);
    }
};

QTEST_GUILESS_MAIN(TestDiscoveryLimits)
#include "tst_discoverylimits.moc"
