// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radioprocess.h"
#include "tests/support/scriptedserver.h"

#include <QHash>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr quint32 FirstAddress = 0x7F010001; // 127.1.0.1

} // namespace

// What a fleet sends and takes, each radio at its own address.
class TestRadioFleet : public QObject
{
    Q_OBJECT

private slots:
    void eachRadioSendsFromItsOwnAddress_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<quint32>("addresses");
        QTest::newRow("a radio an address") << u"--addresses 127.1.0.1-127.1.1.44"_s << 300U;
        QTest::newRow("shared") << u"--addresses 127.1.0.1-127.1.0.7 --count 300 --share-addresses"_s << 7U;
    }
    void eachRadioSendsFromItsOwnAddress()
    {
        QFETCH(QString, options);
        QFETCH(quint32, addresses);
        ScriptedServer server(true);
        RadioProcess tool(u"fleet --json --rate 100000 --window 50 --timeout 20000 --deregister "_s +
                          options + serverOption(server.port()));
        QCOMPARE(tool.exitCode(), 0);
        const QJsonObject summary = tool.objects().constFirst();
        QCOMPARE(summary[u"acknowledged"_s], 300);
        QCOMPARE(summary[u"unexpected"_s], 0);
        QTRY_VERIFY(server.received().size() >= 600);
        QCOMPARE(server.received().size(), 600);
        for (qsizetype i = 0; i < 600; ++i) {
            const ScriptedServer::Received &received = server.received()[i];
            const auto radio = static_cast<quint32>(i % 300);
            QCOMPARE(received.esn, quint64{radio} + 1);
            QCOMPARE(received.sender, FirstAddress + radio % addresses);
            QCOMPARE(received.datagram[13], i < 300 ? '\5' : '\3'); // registrations, then deregistrations
        }
    }

    void acknowledgementCountsAtTheRadiosOwnAddressOnly()
    {
        ScriptedServer server(false);
        RadioProcess tool(u"fleet --json --timeout 20000 --addresses 127.1.0.1-127.1.0.2"_s +
                          serverOption(server.port()));
        QTRY_COMPARE(server.received().size(), 2);
        const auto &received = server.received();
        server.acknowledge(received[0], received[1]);
        server.acknowledge(received[1], received[0]);
        server.acknowledge(received[0], received[0]);
        server.acknowledge(received[0], received[0]);
        server.acknowledge(received[1], received[1]);
        QCOMPARE(tool.exitCode(), 0);
        const QJsonObject summary = tool.objects().constFirst();
        QCOMPARE(summary[u"acknowledged"_s], 2);
        QCOMPARE(summary[u"unexpected"_s], 2);
        QCOMPARE(summary[u"late"_s], 1);
        QCOMPARE(summary[u"repeated"_s], 0);
    }

    void registrationIsRepeatedThreeTimesByDefault()
    {
        ScriptedServer server(false);
        RadioProcess tool(u"fleet --json --timeout 20 --addresses 127.1.0.1-127.1.0.40"_s +
                          serverOption(server.port()));
        QCOMPARE(tool.exitCode(), 3);
        const QJsonObject summary = tool.objects().constFirst();
        QCOMPARE(summary[u"sent"_s], 40);
        QCOMPARE(summary[u"lost"_s], 40);
        QCOMPARE(summary[u"repeated"_s], 120);
        QTRY_VERIFY(server.received().size() >= 160);
        QCOMPARE(server.received().size(), 160);
        QHash<quint64, QList<QByteArray>> datagrams;
        for (const ScriptedServer::Received &received : server.received()) {
            QCOMPARE(received.sender, FirstAddress + static_cast<quint32>(received.esn) - 1);
            datagrams[received.esn].append(received.datagram);
        }
        QCOMPARE(datagrams.size(), 40);
        for (const QList<QByteArray> &same : datagrams) {
            QCOMPARE(same, QList<QByteArray>(4, same.first()));
        }
    }

    // However far behind its rate the fleet is, no more leave than the window has room for.
    void windowBoundsWhatLeavesAtOnce()
    {
        ScriptedServer server(false);
        RadioProcess tool(
            u"fleet --json --rate 1000000 --window 7 --timeout 20000 --addresses 127.1.0.1-127.1.0.40"_s +
            serverOption(server.port()));
        QTRY_VERIFY(server.received().size() >= 7);
        for (qsizetype i = 0; i < 40; ++i) {
            QTRY_VERIFY(server.received().size() > i);
            QVERIFY(server.received().size() <= i + 7);
            server.acknowledge(server.received()[i], server.received()[i]);
        }
        QCOMPARE(tool.exitCode(), 0);
        QCOMPARE(tool.objects().constFirst()[u"acknowledged"_s], 40);
        QCOMPARE(server.received().size(), 40);
    }

    // Rounds come to a radio that still waits: the others wait with it.
    void radioThatWaitsHoldsItsNextRound()
    {
        ScriptedServer server(false);
        RadioProcess tool(
            u"fleet --json --rate 1000000 --rounds 2 --timeout 20000 --addresses 127.1.0.1-127.1.0.3"_s +
            serverOption(server.port()));
        QTRY_VERIFY(server.received().size() >= 3);
        server.acknowledge(server.received()[1], server.received()[1]);
        server.acknowledge(server.received()[0], server.received()[0]);
        QTRY_VERIFY(server.received().size() >= 5);
        QCOMPARE(server.received().size(), 5);
        for (const qsizetype i : {2, 3, 4}) {
            server.acknowledge(server.received()[i], server.received()[i]);
        }
        QTRY_COMPARE(server.received().size(), 6);
        server.acknowledge(server.received()[5], server.received()[5]);
        QCOMPARE(tool.exitCode(), 0);
        QCOMPARE(tool.objects().constFirst()[u"acknowledged"_s], 6);
    }
};

QTEST_GUILESS_MAIN(TestRadioFleet)
#include "tst_radiofleet.moc"
