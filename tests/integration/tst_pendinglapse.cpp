// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/supervisedradio.h"

#include <QTest>

#include <limits>

using namespace Qt::StringLiterals;

namespace {

constexpr int Lifetime = 17000; // ms

void advance(TestServer &server, qint64 milliseconds)
{
    server.clock.set(server.clock.now().addMSecs(milliseconds));
}

// Every call of the database would fail from here on, and be recorded.
void breakDatabase(const TestServer &server)
{
    server.query(u"DROP TABLE supported_services"_s);
    server.query(u"DROP TABLE subscribers"_s);
}

} // namespace

// A pending registration that is neither confirmed nor refreshed lapses after 17 seconds.
class TestPendingLapse : public QObject
{
    Q_OBJECT

private slots:
    void timerIsPreciseAndArmedInMilliseconds()
    {
        TestServer server;
        server.start();
        QVERIFY(server->timerForDeadline().isSingleShot());
        QCOMPARE(server->timerForDeadline().timerType(), Qt::PreciseTimer);
        QVERIFY(!server->timerForDeadline().isActive());

        ScriptedRadio first(server.registrationPort(), 9);
        first.registersPending();
        QVERIFY(first.isAcknowledged());
        QCOMPARE(server->timerForDeadline().interval(), Lifetime);

        advance(server, 5251);
        ScriptedRadio second(server.registrationPort(), 2, u"127.0.0.3"_s);
        second.registersPending();
        QVERIFY(second.isAcknowledged());
        QCOMPARE(server->timerForDeadline().interval(), Lifetime - 5251);
        QCOMPARE(server->awaitingConfirmation().size(), size_t{2});
        QCOMPARE((*server->awaitingConfirmation().begin())->esn, first.esn);
    }

    void refreshMovesTheDeadline()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        advance(server, 16999);

        radio.registersPending();

        QVERIFY(radio.isAcknowledged());
        QCOMPARE(server->timerForDeadline().interval(), Lifetime);
        QCOMPARE(server->awaitingConfirmation().size(), size_t{1});
        QCOMPARE(server->findRadio(radio.esn)->pendingDeadline, server.clock.now().addSecs(17));
        QCOMPARE(server.log.takeMessages(), QStringList{radio.registeredText()}); // the first alone
    }

    void lapsesAtTheDeadlineNotBefore()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        server.log.take();

        advance(server, Lifetime - 1);
        server.expireHeartbeat();
        QCOMPARE(server.log.records(), QList<LogRecord>());
        QCOMPARE(server->timerForDeadline().interval(), 1);
        QVERIFY(server->timerForDeadline().isActive());

        advance(server, 1);
        server.expireHeartbeat();
        QCOMPARE(server.log.take(),
                 QList{RecordingLog::record(Scm::EventInformation, radio.deregisteredText())});
        QVERIFY(server->radios().empty());
        QVERIFY(server->awaitingConfirmation().empty());
        QVERIFY(!server->timerForDeadline().isActive());
    }

    void radioWithoutConfirmedRegistrationLeavesWithoutDatabaseCall()
    {
        TestServer server;
        server.start();
        ScriptedApplication application(server.applicationPort());
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
        breakDatabase(server);
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(application.seesPending(radio));
        server.log.take();

        advance(server, Lifetime);
        server.expireHeartbeat();

        const Notice gone{radio.esn, {}, false, 0, QMR::Deregistered, QByteArray()};
        QCOMPARE(application.receives(1), QList{gone});
        QCOMPARE(server.log.takeMessages(), QStringList{radio.deregisteredText()});
        QVERIFY(server->radios().empty());
    }

    void confirmedRegistrationStaysAndIsShownAgain()
    {
        TestServer server;
        server.start();
        ScriptedApplication application(server.applicationPort());
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers("\3");
        QVERIFY(application.sees(radio, QMR::Registered, "\3"));
        ScriptedRadio moved(server.registrationPort(), 1, u"127.0.0.3"_s);
        moved.suid.bytes[6] = 0xEE;
        moved.registersPending("\1");
        QVERIFY(application.seesPending(moved, "\1"));
        server.log.take();
        const QList<SupervisionState> before = storedStates(server);
        breakDatabase(server);

        advance(server, Lifetime);
        server.expireHeartbeat();

        QCOMPARE(server.log.takeMessages(), QStringList{moved.deregisteredText()});
        QVERIFY(application.sees(radio, QMR::Registered, "\3"));
        QCOMPARE(liveStates(server), before);
        const QMR::RadioPointer entry = server->findRadio(radio.esn);
        QVERIFY(entry->pendingAddress.isNull());
        QCOMPARE(entry->address, radio.address());
    }

    void allOverdueLapseInOrderOfDeadlineThenEsn()
    {
        TestServer server;
        server.start();
        std::vector<std::unique_ptr<ScriptedRadio>> radios;
        const auto registersPending = [&](quint8 serial) {
            radios.push_back(std::make_unique<ScriptedRadio>(server.registrationPort(), serial,
                                                             u"127.0.0.%1"_s.arg(serial + 1)));
            radios.back()->registersPending();
            return radios.back()->isAcknowledged();
        };
        QVERIFY(registersPending(9));
        QVERIFY(registersPending(8));
        advance(server, 1);
        QVERIFY(registersPending(2));
        QVERIFY(registersPending(3));
        advance(server, 2000);
        QVERIFY(registersPending(1));
        server.log.take();

        advance(server, Lifetime - 2000);
        server.expireHeartbeat();

        QCOMPARE(server.log.takeMessages(),
                 (QStringList{radios[1]->deregisteredText(), radios[0]->deregisteredText(),
                              radios[2]->deregisteredText(), radios[3]->deregisteredText()}));
        QCOMPARE(server->radios().size(), size_t{1});
        QCOMPARE(server->timerForDeadline().interval(), 2000);
    }

    void deregistrationStopsTheTimer()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());

        radio.deregisters();

        QTRY_COMPARE(server.log.count(radio.deregisteredText()), 1);
        QVERIFY(!server->timerForDeadline().isActive());
        QVERIFY(server->awaitingConfirmation().empty());
    }

    void confirmationDoesNotEndThePendingRegistration()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        advance(server, 1000);

        radio.registers();

        QVERIFY(radio.isAcknowledged());
        QCOMPARE(server->awaitingConfirmation().size(), size_t{1});
        QCOMPARE(server->timerForDeadline().interval(),
                 Lifetime); // armed at the pending registration, not since
        server.log.take();
        advance(server, Lifetime - 1000);
        server.expireHeartbeat();
        QCOMPARE(server.log.takeMessages(), QStringList{radio.deregisteredText()});
        QCOMPARE(server->findRadio(radio.esn)->availability, quint32{QMR::Registered});
    }

    void clockSetFarAheadLapsesAll()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        server.clock.advance(70LL * 365 * 86400);

        server->rearmHeartbeatTimer();
        QCOMPARE(server->timerForDeadline().interval(), 0);
        server.expireHeartbeat();
        QVERIFY(server->radios().empty());
    }

    void clockSetFarBackTakesTheWaitInPieces()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());

        server.clock.advance(-86400);
        server.expireHeartbeat();
        QCOMPARE(server->timerForDeadline().interval(), 86400000 + Lifetime);

        server.clock.advance(-70LL * 365 * 86400);
        server.expireHeartbeat();
        QCOMPARE(server->timerForDeadline().interval(), std::numeric_limits<int>::max());
        QCOMPARE(server->radios().size(), size_t{1});
    }
};

QTEST_GUILESS_MAIN(TestPendingLapse)
#include "tst_pendinglapse.moc"
