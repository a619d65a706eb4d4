// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/eventloop.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QTest>

#include <algorithm>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using QMR::Esn;
using QMR::RadioPointer;

namespace {

constexpr quint32 RadioCount = 5000;
constexpr qint64 SilenceLimit = 43200; // seconds
constexpr qint64 PendingLifetime = 17; // seconds

// A slice has 5 ms. Here each look at the time costs one; a check looks after every 16th radio, a lapse after
// each.
constexpr quint32 ASliceOfTheCheck = 5 * 16;
constexpr quint32 ASliceOfTheLapse = 5;

Esn esnOf(quint32 radio)
{
    return {{1, 0, 0, 0, 0, 0, static_cast<quint8>(radio >> 8), static_cast<quint8>(radio)}};
}

} // namespace

// So many radios fall silent at once that it takes a while to deal with them.
class TestSupervisionSlices : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        server->clock.workTakes(1ms);
    }

    void cleanup() { server.reset(); }

    void radiosAreServedInTheMiddleOfTheCheck()
    {
        insertRegistered();
        passTime(SilenceLimit * 1000 + 1);
        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers();
        server->expireTimeoutCheck();
        QCOMPARE(unreachable(), ASliceOfTheCheck);
        QVERIFY(runsUntil([&radio] { return radio.hasReceived(); }));
        QVERIFY(unreachable() < RadioCount);
        QVERIFY(runsUntil([this] { return unreachable() == RadioCount; }));
        QCOMPARE(storedAs(QMR::Unreachable), RadioCount);
        QCOMPARE((*server)->findRadio(radio.esn)->availability, QMR::Registered);
    }

    // Who has been silent for too long by the check's end, and had not been at its beginning, has five more
    // minutes.
    void checkTakesItsThresholdOnce()
    {
        insertRegistered();
        for (quint32 i = 0; i < RadioCount; i += 2) {
            (*server)->findRadio(esnOf(i))->lastContactTime = server->clock.now().addSecs(3600);
        }
        passTime(SilenceLimit * 1000 + 1);
        server->expireTimeoutCheck();
        QVERIFY(unreachable() < RadioCount / 2);
        passTime(7200 * 1000);
        QVERIFY(runsUntil([this] { return unreachable() == RadioCount / 2; }));
        haveTurns();
        QCOMPARE(unreachable(), RadioCount / 2);
        server->expireTimeoutCheck();
        QVERIFY(runsUntil([this] { return unreachable() == RadioCount; }));
    }

    // Though the system's clock is wrong for a while.
    void checkDoesNotReturnToWhomItHasPassed()
    {
        insertRegistered();
        passTime(SilenceLimit * 1000 + 1);
        server->expireTimeoutCheck();
        const RadioPointer passed = (*server)->findRadio(esnOf(0));
        QCOMPARE(passed->availability, quint32{QMR::Unreachable});
        QVERIFY(unreachable() < RadioCount);
        passTime(-2 * SilenceLimit * 1000);
        (*server)->setAvailability(passed, QMR::Registered);
        passTime(2 * SilenceLimit * 1000);
        QVERIFY(runsUntil([this] { return unreachable() == RadioCount - 1; }));
        haveTurns();
        QCOMPARE(passed->availability, quint32{QMR::Registered});
    }

    void checkTellsOfEachRadioOnceAndInOrder_data()
    {
        QTest::addColumn<bool>("expiresAgain");
        QTest::newRow("alone") << false;
        QTest::newRow("the timer expires in the middle of it") << true;
    }
    void checkTellsOfEachRadioOnceAndInOrder()
    {
        QFETCH(bool, expiresAgain);
        ScriptedApplication application(server->applicationPort());
        QVERIFY(runsUntil([this] { return server->log.records().size() == 1; }));
        insertRegistered();
        passTime(SilenceLimit * 1000 + 1);
        server->expireTimeoutCheck();
        if (expiresAgain) {
            server->expireTimeoutCheck();
        }
        const QList<Notice> notices = application.receives(RadioCount);
        QCOMPARE(notices.size(), qsizetype{RadioCount});
        for (quint32 i = 0; i < RadioCount; ++i) {
            QCOMPARE(notices[i].esn, esnOf(i));
            QCOMPARE(notices[i].availability, int{QMR::Unreachable});
        }
        haveTurns();
        QCOMPARE(application.connection().bytesAvailable(), 0);
    }

    void stopEndsTheCheck()
    {
        insertRegistered();
        passTime(SilenceLimit * 1000 + 1);
        server->expireTimeoutCheck();
        const quint32 checked = unreachable();
        QVERIFY(checked < RadioCount);
        server->stop();
        haveTurns();
        QCOMPARE(storedAs(QMR::Unreachable), checked);
        // The next check of the same object begins with the first radio.
        server->object().start();
        server->expireTimeoutCheck();
        QVERIFY(runsUntil([this] { return unreachable() == RadioCount; }));
    }

    void radiosAreServedInTheMiddleOfALapse()
    {
        insertPending();
        passTime(PendingLifetime * 1000);
        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers();
        beginLapse();
        QCOMPARE(pending(), RadioCount - ASliceOfTheLapse);
        QVERIFY(runsUntil([&radio] { return radio.hasReceived(); }));
        QVERIFY(pending() > 0);
        QVERIFY(runsUntil([this] { return pending() == 0; }));
        QVERIFY(!(*server)->timerForDeadline().isActive());
    }

    void lapseSparesWhoIsRefreshedInTheMiddleOfIt()
    {
        insertPending();
        passTime(PendingLifetime * 1000);
        beginLapse();
        const auto last = (*server)->findRadio(esnOf(0));
        QVERIFY(last);
        (*server)->refreshPending(last, false);
        QVERIFY(runsUntil([this] { return pending() == 1; }));
        haveTurns();
        QCOMPARE(pending(), 1U);
        QVERIFY((*server)->timerForDeadline().isActive());
        QCOMPARE((*server)->timerForDeadline().interval(), int{PendingLifetime * 1000});
    }

    void lapseGoesByDeadline()
    {
        insertPending();
        passTime(PendingLifetime * 1000);
        server->log.take();
        beginLapse();
        QVERIFY(runsUntil([this] { return pending() == 0; }));
        const QStringList messages = server->log.takeMessages();
        QCOMPARE(messages.size(), qsizetype{RadioCount});
        // Inserted with falling ESN, each a millisecond after the one before.
        for (quint32 i = 0; i < RadioCount; ++i) {
            QVERIFY(messages[i].startsWith(u"Radio "_s + esnOf(RadioCount - 1 - i).text()));
        }
    }

    void stopEndsTheLapse()
    {
        insertPending();
        passTime(PendingLifetime * 1000);
        beginLapse();
        server->stop();
        server->log.take();
        haveTurns();
        QCOMPARE(server->log.take(), QList<LogRecord>());
        server->object().start();
        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        passTime(PendingLifetime * 1000);
        beginLapse();
        QCOMPARE((*server)->awaitingConfirmation().size(), size_t{0});
    }

