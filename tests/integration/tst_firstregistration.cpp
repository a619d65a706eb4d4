// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QTest>

using namespace Qt::StringLiterals;

// The main job from end to end: a datagram in, a row, a record, a notice, an acknowledgement out.
class TestFirstRegistration : public QObject
{
    Q_OBJECT

private slots:
    void isStoredLoggedAnnouncedAndAcknowledged()
    {
        TestServer server;
        server.start();
        ScriptedApplication application(server.applicationPort());
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
        server.log.take();

        ScriptedRadio radio(server.registrationPort(), 0xDD, u"127.0.0.5"_s);
        radio.registers(QByteArray::fromHex("0103"));

        QVERIFY(radio.isAcknowledged());
        QVERIFY(application.sees(radio, QMR::Registered, QByteArray::fromHex("0103")));
        QCOMPARE(server.log.take(),
                 QList{RecordingLog::record(
                     Scm::EventInformation,
                     u"Radio 0011AABB22CC33DD with SUID {WACN: 0x12345, System: 0x678, Unit: 0x9ABCDD} "
                     "registered with address 127.0.0.5"_s)});
        QCOMPARE(server.query(u"SELECT hex(esn), hex(suid), ip_address, availability, last_contact_time, "
                              "num_discovery_attempts, last_discovery_attempt, protocol_version "
                              "FROM subscribers"_s),
                 (QList<QVariantList>{{u"0011AABB22CC33DD"_s, u"123456789ABCDD"_s, 2130706437LL, 3LL,
                                       server.clock.seconds(), 0LL, 0LL, 3LL}}));
        QCOMPARE(server.query(u"SELECT service FROM supported_services"_s),
                 (QList<QVariantList>{{1LL}, {3LL}}));
    }
};

QTEST_GUILESS_MAIN(TestFirstRegistration)
#include "tst_firstregistration.moc"
