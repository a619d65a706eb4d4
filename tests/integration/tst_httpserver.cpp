// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/httpserver.h"

#include <QCoreApplication>
#include <QTcpSocket>
#include <QTest>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace Monitor;

namespace {

// Tells what it is given, one text after the other.
class ScriptedStream : public Stream
{
public:
    explicit ScriptedStream(QByteArray *newNext) : text(newNext) {}
    QByteArray next() override { return std::exchange(*text, {}); }

private:
    QByteArray *text;
};

// More than the system takes ahead of a reader: 64 KiB each time, 128 MiB in all.
class FloodingStream : public Stream
{
public:
    explicit FloodingStream(qint64 *newTold) : told(newTold) {}
    QByteArray next() override
    {
        if (*told >= 134217728) {
            return {};
        }
        *told += 65536;
        return QByteArray(65536, 'x');
    }

private:
    qint64 *told;
};

} // namespace

// The listening socket and its connections, with browsers that are written out byte by byte.
class TestHttpServer : public QObject
{
    Q_OBJECT

    using Client = std::unique_ptr<QTcpSocket>;

    Client connected() const
    {
        auto client = std::make_unique<QTcpSocket>();
        client->connectToHost(QHostAddress::LocalHost, server->port());
        return client;
    }
    Client asking(const QByteArray &request) const
    {
        Client client = connected();
        client->write(request);
        return client;
    }
    // What has come until it contains the text.
    static QByteArray until(QTcpSocket &client, const QByteArray &text)
    {
        QByteArray received;
        const auto has = [&] {
            received += client.isOpen() ? client.readAll() : QByteArray();
            return received.contains(text) || !client.isOpen();
        };
        return QTest::qWaitFor(has, 30000) && received.contains(text) ? received
                                                                      : "only: " + received.left(500);
    }
    static QByteArray untilEnd(QTcpSocket &client)
    {
        const bool ended =
            QTest::qWaitFor([&] { return client.state() == QAbstractSocket::UnconnectedState; }, 30000);
        const QByteArray rest = client.isOpen() ? client.readAll() : QByteArray();
        return ended ? rest : "no end: " + rest;
    }
    static QByteArray get(const QByteArray &path, const QByteArray &fields = {})
    {
        return "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + fields + "\r\n";
    }
    void start(HttpConnection::Patience patience = {})
    {
        server = std::make_unique<HttpServer>([this](const Request &request) { return answer(request); },
                                              patience);
        QVERIFY(server->listen(QHostAddress(QHostAddress::LocalHost), 0));
    }
    Answer answer(const Request &request)
    {
        asked.append(request.path);
        peer = request.peer;
        Answer answer{200, "text/plain"_ba, "at " + request.path.toUtf8() + '\n'};
        if (request.path == u"/error") {
            return Answer::error(404, "no"_ba);
        }
        if (request.path == u"/stream") {
            answer.stream = std::make_unique<ScriptedStream>(&told);
        } else if (request.path == u"/flood") {
            answer.stream = std::make_unique<FloodingStream>(&flooded);
        } else if (request.path == u"/large") {
            answer.body = QByteArray(20'000'000, 'l');
        }
        return answer;
    }

    std::unique_ptr<HttpServer> server;
    QStringList asked;
    QHostAddress peer;
    QByteArray told;
    qint64 flooded = 0;

private slots:
    void init() { start(); }
    void cleanup()
    {
        server.reset();
        asked.clear();
        told.clear();
        flooded = 0;
    }

