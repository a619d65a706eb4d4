// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/supervisedradio.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 SilenceLimit = 43200; // seconds

// The requests go to the radio's loopback address and so to the server's own socket, which rejects them; each
// leaves this record.
const QString RequestCameBack = u"QMRS Protocol error: invalid message (2)"_s;

// Moves the clock to the moment for which the timer is armed, and lets it expire there.
void letTimerExpire(TestServer &server)
{
    server.clock.advance(server->timerForDiscovery().interval() / 1000);
    server.expireDiscovery();
}

} // namespace

// The whole life of a radio that falls silent, each step with its row, its notice and its record.
class TestLostRadio : public QObject
{
    Q_OBJECT

private slots:
    void reportedRadioIsSearchedForThenUnreachableThenGivenUp()
    {
        TestServer server;
        server.start();
        ScriptedApplication application(server.applicationPort());
        ScriptedRadio radio(server.registrationPort(), 1);
        const qint64 contact = server.clock.seconds();
        radio.registers("\2");
        QVERIFY(radio.isAcknowledged());
        QVERIFY(application.sees(radio, QMR::Registered, "\2"));
        server.log.take();

        // An application cannot reach it any more.
        server.clock.advance(1000);
        application.reports(radio.esn, radio.address());
        QVERIFY(application.sees(radio, QMR::Unconfirmed, "\2"));

        // Three requests, 300 seconds apart, the first at once: it was last searched for in 1970. The timer,
        // at 0 ms, is left to expire by itself.
        const qint64 firstRequest = contact + 1000;
        QTRY_COMPARE(server.log.count(RequestCameBack), 1);
        for (int attempt = 1; attempt <= 3; ++attempt) {
            if (attempt > 1) {
                letTimerExpire(server);
            }
            const qint64 sent = firstRequest + (attempt - 1) * 300;
            QCOMPARE(storedStates(server),
                     (QList<SupervisionState>{{QMR::Unconfirmed, attempt, contact, sent}}));
            QCOMPARE(server->timerForDiscovery().interval(), 300000);
            QTRY_COMPARE(server.log.count(RequestCameBack), attempt);
            server.expireTimeoutCheck();
        }
        QCOMPARE(server.log.take().size(), 3);

        // Unreachable with the fourth, which is sent all the same.
        letTimerExpire(server);
        const qint64 fourthRequest = firstRequest + 900;
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unreachable, 1, contact, fourthRequest}}));
        QVERIFY(application.sees(radio, QMR::Unreachable, "\2"));
        QTRY_COMPARE(server.log.count(RequestCameBack), 1);

        // Requests 1800 seconds apart until twelve hours have gone by since it was heard.
        int attempts = 1;
        qint64 due = fourthRequest + 1800;
        for (; due - contact < SilenceLimit; due += 1800) {
            QCOMPARE(server->timerForDiscovery().interval(), 1800000);
            letTimerExpire(server);
            ++attempts;
            QCOMPARE(storedStates(server),
                     (QList<SupervisionState>{{QMR::Unreachable, attempts, contact, due}}));
            QTRY_COMPARE(server.log.count(RequestCameBack), attempts);
            server.expireTimeoutCheck();
        }
        QCOMPARE(attempts, 23);
        QCOMPARE(server.log.take().size(), 23);

        // Given up: one record, one last notice, no row, and no more requests.
        letTimerExpire(server);
        QCOMPARE(server.clock.seconds(), contact + 43300);
        QVERIFY(application.seesGone(radio));
        QCOMPARE(storedStates(server), QList<SupervisionState>());
        QCOMPARE(server.query(u"SELECT * FROM supported_services"_s), QList<QVariantList>());
        QVERIFY(server->radios().empty());
        QVERIFY(!server->timerForDiscovery().isActive());
        QCOMPARE(server.log.take(),
                 QList{RecordingLog::record(Scm::EventInformation, radio.deregisteredText())});
    }

    void silentRadioIsUnreachableAfterTwelveHoursThenGivenUp()
    {
        TestServer server;
        server.start();
        ScriptedApplication application(server.applicationPort());
        ScriptedRadio radio(server.registrationPort(), 1);
        const qint64 contact = server.clock.seconds();
        radio.registers();
        QVERIFY(application.sees(radio, QMR::Registered));
        server.log.take();

        for (qint64 check = 300; check <= SilenceLimit; check += 300) {
            server.clock.advance(300);
            server.expireTimeoutCheck();
            QCOMPARE(liveStates(server), (QList<SupervisionState>{{QMR::Registered, 0, contact, 0}}));
        }
        server.clock.advance(300);
        server.expireTimeoutCheck();
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unreachable, 0, contact, 0}}));
        QVERIFY(application.sees(radio, QMR::Unreachable));

        const qint64 firstRequest = contact + SilenceLimit + 300;
        QTRY_COMPARE(server.log.count(RequestCameBack), 1); // due at once; the timer expires by itself
        for (int attempt = 1; attempt <= 3; ++attempt) {
            if (attempt > 1) {
                letTimerExpire(server);
            }
            const qint64 sent = firstRequest + (attempt - 1) * 1800;
            QCOMPARE(storedStates(server),
                     (QList<SupervisionState>{{QMR::Unreachable, attempt, contact, sent}}));
            QTRY_COMPARE(server.log.count(RequestCameBack), attempt);
        }
        QCOMPARE(server.log.take().size(), 3);

        letTimerExpire(server);
        QVERIFY(application.seesGone(radio));
        QCOMPARE(storedStates(server), QList<SupervisionState>());
        QCOMPARE(server.log.takeMessages(), QStringList{radio.deregisteredText()});
    }

    void searchGoesOnWhereARestartLeftIt()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 1);
        const qint64 contact = server.clock.seconds();
        radio.registers();
        QVERIFY(radio.isAcknowledged());

        server.restart(); // to be heard from again, and searched for at once
        QCOMPARE(storedStates(server), (QList<SupervisionState>{{QMR::Unconfirmed, 0, contact, 0}}));
        letTimerExpire(server);
        letTimerExpire(server);
        server.restart();
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unconfirmed, 2, contact, contact + 300}}));
        QCOMPARE(server->timerForDiscovery().interval(), 300000);
        letTimerExpire(server);
        letTimerExpire(server);
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unreachable, 1, contact, contact + 900}}));
        server.restart();
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unreachable, 1, contact, contact + 900}}));
        QCOMPARE(server->timerForDiscovery().interval(), 1800000);

        // Twelve hours of silence at a start set the count back: three more requests before it is given up.
        server.clock.set(QDateTime::fromSecsSinceEpoch(contact + SilenceLimit, Qt::UTC));
        server.restart();
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Unreachable, 0, contact, contact + 900}}));
        for (int attempt = 1; attempt <= 3; ++attempt) {
            letTimerExpire(server);
            QCOMPARE(storedStates(server),
                     (QList<SupervisionState>{{QMR::Unreachable, attempt, contact,
                                               contact + SilenceLimit + (attempt - 1) * 1800}}));
        }
        letTimerExpire(server);
        QCOMPARE(storedStates(server), QList<SupervisionState>());
    }

    void lostRadioThatAnswersIsRegisteredAgain()
    {
        TestServer server;
        const qint64 now = server.clock.seconds();
        startWith(server, {{.serial = 1,
                            .availability = QMR::Unreachable,
                            .lastContact = now - 2 * SilenceLimit,
                            .lastDiscovery = now,
                            .attempts = 3}});
        ScriptedApplication application(server.applicationPort());
        ScriptedRadio radio(server.registrationPort(), 1);
        QVERIFY(application.sees(radio, QMR::Unreachable));
        letTimerExpire(server);

        radio.registers();

        QVERIFY(radio.isAcknowledged());
        QVERIFY(application.sees(radio, QMR::Registered));
        QCOMPARE(storedStates(server),
                 (QList<SupervisionState>{{QMR::Registered, 0, now + 1800, now + 1800}}));
        QVERIFY(!server->timerForDiscovery().isActive());
    }
};

QTEST_GUILESS_MAIN(TestLostRadio)
#include "tst_lostradio.moc"
