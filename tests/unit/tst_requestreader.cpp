// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/requestreader.h"

#include <QTest>

using namespace Qt::StringLiterals;
using namespace Monitor;

class TestRequestReader : public QObject
{
    Q_OBJECT

    static RequestReader::Result read(const QByteArray &bytes)
    {
        RequestReader reader;
        reader.add(bytes);
        return reader.next();
    }

private slots:
    void readsARequest()
    {
        const auto result =
            read("GET /api/radios?state=gone&query=1%2F2+3 HTTP/1.1\r\nHost: 127.0.0.1:9362\r\n"
                 "Authorization: Basic YTpi\r\n\r\n");
        QCOMPARE(result.error, 0);
        QVERIFY(result.request);
        QCOMPARE(result.request->method, "GET"_ba);
        QCOMPARE(result.request->path, u"/api/radios"_s);
        QCOMPARE(result.request->query.queryItemValue(u"state"_s), u"gone"_s);
        QCOMPARE(result.request->query.queryItemValue(u"query"_s, QUrl::FullyDecoded), u"1/2 3"_s);
        QCOMPARE(result.request->host, "127.0.0.1:9362"_ba);
        QCOMPARE(result.request->authorization, "Basic YTpi"_ba);
        QVERIFY(result.request->keepAlive);
    }
    void pathIsDecoded()
    {
        const auto result = read("GET /%6Detrics HTTP/1.1\r\nHost: a\r\n\r\n");
        QCOMPARE(result.request->path, u"/metrics"_s);
        QVERIFY(result.request->query.isEmpty());
    }
    void readsOneAfterTheOther()
    {
        RequestReader reader;
        QVERIFY(!reader.isWithinRequest());
        reader.add("GET /1 HTTP/1.1\r\nHost: a\r\n\r\nHEAD /2 HTTP/1.0\r\n\r\nGET /3");
        QCOMPARE(reader.next().request->path, u"/1"_s);
        const auto second = reader.next();
        QCOMPARE(second.request->path, u"/2"_s);
        QCOMPARE(second.request->method, "HEAD"_ba);
        QVERIFY(!second.request->keepAlive);
        const auto third = reader.next();
        QVERIFY(!third.request);
        QCOMPARE(third.error, 0);
        QVERIFY(reader.isWithinRequest());
    }
    void waitsForTheRestOfEveryBeginning()
    {
        const QByteArray whole = "GET /a?b=c HTTP/1.1\r\nHost: 10.0.0.1\r\nConnection: close\r\n\r\n"_ba;
        for (qsizetype size = 0; size < whole.size(); ++size) {
            RequestReader reader;
            reader.add(whole.left(size));
            const auto first = reader.next();
            QVERIFY2(!first.request && first.error == 0, qPrintable(QString::number(size)));
            QCOMPARE(reader.isWithinRequest(), size > 0);
            reader.add(whole.mid(size));
            const auto second = reader.next();
            QVERIFY2(second.request, qPrintable(QString::number(size)));
            QVERIFY(!second.request->keepAlive);
            QVERIFY(!reader.isWithinRequest());
        }
    }

    void refusesWhatIsNone_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<int>("status");
        const QByteArray host = "\r\nHost: a\r\n"_ba;
        const auto get = [&host](const QByteArray &fields) {
            return QByteArray("GET / HTTP/1.1" + host + fields + "\r\n");
        };
        QTest::newRow("no HTTP") << "QMRA\4\3\0\0\r\n\r\n"_ba << 400;
        QTest::newRow("no path") << QByteArray("GET * HTTP/1.1" + host + "\r\n") << 400;
        QTest::newRow("another server's") << QByteArray("GET http://b/ HTTP/1.1" + host + "\r\n") << 400;
        QTest::newRow("blank in path") << QByteArray("GET /a b HTTP/1.1" + host + "\r\n") << 400;
        QTest::newRow("version 2") << QByteArray("GET / HTTP/2.0" + host + "\r\n") << 400;
        QTest::newRow("no host") << "GET / HTTP/1.1\r\n\r\n"_ba << 400;
        QTest::newRow("two hosts") << get("Host: b\r\n"_ba) << 400;
        QTest::newRow("field without name") << get(": b\r\n"_ba) << 400;
        QTest::newRow("body") << get("Content-Length: 1\r\n"_ba) << 413;
        QTest::newRow("two lengths") << get("Content-Length: 0\r\nContent-Length: 1\r\n"_ba) << 400;
        QTest::newRow("negative length") << get("Content-Length: -1\r\n"_ba) << 400;
        QTest::newRow("chunks") << QByteArray(get("Transfer-Encoding: chunked\r\n"_ba) +
                                              "1\r\na\r\n0\r\n\r\n")
                                << 413;
        QTest::newRow("other encoding") << get("Transfer-Encoding: gzip\r\n"_ba) << 413;
        QTest::newRow("endless chunk")
            << QByteArray(get("Transfer-Encoding: chunked\r\n"_ba) + "0;" + QByteArray(20000, 'a')) << 413;
        QTest::newRow("long trailer") << QByteArray(get("Transfer-Encoding: chunked\r\n"_ba) +
                                                    "0\r\nX: " + QByteArray(20000, 'a') + "\r\n\r\n")
                                      << 413;
        QTest::newRow("long path") << QByteArray("GET /" + QByteArray(9000, 'a') + " HTTP/1.1" + host +
                                                 "\r\n")
                                   << 431;
        QTest::newRow("long line") << QByteArray(9000, 'A') << 431;
        QTest::newRow("long field") << get("X: " + QByteArray(9000, 'a') + "\r\n") << 431;
        QTest::newRow("many fields") << get(QByteArray("X: a\r\n"_ba).repeated(2000)) << 431;
    }
    void refusesWhatIsNone()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(int, status);
        const auto whole = read(bytes);
        QVERIFY(!whole.request);
        QCOMPARE(whole.error, status);

        RequestReader reader; // and byte by byte
        RequestReader::Result result;
        for (const char byte : bytes) {
            reader.add(QByteArray(1, byte));
            result = reader.next();
            QVERIFY(!result.request);
            if (result.error != 0) {
                break;
            }
        }
        QCOMPARE(result.error, status);
    }
    void longestHeadIsRead()
    {
        const QByteArray line = "GET / HTTP/1.1\r\n"_ba;
        const QByteArray host = "Host: a\r\nX: "_ba;
        const QByteArray end = "\r\n\r\n"_ba;
        const qsizetype longest = RequestReader::LongestHead - host.size() - end.size();
        QVERIFY(read(line + host + QByteArray(longest, 'x') + end).request);
        QCOMPARE(read(line + host + QByteArray(longest + 1, 'x') + end).error, 431);
    }
};

QTEST_APPLESS_MAIN(TestRequestReader)
#include "tst_requestreader.moc"
