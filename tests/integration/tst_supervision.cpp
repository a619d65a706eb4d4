// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/supervisedradio.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 SilenceLimit = 43200; // seconds

// A discovery request to a loopback address comes to the server's own socket, which listens on every address,
// and is rejected as no message of a radio: the record shows that it was sent.
LogRecord requestCameBack()
{
    return RecordingLog::record(Scm::EventWarning, u"QMRS Protocol error: invalid message (2)"_s);
}

LogRecord givenUp(const ScriptedRadio &radio)
{
    return RecordingLog::record(Scm::EventInformation, radio.deregisteredText());
}

// All datagrams sent to the server so far have been handled once this one's record is there; it is not kept.
// Returns the records before it.
QList<LogRecord> recordsUntilNow(TestServer &server)
{
    const LogRecord marker =
        RecordingLog::record(Scm::EventWarning, u"QMRS Protocol error: invalid message received (1)"_s);
    ScriptedRadio(server.registrationPort(), 0).sends("?");
    if (!QTest::qWaitFor([&] { return server.log.records().contains(marker); })) {
        qFatal("the server does not answer");
    }
    QList<LogRecord> records = server.log.take();
    records.removeOne(marker);
    return records;
}

} // namespace

// What an expiry of the discovery timer does to the radio whose turn it is.
class TestSupervision : public QObject
{
    Q_OBJECT

private slots:
    void expiryGoesByAvailabilitySilenceAndAttempts_data()
    {
        QTest::addColumn<quint32>("availability");
        QTest::addColumn<qint64>("silence"); // seconds since the last contact
        QTest::addColumn<int>("attempts");
        QTest::addColumn<quint32>("expectedAvailability");
        QTest::addColumn<int>("expectedAttempts");

        constexpr quint32 Unconfirmed = QMR::Unconfirmed;
        constexpr quint32 Unreachable = QMR::Unreachable;
        constexpr quint32 Gone = QMR::Deregistered;
        constexpr qint64 Heard = SilenceLimit - 1;
        constexpr qint64 Stale = SilenceLimit;
        const auto row = [](const char *name, quint32 availability, qint64 silence, int attempts,
                            quint32 expectedAvailability, int expectedAttempts) {
            QTest::newRow(name) << availability << silence << attempts << expectedAvailability
                                << expectedAttempts;
        };
        row("unconfirmed, first request", Unconfirmed, Heard, 0, Unconfirmed, 1);
        row("unconfirmed, third request", Unconfirmed, Heard, 2, Unconfirmed, 3);
        row("unconfirmed, three unanswered", Unconfirmed, Heard, 3, Unreachable, 1);
        row("unconfirmed, more unanswered", Unconfirmed, Heard, 4, Unreachable, 1);
        row("unconfirmed, as many unanswered as fit", Unconfirmed, Heard, 65535, Unreachable, 1);
        // Left to the timeout check on purpose.
        row("unconfirmed and stale, three unanswered", Unconfirmed, Stale, 3, Unconfirmed, 4);
        row("unconfirmed and stale, none", Unconfirmed, Stale, 0, Unconfirmed, 1);
        row("unconfirmed and stale, attempts wrap", Unconfirmed, Stale, 65535, Unconfirmed, 0);
        row("unreachable, first request", Unreachable, Heard, 0, Unreachable, 1);
        row("unreachable, three unanswered, heard 43199 s ago", Unreachable, Heard, 3, Unreachable, 4);
        row("unreachable, attempts wrap", Unreachable, Heard, 65535, Unreachable, 0);
        row("unreachable and stale, two unanswered", Unreachable, Stale, 2, Unreachable, 3);
        row("unreachable and stale, three unanswered", Unreachable, Stale, 3, Gone, 0);
        row("unreachable and stale, more unanswered", Unreachable, Stale, 65535, Gone, 0);
        row("unreachable, heard in the future", Unreachable, -1000000, 3, Unreachable, 4);
        row("no name, three unanswered", 7, Heard, 3, 7, 4);
        row("no name and stale, two unanswered", 7, Stale, 2, 7, 3);
        row("no name and stale, three unanswered", 7, Stale, 3, Gone, 0);
    }

