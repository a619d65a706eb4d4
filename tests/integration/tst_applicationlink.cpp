// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationmanager.h"
#include "tests/support/deletions.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QTcpServer>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

using QMR::ApplicationManager;

namespace {

const QString Connected = u"Application connected from 127.0.0.1"_s;
const QString Disconnected = u"Application disconnected from 127.0.0.1"_s;

Notice noticeOf(const ScriptedRadio &radio, int availability, const QByteArray &services = QByteArray())
{
    return {radio.esn, radio.suid, false, radio.address().toIPv4Address(), availability, services};
}

} // namespace

// Applications come and go: what each is told first, and what the log says of it.
class TestApplicationLink : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
    }

    void cleanup() { server.reset(); }

    void connectionIsLogged()
    {
        const ScriptedApplication application(server->applicationPort());
        QTRY_COMPARE(server->log.records().size(), 1);
        QCOMPARE(server->log.take(), QList{RecordingLog::record(Scm::EventInformation, Connected)});
    }

    void peerIsKnownByItsPlainIpv4Address()
    {
        QTcpSocket peer;
        QVERIFY(peer.bind(QHostAddress(u"127.0.0.77"_s)));
        peer.connectToHost(QHostAddress::LocalHost, server->applicationPort());
        QCOMPARE(server->log.takeMessagesOnce(1), QStringList{u"Application connected from 127.0.0.77"_s});
        peer.close();
        QCOMPARE(server->log.takeMessagesOnce(1), QStringList{u"Application disconnected from 127.0.0.77"_s});
    }

    void nothingIsKeptOfOneThatHasGone()
    {
        const Deletions<QTcpSocket> deleted;
        {
            const ScriptedApplication application(server->applicationPort());
            QCOMPARE(server->log.takeMessagesOnce(1), QStringList{Connected});
        }
        QCOMPARE(server->log.takeMessagesOnce(1), QStringList{Disconnected});
        QTRY_COMPARE(deleted.count(), 1);
    }

    void isNotReachableOverIpv6()
    {
        QTcpSocket peer;
        peer.connectToHost(QHostAddress::LocalHostIPv6, server->applicationPort());
        QTRY_COMPARE(peer.state(), QAbstractSocket::UnconnectedState);
        QVERIFY(server->log.records().isEmpty());
    }

    void snapshotComesFirstAndInEsnOrder()
    {
        ScriptedRadio last(server->registrationPort(), 0xF0, u"127.0.0.2"_s);
        ScriptedRadio first(server->registrationPort(), 0x01, u"127.0.0.3"_s);
        ScriptedRadio middle(server->registrationPort(), 0x7F, u"127.0.0.4"_s);
        for (ScriptedRadio *radio : {&last, &first, &middle}) {
            radio->registers(QByteArray::fromHex("0301"));
            QVERIFY(radio->isAcknowledged());
        }
        ScriptedApplication application(server->applicationPort());
        const QByteArray services = QByteArray::fromHex("0301");
        QCOMPARE(application.receives(3), (QList{noticeOf(first, 3, services), noticeOf(middle, 3, services),
                                                 noticeOf(last, 3, services)}));
        // No fourth notice: the next one is that of the next change.
        first.deregisters();
        QVERIFY(application.seesGone(first));
    }

    void esnsAreOrderedAsUnsignedBytes()
    {
        ScriptedRadio high(server->registrationPort(), 0x01, u"127.0.0.2"_s);
        high.esn.bytes[0] = 0x80;
        ScriptedRadio low(server->registrationPort(), 0x02, u"127.0.0.3"_s);
        low.esn.bytes[0] = 0x7F;
        for (ScriptedRadio *radio : {&high, &low}) {
            radio->registers();
            QVERIFY(radio->isAcknowledged());
        }
        ScriptedApplication application(server->applicationPort());
        QCOMPARE(application.receives(2), (QList{noticeOf(low, 3), noticeOf(high, 3)}));
    }

    void snapshotShowsEachRadioAsItIs()
    {
        ScriptedRadio registered(server->registrationPort(), 1, u"127.0.0.2"_s);
        ScriptedRadio pendingOnly(server->registrationPort(), 2, u"127.0.0.3"_s);
        ScriptedRadio both(server->registrationPort(), 3, u"127.0.0.4"_s);
        ScriptedRadio doubted(server->registrationPort(), 4, u"127.0.0.5"_s);
        ScriptedRadio lost(server->registrationPort(), 5, u"127.0.0.6"_s);
        registered.registers(QByteArray::fromHex("01"));
        QVERIFY(registered.isAcknowledged());
        pendingOnly.registersPending(QByteArray::fromHex("02"));
        QVERIFY(pendingOnly.isAcknowledged());
        both.registers(QByteArray::fromHex("03"));
        QVERIFY(both.isAcknowledged());
        both.movesTo(u"127.0.0.44"_s);
        both.suid.bytes[0] = 0x99;
        both.registersPending(QByteArray::fromHex("0101"));
        QVERIFY(both.isAcknowledged());
        for (ScriptedRadio *radio : {&doubted, &lost}) {
            radio->registers();
            QVERIFY(radio->isAcknowledged());
        }
        (*server)->setAvailability((*server)->findRadio(doubted.esn), QMR::Unconfirmed);
        (*server)->setAvailability((*server)->findRadio(lost.esn), QMR::Unreachable);

        ScriptedApplication application(server->applicationPort());
        QVERIFY(application.sees(registered, QMR::Registered, QByteArray::fromHex("01")));
        QVERIFY(application.seesPending(pendingOnly, QByteArray::fromHex("02")));
        QVERIFY(application.seesPending(both, QByteArray::fromHex("0101")));
        QVERIFY(application.sees(doubted, QMR::Unconfirmed));
        QVERIFY(application.sees(lost, QMR::Unreachable));
    }

    void snapshotIsThatOfTheStoredRadiosAfterARestart()
    {
        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers(QByteArray::fromHex("02"));
        QVERIFY(radio.isAcknowledged());
        server->restart();
        ScriptedApplication application(server->applicationPort());
        QVERIFY(application.sees(radio, QMR::Unconfirmed, QByteArray::fromHex("02")));
    }

    void twoConnectingAtOnceGetTheTableOnceEach()
    {
        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        server->log.take();

        // The server, on this thread, comes to accept only when both are connected.
        QTcpSocket probes[2];
        for (QTcpSocket &probe : probes) {
            probe.connectToHost(QHostAddress::LocalHost, server->applicationPort());
            QVERIFY(probe.waitForConnected());
        }
        QVERIFY(server->log.records().isEmpty());
        for (QTcpSocket &probe : probes) {
            QTRY_COMPARE(probe.bytesAvailable(), 30);
        }
        QCOMPARE(server->log.takeMessages(), (QStringList{Connected, Connected}));

        radio.deregisters();
        for (QTcpSocket &probe : probes) {
            QTRY_COMPARE(probe.bytesAvailable(), 60); // one notice more: no second table
        }
    }

    void closingIsLoggedOnceAndWithoutAWarning()
    {
        ScriptedApplication application(server->applicationPort());
        QCOMPARE(server->log.takeOnce(1).size(), 1);
        application.connection().close();
        QTRY_COMPARE(server->log.count(Disconnected), 1);
        const ScriptedApplication next(server->applicationPort());
        QTRY_COMPARE(server->log.count(Connected), 1);
        QCOMPARE(server->log.take(), (QList{RecordingLog::record(Scm::EventInformation, Disconnected),
                                            RecordingLog::record(Scm::EventInformation, Connected)}));
    }

    void whoHasLeftIsSentNothing()
    {
        auto leaving = std::make_unique<ScriptedApplication>(server->applicationPort());
        ScriptedApplication staying(server->applicationPort());
        QTRY_COMPARE(server->log.count(Connected), 2);
        leaving.reset();
        QTRY_COMPARE(server->log.count(Disconnected), 1);
        server->log.take();

        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers();
        QVERIFY(staying.sees(radio, QMR::Registered));
        QCOMPARE(server->log.takeMessages(), QStringList{radio.registeredText()});
    }

    void halfClosedApplicationIsDropped()
    {
        ScriptedApplication application(server->applicationPort());
        QCOMPARE(server->log.takeOnce(1).size(), 1);
        application.sends(ScriptedApplication::message(9, QByteArray()));
        application.connection().disconnectFromHost();
        QCOMPARE(server->log.takeMessagesOnce(2),
                 (QStringList{u"QMRA protocol error detected: invalid message (1)"_s, Disconnected}));
    }

    void takenPortIsLoggedAndRadiosAreServedOn()
    {
        server->stop();
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::AnyIPv4, server->applicationPort()));
        server->log.take();
        server->object().start();
        QCOMPARE(server->log.take().first(),
                 RecordingLog::record(Scm::EventError, u"Failed to listen for application connections"_s));

        ScriptedRadio radio(server->registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(server->query(u"SELECT count(*) FROM subscribers"_s), (QList<QVariantList>{{1LL}}));
        QCOMPARE(server->log.takeMessages().last(), radio.registeredText());
    }

    void destructionLogsEachApplicationOnce()
    {
        const quint16 port = freeTcpPort();
        auto manager = std::make_unique<ApplicationManager>(&server->object(), port);
        const ScriptedApplication applications[]{ScriptedApplication(port), ScriptedApplication(port),
                                                 ScriptedApplication(port)};
        QTRY_COMPARE(server->log.count(Connected), 3);
        server->log.take();
        manager.reset();
        const LogRecord gone = RecordingLog::record(Scm::EventInformation, Disconnected);
        QCOMPARE(server->log.take(), (QList{gone, gone, gone}));
        // Its port is free again, and no late signal of the sockets finds it.
        QTcpServer next;
        QVERIFY(next.listen(QHostAddress::AnyIPv4, port));
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        QVERIFY(server->log.records().isEmpty());
    }

    void stopLogsApplicationsBeforeItsOwnRecord()
    {
        ScriptedApplication application(server->applicationPort());
        QCOMPARE(server->log.takeOnce(1).size(), 1);
        server->stop();
        QCOMPARE(server->log.takeMessages(), (QStringList{Disconnected, u"Service stopped"_s}));
        QTRY_COMPARE(application.connection().state(), QAbstractSocket::UnconnectedState);
        server->start();
        const ScriptedApplication again(server->applicationPort());
        QCOMPARE(server->log.takeMessagesOnce(1), QStringList{Connected});
    }

private:
    std::unique_ptr<TestServer> server;
};

QTEST_GUILESS_MAIN(TestApplicationLink)
#include "tst_applicationlink.moc"