private:
    void passTime(qint64 milliseconds) { server->clock.set(server->clock.now().addMSecs(milliseconds)); }

    // Its first slice.
    void beginLapse() const { server->expire("eventHeartbeatTimerExpired"); }

    static void haveTurns()
    {
        for (int i = 0; i < 100; ++i) {
            QCoreApplication::processEvents();
        }
    }

    RadioPointer insert(quint32 number) const
    {
        const auto radio = std::make_shared<QMR::RadioEntry>();
        radio->esn = esnOf(number);
        radio->lastDiscoveryAttempt = server->clock.now();
        (*server)->insertRadio(radio);
        return radio;
    }

    void insertRegistered() const
    {
        const QMR::WriteTurn turn((*server)->writeGroup());
        for (quint32 i = 0; i < RadioCount; ++i) {
            const RadioPointer radio = insert(i);
            (*server)->setAddress(radio, QHostAddress(0x0A000000 + i));
            radio->availability = QMR::Registered;
            radio->lastContactTime = server->clock.now();
            (*server)->insertSubscriber(*radio);
            (*server)->updateSubscriber(*radio);
        }
    }

    // The last ESN's deadline comes first.
    void insertPending()
    {
        for (quint32 i = RadioCount; i-- > 0;) {
            const RadioPointer radio = insert(i);
            (*server)->setPendingAddress(radio, QHostAddress(0x0A000000 + i));
            passTime(1);
            (*server)->registerPending(radio);
        }
    }

    quint32 unreachable() const
    {
        return static_cast<quint32>(std::ranges::count_if((*server)->radios(), [](const auto &entry) {
            return entry.second->availability == QMR::Unreachable;
        }));
    }

    quint32 pending() const { return static_cast<quint32>((*server)->awaitingConfirmation().size()); }

    quint32 storedAs(quint32 availability) const
    {
        return server
            ->query(u"SELECT count(*) FROM subscribers WHERE availability = %1"_s.arg(availability))[0][0]
            .toUInt();
    }

    std::unique_ptr<TestServer> server;
};

QTEST_GUILESS_MAIN(TestSupervisionSlices)
#include "tst_supervisionslices.moc"
