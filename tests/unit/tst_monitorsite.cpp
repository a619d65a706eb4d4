// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radionotice.h"
#include "tools/monitor/site.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace Monitor;

namespace {

constexpr qint64 Time = 1795405330291; // 2026-11-23T03:42:10.291Z

// moc does not read every raw string.
constexpr char Quote = '"';
const QByteArray ServerA = "server="_ba + Quote + "127.0.0.1:9361" + Quote;
const QByteArray ServerB = "server="_ba + Quote + "b:2" + Quote;
const QByteArray BuildInfo = "quillmere_monitor_build_info{version="_ba + Quote + "1.2.3" + Quote + "} 1";
const QByteArray NoEsn = "400 application/json {"_ba + Quote + "error" + Quote + ':' + Quote + "'<script>' ";

} // namespace

// What is at which path, who may have it, and the metrics to the letter.
class TestMonitorSite : public QObject
{
    Q_OBJECT

    Answer ask(const QString &path, const QByteArray &method = "GET"_ba) const
    {
        Request request;
        request.method = method;
        request.path = path.section(u'?', 0, 0);
        request.query = QUrlQuery(path.section(u'?', 1));
        request.host = "127.0.0.1:9362"_ba;
        request.peer = QHostAddress(QHostAddress::LocalHost);
        return site->answer(request);
    }
    static QByteArray text(const Answer &answer)
    {
        return QByteArray::number(answer.status) + ' ' + answer.type + ' ' + answer.body;
    }
    void start(const Access &access = {}, bool isLocal = true)
    {
        site = std::make_unique<Site>(*observed, access, isLocal, u"1.2.3"_s,
                                      Site::Clock{[] { return Time + 2500; }, [] { return 2500; }});
    }

    std::unique_ptr<Observed> observed;
    std::unique_ptr<Site> site;

private slots:
    void init()
    {
        observed = std::make_unique<Observed>(QStringList{u"127.0.0.1:9361"_s, u"b:2"_s}, Time);
        start();
    }

    void healthNamesTheServersThatAreAway()
    {
        QCOMPARE(
            text(ask(u"/healthz"_s)),
            "503 text/plain; charset=utf-8 127.0.0.1:9361: not yet connected\nb:2: not yet connected\n"_ba);
        observed->table.connected(0, Time);
        observed->table.disconnected(1, u"refused"_s, Time);
        QCOMPARE(text(ask(u"/healthz"_s)), "503 text/plain; charset=utf-8 b:2: refused\n"_ba);
        observed->table.connected(1, Time);
        QCOMPARE(text(ask(u"/healthz"_s)), "200 text/plain; charset=utf-8 ok\n"_ba);
    }

