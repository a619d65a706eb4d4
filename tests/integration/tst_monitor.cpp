// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"
#include "tools/monitor/monitor.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTcpSocket>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

// The monitor beside a whole server, and asked over HTTP, all in this process.
class TestMonitor : public QObject
{
    Q_OBJECT

    QByteArray get(const QByteArray &path) const
    {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, monitor->port());
        socket.write("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
        QByteArray text;
        const bool ended = QTest::qWaitFor(
            [&] {
                text += socket.isOpen() ? socket.readAll() : QByteArray();
                return socket.state() == QAbstractSocket::UnconnectedState;
            },
            30000);
        return ended ? text.mid(text.indexOf("\r\n\r\n") + 4) : "no end"_ba;
    }
    QJsonDocument json(const QByteArray &path) const { return QJsonDocument::fromJson(get(path)); }
    qint64 metric(const QByteArray &name, const QByteArray &labels = {}) const
    {
        const QByteArray begin = "\n" + name +
                                 "{server=\"127.0.0.1:" + QByteArray::number(server->applicationPort()) +
                                 "\"" + (labels.isEmpty() ? QByteArray() : QByteArray("," + labels)) + "} ";
        const QByteArray text = get("/metrics");
        const qsizetype at = text.indexOf(begin);
        return at < 0 ? -1 : text.mid(at + begin.size()).split('\n').first().toLongLong();
    }
    QString state(int serial) const
    {
        const QJsonDocument text =
            json("/api/radios/" + radios[static_cast<size_t>(serial - 1)]->esnText().toUtf8());
        return text[u"radios"_s][0][u"state"_s].toString();
    }
    void begin()
    {
        Monitor::Settings settings;
        settings.servers.append({QHostAddress(QHostAddress::LocalHost), server->applicationPort()});
        settings.port = 0;
        monitor = std::make_unique<Monitor::Monitor>(settings, Monitor::Access());
        QVERIFY(monitor->start());
        QTRY_COMPARE(get("/healthz"), "ok\n"_ba);
        QTRY_COMPARE_WITH_TIMEOUT(metric("quillmere_snapshot_radios"), qint64(radios.size()), 30000);
    }

    std::unique_ptr<TestServer> server;
    std::vector<std::unique_ptr<ScriptedRadio>> radios;
    std::unique_ptr<Monitor::Monitor> monitor;

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        for (int serial = 1; serial <= 3; ++serial) {
            radios.push_back(std::make_unique<ScriptedRadio>(server->registrationPort(), quint8(serial),
                                                             u"127.0.0.%1"_s.arg(serial + 1)));
            radios.back()->registers(QByteArray::fromHex("0103"));
            QVERIFY(radios.back()->isAcknowledged());
        }
        begin();
    }
    void cleanup()
    {
        monitor.reset();
        radios.clear();
        server.reset();
    }

    void knowsTheTableAndEachChange()
    {
        QCOMPARE(json("/api/radios")[u"total"_s].toInt(), 3);
        QVERIFY(json("/api/radios")[u"radios"_s][0][u"changed"_s].isNull());
        QCOMPARE(metric("quillmere_notices_total", "state=\"registered\""), 0);

        radios[0]->deregisters();
        QTRY_COMPARE(state(1), u"gone"_s);
        radios[1]->registersPending();
        QTRY_COMPARE(state(2), u"pending"_s);
        radios[2]->movesTo(u"127.0.0.9"_s);
        radios[2]->registers();
        QTRY_COMPARE(json("/api/radios?query=127.0.0.9")[u"total"_s].toInt(), 1);

        QCOMPARE(json("/api/radios")[u"total"_s].toInt(), 2);
        QCOMPARE(metric("quillmere_radios", "state=\"registered\""), 1);
        QCOMPARE(metric("quillmere_radios", "state=\"pending\""), 1);
        QCOMPARE(metric("quillmere_notices_total", "state=\"gone\""), 1);
        QCOMPARE(metric("quillmere_notices_total", "state=\"registered\""), 1);
        const QJsonDocument moved = json("/api/radios/" + radios[2]->esnText().toUtf8());
        QCOMPARE(moved[u"history"_s].toArray().size(), 2);
        QCOMPARE(moved[u"history"_s][0][u"address"_s].toString(), u"127.0.0.4"_s);
        QCOMPARE(moved[u"history"_s][1][u"address"_s].toString(), u"127.0.0.9"_s);
    }
    void countsRegistrationsAndChanges()
    {
        const auto sum = [this](const QString &what) {
            qint64 total = 0;
            for (const QJsonValue count : json("/api/rates")[u"seconds"_s][what].toArray()) {
                total += count.toInteger();
            }
            return total;
        };
        QCOMPARE(sum(u"changes"_s), 0); // a snapshot is none
        radios[0]->deregisters();
        radios[0]->registers();
        radios[1]->registersPending();
        QTRY_COMPARE(sum(u"changes"_s), 3);
        QCOMPARE(sum(u"registrations"_s), 1);
    }

    void serverThatComesBackBringsItsTable()
    {
        server->stop();
        QTRY_VERIFY(get("/healthz").startsWith("127.0.0.1:"));
        QCOMPARE(metric("quillmere_connected"), 0);
        QCOMPARE(json("/api/radios")[u"total"_s].toInt(), 3); // as it was
        server->query(u"DELETE FROM subscribers WHERE ip_address = '127.0.0.2' OR id = 1"_s);
        server->restart();
        QTRY_COMPARE_WITH_TIMEOUT(metric("quillmere_reconnects_total"), 1, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(metric("quillmere_radios", "state=\"unconfirmed\""), 2, 30000);
        QTRY_COMPARE_WITH_TIMEOUT(json("/api/radios")[u"total"_s].toInt(), 2,
                                  30000); // what it did not tell is gone
        QCOMPARE(metric("quillmere_connected"), 1);
        QCOMPARE(metric("quillmere_snapshot_radios"), 2);
    }

    void eventsTellOfAChangeAndOfALoss()
    {
        QTcpSocket events;
        events.connectToHost(QHostAddress::LocalHost, monitor->port());
        events.write("GET /api/events HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        QByteArray text;
        const auto has = [&](const QByteArray &wanted) {
            text += events.readAll();
            return text.contains(wanted);
        };
        QTRY_VERIFY(has("event: snapshot\ndata: {\"radios\":3}\n\n"));
        QCOMPARE(text.count("event: radios\n"), 1);
        radios[0]->deregisters();
        QTRY_VERIFY(has("\"state\":\"gone\""));
        server->stop();
        QTRY_VERIFY(has("\"connected\":false"));
        QCOMPARE(metric("quillmere_connected"), 0);
        QVERIFY(get("/metrics").contains("\nquillmere_monitor_streams 1\n"));
    }

    void addressInUseIsSaidAndEndsIt()
    {
        Monitor::Settings settings;
        settings.port = monitor->port();
        Monitor::Monitor other(settings, Monitor::Access());
        QVERIFY(!other.start());
    }
};

QTEST_GUILESS_MAIN(TestMonitor)
#include "tst_monitor.moc"
