// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

// What an application's report does to a radio, and which changes of a radio applications are told of.
class TestRadioReports : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        application = std::make_unique<ScriptedApplication>(server->applicationPort());
        other = std::make_unique<ScriptedApplication>(server->applicationPort());
        radio = std::make_unique<ScriptedRadio>(server->registrationPort(), 1);
        bystander = std::make_unique<ScriptedRadio>(server->registrationPort(), 2, u"127.0.0.3"_s);
        QTRY_COMPARE(server->log.records().size(), 2);
    }

    void cleanup()
    {
        bystander.reset();
        radio.reset();
        other.reset();
        application.reset();
        server.reset();
    }

    void registeredRadioAtItsAddressIsPutInDoubt()
    {
        registers();
        server->log.take();
        application->reports(radio->esn, radio->address());
        QVERIFY(application->sees(*radio, QMR::Unconfirmed, QByteArray::fromHex("03")));
        QVERIFY(other->sees(*radio, QMR::Registered, QByteArray::fromHex("03")));
        QVERIFY(other->sees(*radio, QMR::Unconfirmed, QByteArray::fromHex("03")));
        QCOMPARE(availability(), 2LL);
        QVERIFY((*server)->dueForDiscovery().contains((*server)->findRadio(radio->esn)));
        QCOMPARE(server->log.take(), QList<LogRecord>());
    }

    void secondReportChangesNothing()
    {
        registers();
        application->reports(radio->esn, radio->address());
        application->reports(radio->esn, radio->address());
        QVERIFY(application->sees(*radio, QMR::Unconfirmed, QByteArray::fromHex("03")));
        nothingMoreIsSent();
    }

    void reportedRadioThatRegistersAgainIsRegistered()
    {
        registers();
        application->reports(radio->esn, radio->address());
        QVERIFY(application->sees(*radio, QMR::Unconfirmed, QByteArray::fromHex("03")));
        radio->registers(QByteArray::fromHex("03"));
        QVERIFY(application->sees(*radio, QMR::Registered, QByteArray::fromHex("03")));
        QVERIFY((*server)->dueForDiscovery().empty());
        application->reports(radio->esn, radio->address());
        QVERIFY(application->sees(*radio, QMR::Unconfirmed, QByteArray::fromHex("03")));
    }

    void ignoredReport_data()
    {
        QTest::addColumn<QByteArray>("esn"); // empty: that of the radio
        QTest::addColumn<QString>("address");
        QTest::newRow("another address") << QByteArray() << u"127.0.0.3"_s;
        QTest::newRow("no address") << QByteArray() << u"0.0.0.0"_s;
        QTest::newRow("bytes of the address reversed") << QByteArray() << u"2.0.0.127"_s;
        QTest::newRow("unknown ESN") << QByteArray::fromHex("0011aabb22cc3399") << u"127.0.0.2"_s;
        QTest::newRow("ESN differing in its first byte")
            << QByteArray::fromHex("0111aabb22cc3301") << u"127.0.0.2"_s;
        QTest::newRow("ESN of zeros") << QByteArray(8, '\0') << u"127.0.0.2"_s;
    }

    void ignoredReport()
    {
        QFETCH(QByteArray, esn);
        QFETCH(QString, address);
        registers();
        server->log.take();
        QMR::Esn reported = radio->esn;
        std::copy(esn.begin(), esn.end(), reported.bytes.begin());
        application->reports(reported, QHostAddress(address));
        nothingMoreIsSent();
        QCOMPARE(availability(), 3LL);
    }

    void reportOfAnUnreachableRadioIsIgnored()
    {
        registers();
        (*server)->setAvailability((*server)->findRadio(radio->esn), QMR::Unreachable);
        QVERIFY(application->sees(*radio, QMR::Unreachable, QByteArray::fromHex("03")));
        application->reports(radio->esn, radio->address());
        nothingMoreIsSent();
        QCOMPARE(availability(), 1LL);
    }

    void reportOfAPendingRegistrationIsIgnored()
    {
        radio->registersPending();
        QVERIFY(application->seesPending(*radio));
        application->reports(radio->esn, radio->address());
        application->reports(radio->esn, QHostAddress(quint32{0}));
        nothingMoreIsSent();
        QCOMPARE((*server)->findRadio(radio->esn)->availability, QMR::Deregistered);
    }

    // Deliberately silent: applications are shown the pending registration until it is confirmed or lapses.
    void reportBehindAPendingRegistrationIsStoredButNotAnnounced()
    {
        registers();
        const QHostAddress confirmed = radio->address();
        radio->movesTo(u"127.0.0.22"_s);
        radio->registersPending();
        QVERIFY(application->seesPending(*radio));
        application->reports(radio->esn, radio->address()); // the pending address: ignored
        application->reports(radio->esn, confirmed);
        nothingMoreIsSent();
        QCOMPARE(availability(), 2LL);
    }

    void reportAfterARestartNamesTheStoredAddress()
    {
        registers();
        server->restart();
        ScriptedApplication after(server->applicationPort());
        QVERIFY(after.sees(*radio, QMR::Unconfirmed, QByteArray::fromHex("03")));
        radio->registers();
        QVERIFY(after.sees(*radio, QMR::Registered));
        after.reports(radio->esn, radio->address());
        QVERIFY(after.sees(*radio, QMR::Unconfirmed));
    }

    void noticesComeInTheOrderOfTheChanges()
    {
        registers();
        bystander->registers();
        QVERIFY(bystander->isAcknowledged());
        bystander->registersPending(QByteArray::fromHex("0102"));
        QVERIFY(bystander->isAcknowledged());
        bystander->registersPending(QByteArray::fromHex("0102")); // unchanged: no notice
        QVERIFY(bystander->isAcknowledged());
        radio->deregisters();
        bystander->registersPending(QByteArray::fromHex("02"));
        QVERIFY(bystander->isAcknowledged());
        server->clock.advance(18);
        server->expireHeartbeat();
        bystander->deregisters();
        QTRY_VERIFY(server->object().radios().empty());

        for (ScriptedApplication *each : {application.get(), other.get()}) {
            if (each == other.get()) {
                QVERIFY(each->sees(*radio, QMR::Registered, QByteArray::fromHex("03")));
            }
            QVERIFY(each->sees(*bystander, QMR::Registered));
            QVERIFY(each->seesPending(*bystander, QByteArray::fromHex("0102")));
            QVERIFY(each->seesGone(*radio));
            QVERIFY(each->seesPending(*bystander, QByteArray::fromHex("02")));
            QVERIFY(each->sees(*bystander, QMR::Registered));
            QVERIFY(each->seesGone(*bystander));
        }
    }

    void loserOfAnAddressIsAnnouncedBeforeItsNewHolder()
    {
        registers();
        ScriptedRadio usurper(server->registrationPort(), 9, radio->address().toString());
        usurper.registers();
        QVERIFY(application->seesGone(*radio));
        QVERIFY(application->sees(usurper, QMR::Registered));
    }

    // Who hears of the acknowledgement finds every application told already.
    void noticeLeavesBeforeTheAcknowledgement()
    {
        registers();
        QVERIFY(other->sees(*radio, QMR::Registered, QByteArray::fromHex("03")));
        for (const bool pending : {false, true}) {
            (*server)->registerRadio(radio->esn, 3, radio->suid, radio->address(), 9, pending, {});
            // Not an event has been handled since: what can be read now had left within the call.
            QVERIFY(application->connection().waitForReadyRead(5000));
            QVERIFY(other->connection().waitForReadyRead(5000));
            QCOMPARE(application->receives(1).size(), 1);
            QCOMPARE(other->receives(1).size(), 1);
        }
    }

    void lastNoticeOfARadioThatLeavesComesAfterItsRowIsGone()
    {
        registers();
        connect(&application->connection(), &QTcpSocket::readyRead, this,
                [this] { rowsWhenTold = server->query(u"SELECT count(*) FROM subscribers"_s); });
        radio->deregisters();
        QVERIFY(application->seesGone(*radio));
        QCOMPARE(rowsWhenTold, (QList<QVariantList>{{0LL}}));
    }