    void metricsAreToldToTheLetter()
    {
        observed->table.connected(0, Time);
        observed->table.noticed(0, radioNotice(1), true, Time);
        observed->table.noticed(0, radioNotice(2, QMR::Unconfirmed), true, Time);
        observed->table.noticed(0, radioNotice(9, 77), true, Time);
        observed->table.snapshotEnded(0, 3);
        observed->table.noticed(0, radioNotice(3, QMR::Registered, true), false, Time + 1000);
        observed->table.noticed(0, radioNotice(2, QMR::Deregistered), false, Time + 1250);
        observed->table.noticed(0, radioNotice(9, 77), false, Time + 1250);
        observed->table.disconnected(0, u"gone"_s, Time + 1500);
        observed->table.connected(0, Time + 2000);
        site->streams = [] { return size_t{4}; };
        const Answer answer = ask(u"/metrics"_s);
        QCOMPARE(answer.type, "text/plain; version=0.0.4; charset=utf-8"_ba);
        const QByteArray &a = ServerA;
        const QByteArray &b = ServerB;
        const QByteArrayList expected{
            "# HELP quillmere_connected Whether the monitor is connected to the server."_ba,
            "# TYPE quillmere_connected gauge"_ba,
            "quillmere_connected{" + a + "} 1",
            "quillmere_connected{" + b + "} 0",
            "# HELP quillmere_radios Radios by state; those awaiting confirmation are pending and nothing else."_ba,
            "# TYPE quillmere_radios gauge"_ba,
            "quillmere_radios{" + a + ",state=\"unreachable\"} 0",
            "quillmere_radios{" + a + ",state=\"unconfirmed\"} 0",
            "quillmere_radios{" + a + ",state=\"registered\"} 1",
            "quillmere_radios{" + a + ",state=\"77\"} 1",
            "quillmere_radios{" + a + ",state=\"pending\"} 1",
            "quillmere_radios{" + b + ",state=\"unreachable\"} 0",
            "quillmere_radios{" + b + ",state=\"unconfirmed\"} 0",
            "quillmere_radios{" + b + ",state=\"registered\"} 0",
            "quillmere_radios{" + b + ",state=\"pending\"} 0",
            "# HELP quillmere_service_radios Radios by the service that they offer."_ba,
            "# TYPE quillmere_service_radios gauge"_ba,
            "quillmere_service_radios{" + a + ",service=\"1\"} 3",
            "quillmere_service_radios{" + a + ",service=\"3\"} 3",
            "# HELP quillmere_notices_total Notices by the state that they told, without those of the table "
            "at a "
            "connection's begin."_ba,
            "# TYPE quillmere_notices_total counter"_ba,
            "quillmere_notices_total{" + a + ",state=\"gone\"} 1",
            "quillmere_notices_total{" + a + ",state=\"unreachable\"} 0",
            "quillmere_notices_total{" + a + ",state=\"unconfirmed\"} 0",
            "quillmere_notices_total{" + a + ",state=\"registered\"} 0",
            "quillmere_notices_total{" + a + ",state=\"77\"} 1",
            "quillmere_notices_total{" + a + ",state=\"pending\"} 1",
            "quillmere_notices_total{" + b + ",state=\"gone\"} 0",
            "quillmere_notices_total{" + b + ",state=\"unreachable\"} 0",
            "quillmere_notices_total{" + b + ",state=\"unconfirmed\"} 0",
            "quillmere_notices_total{" + b + ",state=\"registered\"} 0",
            "quillmere_notices_total{" + b + ",state=\"pending\"} 0",
            "# HELP quillmere_last_change_age_seconds Time since the last notice of a change."_ba,
            "# TYPE quillmere_last_change_age_seconds gauge"_ba,
            "quillmere_last_change_age_seconds{" + a + "} 1.250",
            "# HELP quillmere_snapshot_radios Radios in the table that the server told last as a whole."_ba,
            "# TYPE quillmere_snapshot_radios gauge"_ba,
            "quillmere_snapshot_radios{" + a + "} 3",
            "# HELP quillmere_reconnects_total Connections to the server after the first one."_ba,
            "# TYPE quillmere_reconnects_total counter"_ba,
            "quillmere_reconnects_total{" + a + "} 1",
            "quillmere_reconnects_total{" + b + "} 0",
            "# HELP quillmere_monitor_streams Browsers and others that follow /api/events."_ba,
            "# TYPE quillmere_monitor_streams gauge"_ba,
            "quillmere_monitor_streams 4"_ba,
            "# HELP quillmere_monitor_start_time_seconds When the monitor started, in seconds since 1970."_ba,
            "# TYPE quillmere_monitor_start_time_seconds gauge"_ba,
            "quillmere_monitor_start_time_seconds 1795405330.291"_ba,
            "# HELP quillmere_monitor_build_info 1, with the monitor's version."_ba,
            "# TYPE quillmere_monitor_build_info gauge"_ba,
            BuildInfo,
            ""_ba};
        const QByteArrayList lines = answer.body.split('\n');
        for (qsizetype i = 0; i < std::min(lines.size(), expected.size()); ++i) {
            QCOMPARE(lines[i], expected[i]);
        }
        QCOMPARE(lines.size(), expected.size());
    }
    void clockThatWentBackMakesNoNegativeAge()
    {
        observed->table.noticed(0, radioNotice(1), false, Time + 60000);
        QVERIFY(ask(u"/metrics"_s).body.contains("age_seconds{server=\"127.0.0.1:9361\"} 0.000\n"));
    }