    void expiryGoesByAvailabilitySilenceAndAttempts()
    {
        QFETCH(const quint32, availability);
        QFETCH(const qint64, silence);
        QFETCH(const int, attempts);
        QFETCH(const quint32, expectedAvailability);
        QFETCH(const int, expectedAttempts);
        TestServer server;
        const qint64 contact = server.clock.seconds();
        const qint64 now = contact + silence;
        // The load leaves the attempts of a radio alone that has just been heard from.
        startWith(server, {{1, availability, contact, std::min(contact, now) - 1800, attempts}});
        server.clock.advance(silence);

        server.expireDiscovery();

        const bool gone = expectedAvailability == QMR::Deregistered;
        const QList<SupervisionState> expected =
            gone ? QList<SupervisionState>()
                 : QList<SupervisionState>{{expectedAvailability, expectedAttempts, contact, now}};
        QCOMPARE(liveStates(server), expected);
        QCOMPARE(storedStates(server), expected);
        QCOMPARE(server->dueForDiscovery().size(), gone ? size_t{0} : size_t{1});
        QCOMPARE(server->timerForDiscovery().isActive(), !gone);
        if (!gone) {
            QCOMPARE(server->timerForDiscovery().interval(),
                     expectedAvailability == QMR::Unconfirmed ? 300000 : 1800000);
        }
        const ScriptedRadio radio(server.registrationPort(), 1);
        QCOMPARE(recordsUntilNow(server), QList{gone ? givenUp(radio) : requestCameBack()});
    }