private:
    void registers()
    {
        radio->registers(QByteArray::fromHex("03"));
        QVERIFY(radio->isAcknowledged());
        QVERIFY(application->sees(*radio, QMR::Registered, QByteArray::fromHex("03")));
    }

    qlonglong availability() const
    {
        const QString select = u"SELECT availability FROM subscribers WHERE hex(esn) = '%1'"_s;
        return server->query(select.arg(radio->esnText()))[0][0].toLongLong();
    }

    // The next notice is that of the next change.
    void nothingMoreIsSent()
    {
        server->log.take();
        // Read behind what has been sent before: the server is through with it.
        application->sends(ScriptedApplication::message(9, QByteArray()));
        QCOMPARE(server->log.takeMessagesOnce(1),
                 QStringList{u"QMRA protocol error detected: invalid message (1)"_s});
        bystander->registers();
        QVERIFY(application->sees(*bystander, QMR::Registered));
    }

    std::unique_ptr<TestServer> server;
    std::unique_ptr<ScriptedApplication> application;
    std::unique_ptr<ScriptedApplication> other;
    std::unique_ptr<ScriptedRadio> radio;
    std::unique_ptr<ScriptedRadio> bystander;
    QList<QVariantList> rowsWhenTold;
};

QTEST_GUILESS_MAIN(TestRadioReports)
#include "tst_radioreports.moc"