    void pathsHaveTheirAnswers_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("radios") << u"/api/radios?query=nobody"_s
                                << "200 application/json {\"total\":0,\"radios\":[]}\n"_ba;
        QTest::newRow("wrong state") << u"/api/radios?state=<b>"_s
                                     << "400 application/json {\"error\":\"state: '<b>' is no state\"}\n"_ba;
        QTest::newRow("unknown radio")
            << u"/api/radios/00000000000000FF"_s
            << "404 application/json {\"error\":\"no radio of this ESN is known\"}\n"_ba;
        QTest::newRow("no ESN") << u"/api/radios/<script>"_s << NoEsn;
        for (const QString &path : {u"/nothing"_s, u"/api"_s, u"/api/"_s, u"//"_s, u"/../etc/passwd"_s,
                                    u"/metrics/"_s, u"/page.js/"_s, u"/:/page/index.html"_s}) {
            QTest::newRow(qPrintable(path))
                << path << "404 application/json {\"error\":\"there is nothing at this path\"}\n"_ba;
        }
    }
    void pathsHaveTheirAnswers()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, answer);
        const QByteArray answered = text(ask(path));
        QVERIFY2(answered.startsWith(answer), answered.constData());
    }
    void radioHasItsHistory()
    {
        observed->table.noticed(0, radioNotice(1), false, Time);
        const Answer answer = ask(u"/api/radios/00:11:AA:BB:22:CC:33:01"_s);
        QCOMPARE(answer.status, 200);
        QVERIFY(answer.body.startsWith("{\"radios\":[{\"esn\":\"0011AABB22CC3301\","));
    }
    void ratesAreOfNow()
    {
        observed->activity.registered(1500);
        const Answer answer = ask(u"/api/rates"_s);
        QVERIFY(answer.body.contains("\"time\":\"2026-11-23T03:42:12.791Z\""));
        QVERIFY(answer.body.contains(",0,0,1]}"));
    }
    void eventsAreAStream()
    {
        observed->status = "{}"_ba;
        observed->statusNumber = 1;
        const Answer answer = ask(u"/api/events"_s);
        QCOMPARE(answer.type, "text/event-stream"_ba);
        QVERIFY(answer.stream);
        QCOMPARE(answer.stream->next(), "event: status\ndata: {}\n\n"_ba);
    }

    void otherMethodsAreRefused()
    {
        for (const QByteArray &method : {"POST"_ba, "DELETE"_ba, "get"_ba, "TRACE"_ba}) {
            const Answer answer = ask(u"/metrics"_s, method);
            QCOMPARE(answer.status, 405);
            QCOMPARE(answer.fields, (QList<std::pair<QByteArray, QByteArray>>{{"Allow"_ba, "GET, HEAD"_ba}}));
        }
        QCOMPARE(ask(u"/metrics"_s, "HEAD"_ba).status, 200);
    }
    void otherAddressesAreRefused()
    {
        start(Access({*Access::parseNetwork(u"10.0.0.0/8"_s)}, {}));
        QCOMPARE(text(ask(u"/healthz"_s)), "403 application/json {\"error\":\"not from this address\"}\n"_ba);
    }
    void loginIsAskedForButForTheHealth()
    {
        start(Access({}, {"ann:secret"_ba}));
        const Answer answer = ask(u"/metrics"_s);
        QCOMPARE(text(answer), "401 application/json {\"error\":\"a login is needed\"}\n"_ba);
        QCOMPARE(answer.fields,
                 (QList<std::pair<QByteArray, QByteArray>>{
                     {"WWW-Authenticate"_ba, "Basic realm=\"Quillmere\", charset=\"UTF-8\""_ba}}));
        QCOMPARE(ask(u"/nothing"_s).status, 401); // nor what there is
        QCOMPARE(text(ask(u"/healthz"_s)), "503 text/plain; charset=utf-8 not all servers are there\n"_ba);
        Request request;
        request.method = "GET"_ba;
        request.path = u"/metrics"_s;
        request.host = "127.0.0.1"_ba;
        request.authorization = "Basic YW5uOnNlY3JldA=="_ba;
        QCOMPARE(site->answer(request).status, 200);
    }
    void onLoopbackOnlyItsOwnNamesAreServed_data()
    {
        QTest::addColumn<QByteArray>("host");
        QTest::addColumn<bool>("isServed");
        for (const char *host :
             {"127.0.0.1", "127.0.0.1:9362", "localhost", "LocalHost:80", "10.0.0.5:1", ""}) {
            QTest::newRow(host) << QByteArray(host) << true;
        }
        for (const char *host : {"attacker.example", "attacker.example:9362", "localhost.attacker.example",
                                 "[::1]", "127.0.0.1.attacker.example", "127.0.0.1:9362:1", ":9362"}) {
            QTest::newRow(host) << QByteArray(host) << false;
        }
    }
    void onLoopbackOnlyItsOwnNamesAreServed()
    {
        QFETCH(QByteArray, host);
        QFETCH(bool, isServed);
        Request request;
        request.method = "GET"_ba;
        request.path = u"/metrics"_s;
        request.host = host;
        QCOMPARE(site->answer(request).status, isServed ? 200 : 421);
        start({}, false);
        QCOMPARE(site->answer(request).status, 200);
    }
};

QTEST_APPLESS_MAIN(TestMonitorSite)
#include "tst_monitorsite.moc"
