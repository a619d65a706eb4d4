// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radionotice.h"
#include "tools/monitor/commandline.h"
#include "tools/monitor/listing.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace Qt::StringLiterals;
using Monitor::Listing;
using Monitor::Table;

// What quillmere-monitor makes of what it is asked: its command line, and the query of a listing.
class TestMonitorQuestions : public QObject
{
    Q_OBJECT

    static QString listed(const Table &table, const QString &query)
    {
        const auto listing = Listing::parse(QUrlQuery(query));
        if (!listing) {
            return listing.error;
        }
        const QJsonDocument text = QJsonDocument::fromJson(listing.value->text(table));
        QString result = QString::number(text[u"total"_s].toInt(-1)) + u':';
        const QJsonArray radios = text[u"radios"_s].toArray();
        for (const QJsonValue radio : radios) {
            result += u' ' + radio[u"server"_s].toString().left(1) + radio[u"esn"_s].toString().right(2);
        }
        return result;
    }

private slots:
    void listsWhatIsAskedFor_data()
    {
        QTest::addColumn<QString>("query");
        QTest::addColumn<QString>("listed");
        QTest::newRow("all but gone") << u""_s << u"6: a01 a02 a03 a04 a05 b01"_s;
        QTest::newRow("empty values") << u"state=&query=&offset="_s << u"6: a01 a02 a03 a04 a05 b01"_s;
        QTest::newRow("registered") << u"state=registered"_s << u"3: a01 a05 b01"_s;
        QTest::newRow("pending") << u"state=pending"_s << u"1: a03"_s;
        QTest::newRow("gone") << u"state=gone"_s << u"1: a06"_s;
        QTest::newRow("number") << u"state=9"_s << u"1: a04"_s;
        QTest::newRow("service") << u"service=2"_s << u"1: a05"_s;
        QTest::newRow("server") << u"server=b:2"_s << u"1: b01"_s;
        QTest::newRow("nobody's server") << u"server=c"_s << u"0:"_s;
        QTest::newRow("search") << u"query=10.0.0.1"_s << u"2: a01 b01"_s;
        QTest::newRow("encoded search") << u"query=01234%2F567%2F89AB02"_s << u"1: a02"_s;
        QTest::newRow("both") << u"query=10.0.0.&state=unconfirmed"_s << u"1: a02"_s;
        QTest::newRow("page") << u"offset=1&limit=2"_s << u"6: a02 a03"_s;
        QTest::newRow("across servers") << u"offset=4&limit=5"_s << u"6: a05 b01"_s;
        QTest::newRow("none") << u"limit=0"_s << u"6:"_s;
        QTest::newRow("beyond") << u"offset=2147483647&limit=10000"_s << u"6:"_s;
        QTest::newRow("wrong state") << u"state=registred"_s << u"state: 'registred' is no state"_s;
        QTest::newRow("wrong state, encoded") << u"state=%3Cb%3E"_s << u"state: '<b>' is no state"_s;
        QTest::newRow("wrong service")
            << u"service=256"_s << u"service: '256' is not a number from 0 to 255"_s;
        QTest::newRow("wrong limit") << u"limit=10001"_s
                                     << u"limit: '10001' is not a number from 0 to 10000"_s;
        QTest::newRow("wrong offset")
            << u"offset=-1"_s << u"offset: '-1' is not a number from 0 to 2147483647"_s;
        QTest::newRow("two wrong") << u"service=x&limit=x"_s
                                   << u"service: 'x' is not a number from 0 to 255"_s;
    }
    void listsWhatIsAskedFor()
    {
        QFETCH(QString, query);
        QFETCH(QString, listed);
        Table table({u"a:1"_s, u"b:2"_s});
        auto other = radioNotice(5);
        other.services = {2};
        for (const auto &notice :
             {other, radioNotice(1), radioNotice(2, QMR::Unconfirmed), radioNotice(3, QMR::Registered, true),
              radioNotice(4, 9), radioNotice(6)}) {
            table.noticed(0, notice, true, 0);
        }
        table.noticed(0, radioNotice(6, QMR::Deregistered), false, 0);
        table.noticed(1, radioNotice(1), true, 0);
        QCOMPARE(TestMonitorQuestions::listed(table, query), listed);
    }
    void listsAHundredUnlessToldOtherwise()
    {
        Table table({u"a:1"_s});
        for (int serial = 0; serial < 150; ++serial) {
            table.noticed(0, radioNotice(serial), true, 0);
        }
        QCOMPARE(listed(table, {}).count(u" a"_s), 100);
    }