    void unansweredUnconfirmedIsAnnouncedUnreachableBeforeTheRequest()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now, .attempts = 3}});
        const ScriptedRadio radio(server.registrationPort(), 1);
        ScriptedApplication application(server.applicationPort());
        QVERIFY(application.sees(radio, QMR::Unconfirmed));
        server.log.take();
        server.clock.advance(300);

        server.expireDiscovery();

        QVERIFY(application.sees(radio, QMR::Unreachable));
        QCOMPARE(recordsUntilNow(server), QList{requestCameBack()});
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unreachable, 1, now, now + 300}}));
        QCOMPARE(server->timerForDiscovery().interval(), 1800000);
    }

    void givenUpRadioLeavesTableAndDatabaseAndIsAnnounced()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1,
                            .availability = QMR::Unreachable,
                            .lastContact = now,
                            .lastDiscovery = now,
                            .attempts = 3},
                           {.serial = 2,
                            .availability = QMR::Unreachable,
                            .lastContact = now,
                            .lastDiscovery = now + SilenceLimit - 1790}});
        server.query(u"INSERT INTO supported_services SELECT id, 2 FROM subscribers"_s);
        const ScriptedRadio lost(server.registrationPort(), 1);
        const ScriptedRadio other(server.registrationPort(), 2);
        ScriptedApplication application(server.applicationPort());
        QVERIFY(application.sees(lost, QMR::Unreachable) && application.sees(other, QMR::Unreachable));
        server.log.take();
        server.clock.set(QDateTime::fromSecsSinceEpoch(now + SilenceLimit, Qt::UTC));

        server.expireDiscovery();

        QVERIFY(application.seesGone(lost));
        QCOMPARE(recordsUntilNow(server), QList{givenUp(lost)});
        QVERIFY(!server->findRadio(esnOf(1)));
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unreachable, 0, now, now + SilenceLimit - 1790}}));
        QCOMPARE(server.query(u"SELECT count(*) FROM supported_services"_s), (QList<QVariantList>{{1LL}}));
        // No request has been sent, so the next radio need not wait for the spacing.
        QCOMPARE(server->timerForDiscovery().interval(), 10000);
        QCOMPARE(server->dueForDiscovery().size(), size_t{1});
    }

    void givenUpRadioWithPendingRegistrationStays()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{1, QMR::Unreachable, now, now, 3}});
        ScriptedApplication application(server.applicationPort());
        const ScriptedRadio confirmed(server.registrationPort(), 1);
        QVERIFY(application.sees(confirmed, QMR::Unreachable));
        ScriptedRadio radio(server.registrationPort(), 1, u"127.0.0.3"_s);
        server.clock.set(QDateTime::fromSecsSinceEpoch(now + SilenceLimit, Qt::UTC));
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        QVERIFY(application.seesPending(radio));
        server.log.take();

        server.expireDiscovery();

        QCOMPARE(recordsUntilNow(server), QList{givenUp(confirmed)});
        QCOMPARE(storedStates(server), QList<SupervisionState>());
        QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Deregistered, 0, now, now}}));
        QVERIFY(server->findRadio(esnOf(1))->address.isNull());
        QVERIFY(server->dueForDiscovery().empty());
        // Its deregistration was not announced: the pending registration is what applications are shown.
        server.clock.advance(17);
        server.expireHeartbeat();
        QVERIFY(application.seesGone(radio));
        QVERIFY(server->radios().empty());
    }

    void answerEndsTheSearch()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now - 500, .lastDiscovery = now, .attempts = 2}});
        server.clock.advance(300);
        server.expireDiscovery();
        QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 3, now - 500, now + 300}}));
        server.clock.advance(5);

        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();

        QVERIFY(radio.isAcknowledged());
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Registered, 0, now + 305, now + 300}}));
        QVERIFY(server->dueForDiscovery().empty());
        QVERIFY(!server->timerForDiscovery().isActive());
    }

    void requestToARadioInDoubtAnnouncesNothing()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now}});
        ScriptedRadio radio(server.registrationPort(), 1);
        ScriptedApplication application(server.applicationPort());
        QVERIFY(application.sees(radio, QMR::Unconfirmed));
        server.clock.advance(300);

        server.expireDiscovery();

        QCOMPARE(liveStates(server)[0].attempts, 1);
        radio.registers();
        QVERIFY(application.sees(radio, QMR::Registered));
    }

    void reportPutsRegisteredRadioInTheQueue()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now - 100, .attempts = 2}});
        ScriptedRadio radio(server.registrationPort(), 1);
        ScriptedApplication application(server.applicationPort());
        ScriptedApplication bystander(server.applicationPort());
        QVERIFY(application.sees(radio, QMR::Unconfirmed) && bystander.sees(radio, QMR::Unconfirmed));
        radio.registers();
        QVERIFY(application.sees(radio, QMR::Registered) && bystander.sees(radio, QMR::Registered));
        QVERIFY(server->dueForDiscovery().empty());

        application.reports(radio.esn, radio.address());

        QVERIFY(application.sees(radio, QMR::Unconfirmed));
        QVERIFY(bystander.sees(radio, QMR::Unconfirmed));
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 0, now, now - 100}}));
        QCOMPARE(server->dueForDiscovery().size(), size_t{1});
        QCOMPARE(server->timerForDiscovery().interval(), 200000);
    }

    void sendFailureStillCountsAsAttempt()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        // Requests go to the port on which the server is told to listen; nothing can be sent to port 0.
        server.configure("radioRegistrationPort=0\n");
        startWith(server, {{.lastContact = now}});

        server.expireDiscovery();

        QCOMPARE(server.log.take(),
                 QList{RecordingLog::record(Scm::EventError, u"Network error: write message failed"_s)});
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 1, now, now}}));
        QCOMPARE(server->timerForDiscovery().interval(), 300000);
    }

    void failedWriteLeavesTheMemoryChanged()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = 0, .attempts = 3}});
        server.query(
            u"CREATE TRIGGER refuse BEFORE UPDATE ON subscribers BEGIN SELECT RAISE(ABORT, ''); END"_s);

        server.expireDiscovery();

        const LogRecord failure = RecordingLog::record(Scm::EventError, u"Database write error"_s);
        QCOMPARE(recordsUntilNow(server), (QList{failure, failure, requestCameBack()}));
        QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Unreachable, 1, now, now}}));
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 3, now, 0}}));
        QCOMPARE(server->timerForDiscovery().interval(), 1800000);
    }

    void failedDeletionLeavesTheMemoryChanged()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server,
                  {{.serial = 1, .availability = QMR::Unreachable, .lastContact = now, .attempts = 3}});
        server.query(
            u"CREATE TRIGGER refuse BEFORE DELETE ON subscribers BEGIN SELECT RAISE(ABORT, ''); END"_s);
        server.clock.advance(SilenceLimit);

        server.expireDiscovery();

        const ScriptedRadio radio(server.registrationPort(), 1);
        QCOMPARE(recordsUntilNow(server),
                 (QList{givenUp(radio), RecordingLog::record(Scm::EventError, u"Database delete error"_s)}));
        QVERIFY(server->radios().empty());
        QVERIFY(server->dueForDiscovery().empty());
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unreachable, 3, now, 0}}));
    }

    // A stored state that has no name is searched for like an unreachable radio. It must not stay in the
    // queue once it is registered or gone.
    void stateWithoutANameIsGivenUpOnceAndForAll()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .availability = 7, .lastContact = now, .lastDiscovery = now},
                           {.serial = 2,
                            .availability = 7,
                            .lastContact = now,
                            .lastDiscovery = now,
                            .address = u"127.0.0.3"_s}});
        QCOMPARE(server->dueForDiscovery().size(), size_t{2});

        ScriptedRadio registered(server.registrationPort(), 1);
        registered.registers();
        QVERIFY(registered.isAcknowledged());
        server->deregisterRadio(esnOf(2), QHostAddress(u"127.0.0.3"_s));

        QVERIFY(server->dueForDiscovery().empty());
        QVERIFY(!server->timerForDiscovery().isActive());
    }
};

QTEST_GUILESS_MAIN(TestSupervision)
#include "tst_supervision.moc"
