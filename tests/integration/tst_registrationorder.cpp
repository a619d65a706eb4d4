// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/registrationscene.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString Here = u"127.0.0.2"_s;
const QString There = u"127.0.0.3"_s;
const QString WriteFailed = u"Network error: write message failed"_s;

} // namespace

// What comes first within one step, and what a restart leaves of it.
class TestRegistrationOrder : public QObject
{
    Q_OBJECT

private slots:
    // A destination port that nothing can be sent to makes the acknowledgement fail, and leaves a record at
    // that point. The application has its notice by then.
    void theNoticeIsWrittenBeforeTheAcknowledgement_data()
    {
        QTest::addColumn<bool>("pending");
        QTest::newRow("confirmed") << false;
        QTest::newRow("pending") << true;
    }

    void theNoticeIsWrittenBeforeTheAcknowledgement()
    {
        QFETCH(bool, pending);
        TestServer server;
        server.start();
        ScriptedApplication application(server.applicationPort());
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
        server.log.take();
        ScriptedRadio radio(server.registrationPort(), 0x01, Here);
        bool noticed = false;
        server.log.whenWritten([&](const LogRecord &record) {
            if (record.message == WriteFailed) {
                noticed = pending ? application.seesPending(radio) : application.sees(radio, QMR::Registered);
            }
        });

        server->registerRadio(radio.esn, 3, radio.suid, radio.address(), 0, pending, {});

        QVERIFY(noticed);
        QCOMPARE(server.log.take(),
                 (QList{RecordingLog::record(Scm::EventInformation, radio.registeredText()),
                        RecordingLog::record(Scm::EventError, WriteFailed)}));
    }

