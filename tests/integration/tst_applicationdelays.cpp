// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/backgroundapplication.h"
#include "tests/support/connections.h"
#include "tests/support/eventloop.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QTest>
#include <QTimer>
#include <QUdpSocket>

#include <chrono>
#include <functional>
#include <memory>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

const QString Connected = u"Application connected from 127.0.0.1"_s;
const QString Disconnected = u"Application disconnected from 127.0.0.1"_s;
const QString BadLength = u"QMRA protocol error detected: invalid payload length"_s;
const QString Timeout = u"Network error: read timeout"_s;

constexpr unsigned long LongerThanAWait = 600; // ms

} // namespace

// The server comes late to its applications: a disk was slow, a database was locked.
class TestApplicationDelays : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        radio = std::make_unique<ScriptedRadio>(server->registrationPort(), 1);
        radio->registers();
        QVERIFY(radio->isAcknowledged());
        delay = std::make_unique<QUdpSocket>();
        QVERIFY(delay->bind(QHostAddress::LocalHost));
    }

    void cleanup()
    {
        delay.reset();
        radio.reset();
        server.reset();
    }

    // It has not been late, the server is.
    void restThatHasComeInTimeIsRead()
    {
        const QByteArray message = ScriptedApplication::message(2, QByteArray(11, 'x'));
        const BackgroundApplication application(server->applicationPort(),
                                                {message.first(8), message.sliced(8)}, 250ms);
        QVERIFY(runsUntil([this] { return server->log.count(Connected) == 1; }));
        holdUp([] {});
        QVERIFY(runsUntil([this] { return server->log.records().size() >= 3; }));
        QCOMPARE(server->log.takeMessages().last(2), (QStringList{Connected, BadLength}));
    }

    // Late for both, and for what it owes the database first.
    void endThatIsFoundOnlyWhenTheWaitEndsIsToldOnce()
    {
        ScriptedApplication application(server->applicationPort());
        QVERIFY(application.sees(*radio, QMR::Registered));
        server->log.take();
        application.sends(ScriptedApplication::message(3, QByteArray(4, 'x')).first(5));
        ScriptedApplication other(server->applicationPort());
        QVERIFY(other.sees(*radio, QMR::Registered)); // and so the server has read what came before
        holdUp([&] {
            reset(application.connection());
            QMR::WriteTurn turn((*server)->writeGroup());
            (*server)->setAvailability((*server)->findRadio(radio->esn), QMR::Unconfirmed);
            turn.keepOpen();
        });
        QVERIFY(other.sees(*radio, QMR::Unconfirmed));
        radio->registers();
        QVERIFY(other.sees(*radio, QMR::Registered));
        QTRY_COMPARE(server->log.count(Disconnected), 1);
        QCOMPARE(server->log.count(Timeout), 1);
    }

    // Whatever comes next, what is open is stored first.
    void theEndOfAWaitIsRecordedBehindTheCommit()
    {
        ScriptedApplication application(server->applicationPort());
        QVERIFY(application.sees(*radio, QMR::Registered));
        application.sends(ScriptedApplication::message(3, QByteArray(4, 'x')).first(5));
        ScriptedApplication other(server->applicationPort());
        QVERIFY(other.sees(*radio, QMR::Registered)); // and so the server has read what came before
        bool isOpen = false;
        server->log.whenWritten([&](const LogRecord &record) {
            isOpen = isOpen || (record.message == Timeout && (*server)->holdsBack());
        });
        bool wasOpen = false;
        holdUp([&] {
            {
                QMR::WriteTurn turn((*server)->writeGroup());
                turn.keepOpen();
            }
            wasOpen = (*server)->holdsBack();
        });
        QVERIFY(runsUntil([this] { return server->log.count(Timeout) == 1; }));
        server->log.whenWritten({});
        QVERIFY(wasOpen);
        QVERIFY(!isOpen);
    }

    // An application has something to be read in each of many turns of the event loop.
    void othersAreServedBetweenTheTurnsOfAnApplication()
    {
        constexpr int Many = 1500;
        ScriptedApplication application(server->applicationPort());
        QVERIFY(application.sees(*radio, QMR::Registered));
        server->log.take();
        application.sends(ScriptedApplication::message(2, QByteArray()).repeated(Many));
        server->clock.workTakes(1ms);
        QVERIFY(runsUntil([this] { return server->log.count(BadLength) > 0; }));
        radio->registers();
        bool isTimed = false;
        QTimer::singleShot(1, this, [&isTimed] { isTimed = true; });
        QVERIFY(runsUntil([&] { return isTimed && radio->hasReceived(); }));
        QVERIFY(server->log.count(BadLength) < Many);
    }

    // Radios that wait share a commit; at its end the application has its turn, whoever waits by then.
    void radiosThatKeepComingDoNotHoldItUp()
    {
        constexpr int Many = 5000;
        ScriptedApplication application(server->applicationPort());
        QVERIFY(application.sees(*radio, QMR::Registered));
        server->log.take();
        int registrations = 0;
        bool isServed = false;
        server->log.whenWritten([&](const LogRecord &record) {
            isServed = isServed || record.message == BadLength;
            if (!isServed && ++registrations < Many) {
                radio->registers();
            }
        });
        radio->registers();
        radio->registers(); // one is always waiting
        application.sends(ScriptedApplication::message(2, QByteArray()));
        QVERIFY(runsUntil([&] { return isServed; }));
        server->log.whenWritten({});
        QVERIFY(registrations < Many);
    }

private:
    // A socket of the test's own stands still for longer than a wait, in a turn of the event loop that has
    // timers to serve behind it.
    void holdUp(const std::function<void()> &action)
    {
        connect(delay.get(), &QUdpSocket::readyRead, this, [this, action] {
            delay->readDatagram(nullptr, 0);
            QTest::qSleep(LongerThanAWait);
            action();
        });
        connect(&anyTimer, &QTimer::timeout, this, [this] { anyTimer.stop(); });
        // Timers that follow a posted event wait for no other event.
        QMetaObject::invokeMethod(
            this,
            [this] {
                delay->writeDatagram("x", 1, QHostAddress::LocalHost, delay->localPort());
                anyTimer.start(0);
            },
            Qt::QueuedConnection);
    }

    std::unique_ptr<TestServer> server;
    std::unique_ptr<ScriptedRadio> radio;
    std::unique_ptr<QUdpSocket> delay;
    QTimer anyTimer;
};

QTEST_GUILESS_MAIN(TestApplicationDelays)
#include "tst_applicationdelays.moc"
