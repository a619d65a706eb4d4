// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/supervisedradio.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 SilenceLimit = 43200; // seconds

} // namespace

// Every five minutes: whoever has been silent for more than twelve hours becomes unreachable.
class TestTimeoutCheck : public QObject
{
    Q_OBJECT

private slots:
    void runsEveryFiveMinutesFromStartToStop()
    {
        TestServer server;
        QVERIFY(!server->timerForTimeoutCheck().isActive());
        server.start();
        QVERIFY(server->timerForTimeoutCheck().isActive());
        QVERIFY(!server->timerForTimeoutCheck().isSingleShot());
        QCOMPARE(server->timerForTimeoutCheck().interval(), 300000);
        server.stop();
        QVERIFY(!server->timerForTimeoutCheck().isActive());
    }

    void demotesAfterTwelveHours_data()
    {
        QTest::addColumn<bool>("registered");
        QTest::addColumn<qint64>("silence"); // ms
        QTest::addColumn<bool>("demoted");
        for (const bool registered : {true, false}) {
            const char *state = registered ? "registered" : "unconfirmed";
            QTest::addRow("%s, 43199 s", state) << registered << qint64{43199000} << false;
            QTest::addRow("%s, 43200 s", state) << registered << qint64{43200000} << false;
            QTest::addRow("%s, 43200.001 s", state) << registered << qint64{43200001} << true;
            QTest::addRow("%s, 43201 s", state) << registered << qint64{43201000} << true;
            QTest::addRow("%s, a century", state) << registered << qint64{3155760000000} << true;
        }
    }

    void demotesAfterTwelveHours()
    {
        QFETCH(const bool, registered);
        QFETCH(const qint64, silence);
        QFETCH(const bool, demoted);
        TestServer server;
        const qint64 contact = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = contact, .lastDiscovery = contact, .attempts = 2}});
        if (registered) {
            ScriptedRadio radio(server.registrationPort(), 1);
            radio.registers();
            QVERIFY(radio.isAcknowledged());
        }
        server.log.take();
        const QList<SupervisionState> before = liveStates(server);
        server.clock.set(server.clock.now().addMSecs(silence));

        server.expireTimeoutCheck();

        const QList<SupervisionState> after =
            demoted ? QList<SupervisionState>{{QMR::Unreachable, 0, contact, contact}} : before;
        QCOMPARE(liveStates(server), after);
        QCOMPARE(storedStates(server), after);
        QCOMPARE(server->dueForDiscovery().size(), size_t{demoted || !registered});
        QCOMPARE(server.log.records(), QList<LogRecord>());
    }

    void demotesTheSilentInEsnOrderAndAnnouncesEach()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 9, .lastContact = now, .lastDiscovery = now},
                           {.serial = 1, .lastContact = now, .lastDiscovery = now + 5},
                           {.serial = 5,
                            .availability = QMR::Unreachable,
                            .lastContact = now,
                            .lastDiscovery = now,
                            .attempts = 2},
                           {.serial = 7, .lastContact = now + 1, .lastDiscovery = now}});
        ScriptedApplication application(server.applicationPort());
        QCOMPARE(application.receives(4).size(), 4);
        server.clock.set(server.clock.now().addMSecs(SilenceLimit * 1000 + 1));

        server.expireTimeoutCheck();

        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unreachable, 0, now, now + 5},
                                                                {QMR::Unreachable, 2, now, now},
                                                                {QMR::Unconfirmed, 0, now + 1, now},
                                                                {QMR::Unreachable, 0, now, now}}));
        QVERIFY(application.sees(ScriptedRadio(server.registrationPort(), 1), QMR::Unreachable));
        QVERIFY(application.sees(ScriptedRadio(server.registrationPort(), 9), QMR::Unreachable));
        // The two others were not announced: the next notice is about one of them.
        ScriptedRadio answering(server.registrationPort(), 5);
        answering.registers();
        // All four share an address, so the first of them loses it.
        QVERIFY(application.seesGone(ScriptedRadio(server.registrationPort(), 1)));
        QVERIFY(application.sees(answering, QMR::Registered));
    }

    void demotedRadioIsDueBySpacingOfUnreachable()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        const qint64 checked = now + SilenceLimit + 1;
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = checked - 100}});
        server.clock.set(QDateTime::fromSecsSinceEpoch(checked, Qt::UTC));
        server->rearmDiscoveryTimer();
        QCOMPARE(server->timerForDiscovery().interval(), 200000);

        server.expireTimeoutCheck();

        QCOMPARE(server->timerForDiscovery().interval(), 1700000);
        QCOMPARE(server->dueForDiscovery().size(), size_t{1});
    }

    void pendingRegistrationKeepsTheDemotionFromApplications()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now}});
        ScriptedApplication application(server.applicationPort());
        const ScriptedRadio confirmed(server.registrationPort(), 1);
        QVERIFY(application.sees(confirmed, QMR::Unconfirmed));
        server.clock.advance(SilenceLimit + 1);
        ScriptedRadio radio(server.registrationPort(), 1, u"127.0.0.3"_s);
        radio.registersPending();
        QVERIFY(application.seesPending(radio));

        server.expireTimeoutCheck();

        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unreachable, 0, now, now}}));
        server.clock.advance(17);
        server.expireHeartbeat();
        QVERIFY(application.sees(confirmed, QMR::Unreachable));
    }

    void leavesRadioWithoutConfirmedRegistrationAlone()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        server.log.take();

        server.expireTimeoutCheck(); // its last contact counts as 1970

        QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Deregistered, 0, 0, 0}}));
        QCOMPARE(server.log.records(), QList<LogRecord>()); // a write would have failed: it is not stored
        QVERIFY(server->dueForDiscovery().empty());
    }

    void clockSetBackDemotesNobody()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now}});
        server.clock.advance(-50LL * 365 * 86400);

        server.expireTimeoutCheck();

        QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 0, now, now}}));
    }

    void failedWriteLeavesTheMemoryChanged()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1, .lastContact = now, .lastDiscovery = now},
                           {.serial = 2, .lastContact = now, .lastDiscovery = now}});
        server.query(u"CREATE TRIGGER refuse BEFORE UPDATE ON subscribers WHEN hex(old.esn) LIKE '%01' "
                     "BEGIN SELECT RAISE(ABORT, ''); END"_s);
        server.clock.advance(SilenceLimit + 1);

        server.expireTimeoutCheck();

        QCOMPARE(server.log.take(), QList{RecordingLog::record(Scm::EventError, u"Database write error"_s)});
        const SupervisionState unreachable{QMR::Unreachable, 0, now, now};
        QCOMPARE(liveStates(server), (QList{unreachable, unreachable}));
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unconfirmed, 0, now, now}, unreachable}));
    }
};

QTEST_GUILESS_MAIN(TestTimeoutCheck)
#include "tst_timeoutcheck.moc"