    void commandLineHasDefaults()
    {
        const auto parsed = Monitor::parse({});
        QVERIFY(parsed.kind == Monitor::CommandLine::Kind::Run);
        QCOMPARE(parsed.settings.servers.size(), 1);
        QCOMPARE(parsed.settings.servers[0].text(), u"127.0.0.1:9361"_s);
        QCOMPARE(parsed.settings.address, QHostAddress(QHostAddress::LocalHost));
        QCOMPARE(parsed.settings.port, 9362);
        QVERIFY(parsed.settings.networks.isEmpty());
        QVERIFY(parsed.settings.loginFile.isEmpty());
    }
    void commandLineIsRead()
    {
        const auto parsed = Monitor::parse({u"--server"_s, u"10.0.0.1"_s, u"--server=qmr.example:99"_s,
                                            u"--listen"_s, u"0.0.0.0:80"_s, u"--allow"_s, u"10.0.0.0/8"_s,
                                            u"--allow"_s, u"127.0.0.1"_s, u"--login"_s, u"users"_s});
        QVERIFY2(parsed.kind == Monitor::CommandLine::Kind::Run, qPrintable(parsed.text));
        QCOMPARE(parsed.settings.servers.size(), 2);
        QCOMPARE(parsed.settings.servers[0].text(), u"10.0.0.1:9361"_s);
        QCOMPARE(parsed.settings.servers[1].text(), u"qmr.example:99"_s);
        QCOMPARE(parsed.settings.address, QHostAddress(u"0.0.0.0"_s));
        QCOMPARE(parsed.settings.port, 80);
        QCOMPARE(parsed.settings.networks.size(), 2);
        QCOMPARE(parsed.settings.networks[1].second, 32);
        QCOMPARE(parsed.settings.loginFile, u"users"_s);
        QCOMPARE(Monitor::parse({u"--listen"_s, u"10.0.0.1"_s}).settings.port, 9362);
    }
    void usageErrors_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("error");
        QTest::newRow("word") << u"now"_s << u"unexpected argument 'now'"_s;
        QTest::newRow("option") << u"--json"_s << u"Unknown option 'json'."_s;
        QTest::newRow("server") << u"--server -a"_s
                                << u"--server: '-a' is neither an IPv4 address nor a host's name"_s;
        QTest::newRow("second server")
            << u"--server a --server a:0"_s << u"--server: '0' is not a port (1 to 65535)"_s;
        QTest::newRow("server twice")
            << u"--server a --server a:9361"_s << u"--server: 'a:9361' is given more than once"_s;
        QTest::newRow("listen at a name")
            << u"--listen localhost:80"_s << u"--listen: 'localhost' is no IPv4 address"_s;
        QTest::newRow("listen twice")
            << u"--listen 10.0.0.1 --listen 10.0.0.1"_s << u"--listen is given more than once"_s;
        QTest::newRow("allow") << u"--allow 10.0.0.0/99"_s
                               << u"--allow: '10.0.0.0/99' is neither an IPv4 address nor a network"_s;
        QTest::newRow("login") << u"--login="_s << u"--login: no file is named"_s;
    }
    void usageErrors()
    {
        QFETCH(QString, line);
        QFETCH(QString, error);
        const auto parsed = Monitor::parse(line.split(u' '));
        QVERIFY(parsed.kind == Monitor::CommandLine::Kind::Error);
        QCOMPARE(parsed.text, error);
    }
};

QTEST_APPLESS_MAIN(TestMonitorQuestions)
#include "tst_monitorquestions.moc"