    void answersWithAHeadAndABody()
    {
        const Client client = asking(get("/a"));
        QCOMPARE(
            until(*client, "at /a\n"),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 6\r\n"
            "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; img-src "
            "'self'; "
            "connect-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'\r\n"
            "X-Content-Type-Options: nosniff\r\nReferrer-Policy: no-referrer\r\nCache-Control: no-store\r\n"
            "\r\nat /a\n"_ba);
        QCOMPARE(peer, QHostAddress(QHostAddress::LocalHost));
    }
    void headHasNoBody()
    {
        const Client client = asking("HEAD /a HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
        const QByteArray text = untilEnd(*client);
        QVERIFY2(text.contains("\r\nContent-Length: 6\r\n") && text.endsWith("\r\n\r\n"), text.constData());
    }
    void headOfAStreamThatIsTheLastRequestEnds()
    {
        const Client client = asking("HEAD /stream HTTP/1.1\r\nHost: a\r\nConnection: close\r\n\r\n");
        QVERIFY(untilEnd(*client).startsWith("HTTP/1.1 200 OK\r\n"));
    }
    void errorEndsTheConnection()
    {
        const Client client = asking(get("/error"));
        const QByteArray text = untilEnd(*client);
        QVERIFY2(text.startsWith("HTTP/1.1 404 Not Found\r\n") && text.contains("\r\nConnection: close\r\n"),
                 text.constData());
    }
    void othersHaveTheirTurnBetweenRequestsSentAtOnce()
    {
        const Client many = asking(get("/m").repeated(1000));
        QTRY_VERIFY(!asked.isEmpty());
        const Client other = asking(get("/o"));
        until(*other, "at /o\n");
        QVERIFY2(asked.indexOf(u"/o"_s) < 900, qPrintable(QString::number(asked.indexOf(u"/o"_s))));
        QTRY_COMPARE(asked.size(), 1001);
    }
    void lastAnswerIsSentWholeHoweverSlowlyItIsTaken()
    {
        start({10000, 2000, 20});
        const Client client = connected();
        client->setReadBufferSize(65536);
        client->write(get("/large", "Connection: close\r\n"));
        qint64 taken = 0;
        QTimer slowly;
        connect(&slowly, &QTimer::timeout, client.get(), [&] { taken += client->readAll().size(); });
        slowly.start(10); // some four seconds for it all, twice the patience
        QTRY_COMPARE_WITH_TIMEOUT(client->state(), QAbstractSocket::UnconnectedState, 60000);
        taken += client->isOpen() ? client->readAll().size() : 0;
        QVERIFY2(taken > 20'000'000, qPrintable(QString::number(taken)));
    }
    void headOfAStreamEnds()
    {
        const Client client =
            asking("HEAD /stream HTTP/1.1\r\nHost: a\r\n\r\n" + get("/b", "Connection: close\r\n"));
        QVERIFY(untilEnd(*client).endsWith("at /b\n"));
    }
    void connectionStaysForTheNextRequest()
    {
        const Client client = asking(get("/a"));
        until(*client, "at /a\n");
        client->write(get("/b").left(10));
        client->flush();
        QCoreApplication::processEvents();
        client->write(get("/b").mid(10));
        QVERIFY(until(*client, "at /b\n").startsWith("HTTP/1.1 200 OK\r\n"));
    }
    void requestsAtOnceAreAnsweredInOrder()
    {
        const Client client = asking(get("/a") + get("/b") + get("/c", "Connection: close\r\n") + get("/d"));
        const QByteArray text = untilEnd(*client);
        QCOMPARE(asked, (QStringList{u"/a"_s, u"/b"_s, u"/c"_s}));
        QCOMPARE(text.count("HTTP/1.1 200 OK"), 3);
        QVERIFY(text.contains("\r\nConnection: close\r\n") && text.endsWith("at /c\n"));
    }
    void olderVersionEndsTheConnection()
    {
        const Client client = asking("GET /a HTTP/1.0\r\n\r\n");
        QVERIFY(untilEnd(*client).endsWith("at /a\n"));
    }
    void nextRequestWaitsUntilALargeAnswerIsTaken()
    {
        const Client client = connected();
        client->setReadBufferSize(65536);
        client->write(get("/large") + get("/b"));
        QTRY_VERIFY(client->bytesAvailable() > 0);
        for (int i = 0; i < 20; ++i) {
            QCoreApplication::processEvents();
        }
        QCOMPARE(asked, QStringList{u"/large"_s});
        client->setReadBufferSize(0);
        until(*client, "at /b\n");
        QCOMPARE(asked, (QStringList{u"/large"_s, u"/b"_s}));
    }

    void whatIsNoRequestGetsItsError()
    {
        start({10000, 60000, 20});
        const Client client = asking("nonsense\r\n\r\n" + get("/a"));
        const QByteArray text = untilEnd(*client);
        QVERIFY2(text.startsWith("HTTP/1.1 400 Bad Request\r\n"), text.constData());
        QVERIFY(text.endsWith("\r\n\r\n{\"error\":\"this is no request that can be read\"}\n"));
        QVERIFY(text.contains("\r\nConnection: close\r\n"));
        QVERIFY(asked.isEmpty());
    }
    void whoIsStillSendingGetsTheErrorToo()
    {
        const Client client = asking("GET /a HTTP/1.1\r\nHost: a\r\nX: ");
        for (int i = 0; i < 200; ++i) {
            client->write(QByteArray(4096, 'x'));
        }
        const QByteArray text = until(*client, "}\n");
        QVERIFY2(text.startsWith("HTTP/1.1 431 Request Header Fields Too Large\r\n"),
                 text.left(300).constData());
        const Client other = asking(get("/b"));
        until(*other, "at /b\n");
        QCOMPARE(asked, QStringList{u"/b"_s});
    }
    void whoNeverEndsAfterAnErrorIsLeft()
    {
        start({10000, 60000, 20});
        const Client client = asking("nonsense\r\n\r\n");
        QVERIFY(untilEnd(*client).startsWith("HTTP/1.1 400"));
    }
    void requestThatTakesTooLongGetsItsError()
    {
        start({1000, 60000, 20});
        const Client client = asking(get("/a") + get("/b").left(10));
        const QByteArray text = untilEnd(*client);
        QVERIFY2(text.contains("at /a\n") && text.contains("HTTP/1.1 408 Request Timeout\r\n"),
                 text.constData());
        QCOMPARE(asked, QStringList{u"/a"_s});
    }
    void requestThatComesBitByBitHasNoMoreTime()
    {
        start({1000, 60000, 2000});
        const Client client = connected();
        QTimer drip;
        const QByteArray request = get("/" + QByteArray(5000, 'a'));
        qsizetype sent = 0;
        connect(&drip, &QTimer::timeout, client.get(), [&] {
            if (client->isOpen()) {
                client->write(request.mid(sent++, 1));
            }
        });
        drip.start(1);
        const QByteArray text = until(*client, "}\n");
        drip.stop();
        QVERIFY2(text.startsWith("HTTP/1.1 408 Request Timeout\r\n"), text.constData());
        QVERIFY(asked.isEmpty());
    }
    void whoAsksNothingIsLeft()
    {
        start({20, 60000, 20});
        const Client silent = connected();
        QCOMPARE(untilEnd(*silent), QByteArray());
        start({10000, 20, 20});
        const Client idle = asking(get("/a"));
        QVERIFY(untilEnd(*idle).endsWith("at /a\n"));
    }
    void whoTakesNothingIsLeft()
    {
        start({10000, 1000, 2000});
        const Client client = connected();
        client->setReadBufferSize(1024);
        client->write(get("/flood"));
        QTRY_COMPARE(server->streams(), size_t{1});
        QTRY_COMPARE_WITH_TIMEOUT(server->streams(), size_t{0}, 30000);
    }

    void streamTellsWhatThereIs()
    {
        told = "first\n"_ba;
        const Client client = asking(get("/stream"));
        const QByteArray text = until(*client, "first\n");
        QVERIFY2(!text.contains("Content-Length") && text.contains("\r\nConnection: close\r\n"),
                 text.constData());
        told = "second\n"_ba;
        QCoreApplication::processEvents();
        QCOMPARE(told, "second\n"_ba); // not before it is asked to
        server->tellStreams();
        QCOMPARE(until(*client, "second\n"), "second\n"_ba);
        client->write(get("/a")); // nothing more is asked here
        told = "third\n"_ba;
        server->tellStreams();
        QCOMPARE(until(*client, "third\n"), "third\n"_ba);
        QCOMPARE(asked, QStringList{u"/stream"_s});
        client->disconnectFromHost();
        QTRY_COMPARE(server->streams(), size_t{0});
    }
    void quietStreamStays()
    {
        start({10000, 20, 20});
        told = "first\n"_ba;
        const Client client = asking(get("/stream"));
        until(*client, "first\n");
        const Client later =
            asking(get("/a")); // ends when it has been idle, longer than the stream's first patience
        untilEnd(*later);
        told = "second\n"_ba;
        server->tellStreams();
        QCOMPARE(until(*client, "second\n"), "second\n"_ba);
    }
    void slowReaderOfAStreamHoldsUpNobody()
    {
        const Client slow = connected();
        slow->setReadBufferSize(1024);
        slow->write(get("/flood"));
        QTRY_VERIFY(flooded > 0);
        qint64 before = -1;
        QTRY_VERIFY(std::exchange(before, flooded) == flooded); // nothing more is asked of the stream
        server->tellStreams();
        QVERIFY2(flooded < 100'000'000, qPrintable(QString::number(flooded)));
        told = "news\n"_ba;
        const Client quick = asking(get("/stream"));
        until(*quick, "news\n");
        const qint64 unread = flooded;
        slow->setReadBufferSize(0);
        slow->readAll();
        QTRY_VERIFY(slow->readAll().size() >= 0 && flooded > unread + 4'000'000); // it goes on when it reads
    }
    void streamsAreBounded()
    {
        std::vector<Client> clients;
        for (size_t i = 0; i < HttpServer::MostStreams; ++i) {
            told = "t\n"_ba;
            clients.push_back(asking(get("/stream")));
            until(*clients.back(), "t\n");
        }
        QCOMPARE(server->streams(), HttpServer::MostStreams);
        const Client client = asking(get("/stream", "Connection: close\r\n"));
        const QByteArray text = untilEnd(*client);
        QVERIFY2(text.startsWith("HTTP/1.1 503 Service Unavailable\r\n"), text.constData());
        QVERIFY(text.endsWith("{\"error\":\"too many streams\"}\n"));
        QCOMPARE(server->streams(), HttpServer::MostStreams);
    }

    void whatNobodyTakesIsBounded()
    {
        std::vector<Client> clients;
        const auto large = [&] {
            clients.push_back(connected());
            clients.back()->setReadBufferSize(1024);
            clients.back()->write(get("/large"));
        };
        for (int i = 1; i <= 3; ++i) { // the system holds some of it, too
            large();
            QTRY_COMPARE(asked.size(), i);
        }
        const Client client = asking(get("/large"));
        const QByteArray text = until(*client, "}\n");
        QVERIFY2(text.startsWith("HTTP/1.1 503 Service Unavailable\r\n"), text.constData());
        QVERIFY(text.endsWith("{\"error\":\"too much is waiting to be taken\"}\n"));
        const Client small = asking(get("/a"));
        until(*small, "at /a\n");
        clients.clear();
        const auto isServed = [&] {
            const Client other = asking(get("/large", "Connection: close\r\n"));
            return untilEnd(*other).endsWith("lll");
        };
        QTRY_VERIFY(isServed()); // once they have gone
    }
    void thousandConnectionsKeepNobodyOut()
    {
        told = "t\n"_ba;
        const Client stream = asking(get("/stream"));
        until(*stream, "t\n");
        std::vector<Client> silent;
        for (int i = 0; i < 1000; ++i) {
            silent.push_back(connected());
            QVERIFY(silent.back()->waitForConnected(30000));
            QCoreApplication::processEvents();
        }
        // The one that waits longest gives way, and is told so.
        QVERIFY(until(*silent[0], "}\n").endsWith("{\"error\":\"too many connections\"}\n"));
        const Client client = asking(get("/a", "Connection: close\r\n"));
        QVERIFY(untilEnd(*client).endsWith("at /a\n"));
        told = "news\n"_ba;
        server->tellStreams();
        QCOMPARE(until(*stream, "news\n"), "news\n"_ba);
        // The last ones still have their turn.
        silent.back()->write(get("/b"));
        until(*silent.back(), "at /b\n");
    }
    void addressThatIsTakenIsAnError()
    {
        HttpServer other([](const Request &) { return Answer(); });
        QVERIFY(!other.listen(QHostAddress(QHostAddress::LocalHost), server->port()));
        QVERIFY(!other.error().isEmpty());
    }
    void endsWhileItIsBusy()
    {
        const Client flood = asking(get("/flood"));
        const Client large = asking(get("/large"));
        QTRY_COMPARE(asked.size(), 2);
        server.reset();
        QTRY_COMPARE(flood->state(), QAbstractSocket::UnconnectedState);
        QTRY_COMPARE(large->state(), QAbstractSocket::UnconnectedState);
    }
};

QTEST_GUILESS_MAIN(TestHttpServer)
#include "tst_httpserver.moc"