    void aNewRadioIsInsertedBeforeItIsLoggedAndUpdatedAfter()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        QStringList atRecord;
        scene.server.log.whenWritten([&](const LogRecord &record) {
            if (record.message == radio.registeredText()) {
                atRecord = scene.written();
            }
        });
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        const qint64 sinceEpoch = -scene.server.clock.seconds();
        QCOMPARE(atRecord, QStringList{u"01: 127.0.0.2 suid 123456789ABC01 services 1 "
                                       "version 3 state 0 heard %1"_s.arg(sinceEpoch)});
        QCOMPARE(scene.stored(),
                 QStringList{u"01: 127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0"_s});
    }

    void aKnownRadioIsLoggedBeforeItIsUpdated()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        radio.movesTo(There);
        QStringList atRecord;
        scene.server.log.whenWritten([&](const LogRecord &record) {
            if (record.message == radio.registeredText()) {
                atRecord = scene.written();
            }
        });
        radio.registers("\2");
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(atRecord,
                 QStringList{u"01: 127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0"_s});
        QCOMPARE(scene.stored(),
                 QStringList{u"01: 127.0.0.3 suid 123456789ABC01 services 2 version 3 state 3 heard 0"_s});
    }

    void aRadioThatLeavesIsLoggedBeforeItIsForgotten_data()
    {
        QTest::addColumn<bool>("pending");
        QTest::newRow("confirmed") << false;
        QTest::newRow("pending") << true;
    }

    void aRadioThatLeavesIsLoggedBeforeItIsForgotten()
    {
        QFETCH(bool, pending);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        pending ? radio.registersPending("\1") : radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        QString atRecord;
        qsizetype rowsAtRecord = -1;
        bool queuedAtRecord = true;
        scene.server.log.whenWritten([&](const LogRecord &record) {
            if (record.message == radio.deregisteredText()) {
                atRecord = scene.known(radio.esn);
                rowsAtRecord = scene.written().size();
                queuedAtRecord = !scene.server->awaitingConfirmation().empty();
            }
        });
        radio.deregisters();
        scene.settle();
        // A pending registration is off its queue before it is logged, and never stored.
        QCOMPARE(atRecord, pending ? u"pending 127.0.0.2 suid 123456789ABC01 services 1 for 17 s; "
                                     "in the wrong queue"_s
                                   : u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3"_s);
        QCOMPARE(rowsAtRecord, pending ? 0 : 1);
        QVERIFY(!queuedAtRecord);
        QCOMPARE(scene.known(radio.esn), u"gone"_s);
        QCOMPARE(scene.stored(), QStringList());
    }

    void aPendingRadioIsLoggedBeforeItIsQueued()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        QList<size_t> queued;
        scene.server.log.whenWritten([&](const LogRecord &record) {
            if (record.message == radio.registeredText()) {
                queued.append(scene.server->awaitingConfirmation().size());
            }
        });
        radio.registersPending("\1");
        QVERIFY(radio.isAcknowledged());
        radio.registersPending("\2"); // a refresh is queued anew before it is logged
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(queued, (QList<size_t>{0, 1}));
    }

    // The pending SUID and services stay behind when their registration goes.
    void whatWasPendingIsLeftInTheRecord()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        radio.registersPending("\2");
        QVERIFY(radio.isAcknowledged());
        radio.deregisters();
        scene.settle();
        const QMR::RadioPointer record = scene.server->findRadio(radio.esn);
        QVERIFY(record);
        QCOMPARE(record->pendingSuid, radio.suid);
        QCOMPARE(record->pendingServices, QMR::ServiceList{2});
        QVERIFY(record->pendingAddress.isNull());
    }

    void aRecordOutlivesItsRemoval()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        const std::weak_ptr<QMR::RadioEntry> record = scene.server->findRadio(radio.esn);
        QVERIFY(!record.expired());
        radio.deregisters();
        scene.settle();
        QVERIFY(record.expired()); // and nobody keeps it for good
    }

    void anIpv4RadioIsKnownByItsPlainAddressAfterARestart_data()
    {
        QTest::addColumn<bool>("byAddress");
        QTest::newRow("leaves by ESN") << false;
        QTest::newRow("leaves by address") << true;
    }

    void anIpv4RadioIsKnownByItsPlainAddressAfterARestart()
    {
        QFETCH(bool, byAddress);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(scene.server->findRadio(radio.esn)->address, QHostAddress(Here));
        scene.restart();
        QCOMPARE(scene.server->findRadio(radio.esn)->address, QHostAddress(Here));
        QCOMPARE(scene.known(radio.esn),
                 u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 2; searched for"_s);

        byAddress ? radio.deregistersByAddress() : radio.deregisters();
        const auto outcome = scene.settle();
        QCOMPARE(outcome.log, QStringList{radio.deregisteredText()});
        QCOMPARE(outcome.notices,
                 QStringList{u"01: confirmed 0.0.0.0 suid 123456789ABC01 services 1 state 0"_s});
        QCOMPARE(scene.known(radio.esn), u"gone"_s);
        QVERIFY(scene.server->dueForDiscovery().empty());
        scene.restart();
        QCOMPARE(scene.known(radio.esn), u"gone"_s);
    }

    void aRegistrationEndsTheSearch_data()
    {
        QTest::addColumn<qint64>("silence"); // seconds
        QTest::addColumn<int>("availability");
        QTest::addColumn<int>("storedAs"); // by hand, before the restart
        QTest::newRow("unconfirmed") << qint64{60} << 2 << 3;
        QTest::newRow("unreachable") << qint64{43200} << 1 << 3;
        // Only somebody's own SQL stores such a value. The radio must not stay in the queue when it is back.
        QTest::newRow("a state without a name") << qint64{60} << 7 << 7;
    }

    void aRegistrationEndsTheSearch()
    {
        QFETCH(qint64, silence);
        QFETCH(int, availability);
        QFETCH(int, storedAs);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        scene.server.query(
            u"UPDATE subscribers SET num_discovery_attempts = 2, availability = %1"_s.arg(storedAs));
        scene.server.clock.advance(silence);
        scene.restart();
        QCOMPARE(
            scene.known(radio.esn),
            u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state %1; searched for"_s.arg(availability));

        radio.registers("\1");
        QVERIFY(radio.isAcknowledged());
        QCOMPARE(scene.known(radio.esn), u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3"_s);
        QCOMPARE(scene.server->findRadio(radio.esn)->discoveryAttempts, quint16{0});
        QCOMPARE(scene.server->findRadio(radio.esn)->lastContactTime, scene.server.clock.now());
    }

    void esnTextsAreKeptByForm()
    {
        const QMR::Esn esn{{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD}};
        const QString joined = QMR::Quillmere::esnText(esn);
        const QString separated = QMR::Quillmere::esnText(esn, true);
        QCOMPARE(joined, u"0011AABB22CC33DD"_s);
        QCOMPARE(separated, u"00:11:AA:BB:22:CC:33:DD"_s);
        QVERIFY(QMR::Quillmere::esnText(esn).isSharedWith(joined));
        QVERIFY(QMR::Quillmere::esnText(esn, true).isSharedWith(separated));
        QCOMPARE(QMR::Quillmere::esnText(QMR::Esn{}), u"0000000000000000"_s);
    }

    void esnTextsAreForgottenWithTheirRadio_data()
    {
        QTest::addColumn<bool>("separated");
        QTest::addColumn<bool>("stops");
        for (const bool separated : {false, true}) {
            const char *form = separated ? "separated" : "joined";
            QTest::addRow("%s, the radio leaves", form) << separated << false;
            QTest::addRow("%s, the server stops", form) << separated << true;
        }
    }

    void esnTextsAreForgottenWithTheirRadio()
    {
        QFETCH(bool, separated);
        QFETCH(bool, stops);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        const QString text = QMR::Quillmere::esnText(radio.esn, separated);
        scene.settle();
        QVERIFY(QMR::Quillmere::esnText(radio.esn, separated).isSharedWith(text));
        if (stops) {
            scene.server->stop();
        } else {
            radio.deregisters();
            scene.settle();
        }
        QVERIFY(!QMR::Quillmere::esnText(radio.esn, separated).isSharedWith(text));
    }
};

QTEST_GUILESS_MAIN(TestRegistrationOrder)
#include "tst_registrationorder.moc"
