// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

#include <memory>

using namespace Qt::StringLiterals;

namespace {

const QString Connected = u"Application connected from 127.0.0.1"_s;

} // namespace

// The built program against a server in this process, whose event loop serves it meanwhile.
class TestWatchTool : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        radio = std::make_unique<ScriptedRadio>(server->registrationPort(), 0xDD);
        radio->registers(QByteArray::fromHex("0103"));
        QVERIFY(radio->isAcknowledged());
        server->log.take();
        tool = std::make_unique<QProcess>();
    }

    void cleanup()
    {
        tool->kill();
        tool->waitForFinished();
        tool.reset();
        radio.reset();
        server.reset();
    }

    void printsEachNoticeAsALine()
    {
        run(u"--count 3"_s);
        QTRY_COMPARE(server->log.count(Connected), 1);
        radio->registersPending(QByteArray::fromHex("02"));
        radio->deregisters(); // the pending registration: the address is the same
        QCOMPARE(exitCode(), 0);
        QCOMPARE(output(), u"0011AABB22CC33DD 12345/678/9ABCDD 127.0.0.2 registered services 1,3\n"
                           "0011AABB22CC33DD 12345/678/9ABCDD 127.0.0.2 pending services 2\n"
                           "0011AABB22CC33DD 12345/678/9ABCDD 127.0.0.2 registered services 1,3\n"_s);
    }

    void printsAnObjectALine()
    {
        run(u"--json --count 1"_s);
        QCOMPARE(exitCode(), 0);
        const QList<QJsonObject> objects = withoutSnapshots(output());
        QCOMPARE(objects.size(), 2);
        QCOMPARE(objects[0][u"event"_s].toString(), u"connected"_s);
        QCOMPARE(objects[1][u"event"_s].toString(), u"radio"_s);
        QCOMPARE(objects[1][u"esn"_s].toString(), radio->esnText());
        QCOMPARE(objects[1][u"state"_s].toString(), u"registered"_s);
    }

    // A radio that left while nobody listened must not live on in a reader's table.
    void tableCanBeKeptFromTheObjects()
    {
        run(u"--json --count 2"_s);
        QString printed;
        QTRY_VERIFY((printed += output()).contains(u"\"event\":\"snapshot\""_s));
        server->restart();
        QCOMPARE(exitCode(), 0);
        printed += output();
        QStringList events;
        for (const QJsonObject &object : withoutSnapshots(printed)) {
            QVERIFY(!object[u"time"_s].toString().isEmpty());
            events.append(object[u"event"_s].toString());
        }
        QCOMPARE(events,
                 (QStringList{u"connected"_s, u"radio"_s, u"disconnected"_s, u"connected"_s, u"radio"_s}));
    }

    void reportTellsOnlyOfItsRadio()
    {
        run(u"report 0011AABB22CC33DD 127.0.0.2 --for 20 --json"_s);
        QCOMPARE(exitCode(), 0);
        const QJsonObject object = QJsonDocument::fromJson(output().toUtf8()).object();
        QCOMPARE(object[u"event"_s].toString(), u"radio"_s);
        QCOMPARE(object[u"state"_s].toString(), u"unconfirmed"_s);
    }

    void tableIsPlainTextWhereThereIsNoTerminal()
    {
        run(u"--table --count 1"_s);
        QCOMPARE(exitCode(), 0);
        QCOMPARE(output(), u"  ESN              WACN/SYSTEM/UNIT  ADDRESS         STATE       SERVICES\n"
                           "> 0011AABB22CC33DD 12345/678/9ABCDD  127.0.0.2       registered  1,3\n"_s);
    }

    void reportPutsARadioInDoubt()
    {
        run(u"report 0011AABB22CC33DD 127.0.0.2 --for 20"_s);
        QCOMPARE(exitCode(), 0);
        QCOMPARE(output(), u"0011AABB22CC33DD 12345/678/9ABCDD 127.0.0.2 unconfirmed services 1,3\n"_s);
        QCOMPARE(server->object().findRadio(radio->esn)->availability, QMR::Unconfirmed);
    }

    void reportWithoutEffectIsToldByTheExitCode()
    {
        run(u"report 0011AABB22CC33DD 127.0.0.9"_s);
        QCOMPARE(exitCode(), 3);
        QCOMPARE(output(), QString());
    }

    void comesBackWhenTheServerDoes()
    {
        run(u"--count 2"_s);
        QString first;
        QTRY_VERIFY((first += output()).endsWith(u" registered services 1,3\n"_s));
        server->restart();
        QCOMPARE(exitCode(), 0);
        QVERIFY(output().endsWith(u" unconfirmed services 1,3\n"_s));
        QVERIFY(errors().contains(u"trying again in 0.5 s"_s));
    }

    void noServerIsAnError()
    {
        server->stop();
        run(u"--for 0.1"_s);
        QCOMPARE(exitCode(), 1);
        QVERIFY(errors().contains(u"Connection refused; trying again"_s));
    }

    void timeWithoutTheNoticesIsToldByTheExitCode()
    {
        run(u"--for 0.2 --count 5000"_s);
        const int code = exitCode();
        QVERIFY2(code == 3 || code == 1, qPrintable(QString::number(code))); // a busy machine may not connect
    }

    void somethingElseThanAServerIsSaid()
    {
        QTcpServer other;
        QVERIFY(other.listen(QHostAddress::LocalHost));
        connect(&other, &QTcpServer::newConnection, this,
                [&other] { other.nextPendingConnection()->write("HTTP/1.1 400 Bad Request\r\n"); });
        start(u"--server 127.0.0.1:%1"_s.arg(other.serverPort()));
        QTRY_VERIFY(errors().contains(u"what came is no radio notice"_s));
    }

    void wrongUsageIsSaidAndEndsAtOnce()
    {
        run(u"--count none"_s);
        QCOMPARE(exitCode(), 2);
        QVERIFY(errors().startsWith(u"quillmere-watch: --count: 'none' is not a number"_s));
    }

    void helpAndVersionArePrinted()
    {
        start(u"--help"_s);
        QCOMPARE(exitCode(), 0);
        QVERIFY(output().startsWith(u"Usage: quillmere-watch"_s));
        start(u"--version"_s);
        QCOMPARE(exitCode(), 0);
        QCOMPARE(output(), u"quillmere-watch 1.38.3.27\n"_s);
    }

private:
    void start(const QString &line)
    {
        text.clear();
        tool->start(QCoreApplication::applicationDirPath() + u"/quillmere-watch"_s,
                    line.split(u' ', Qt::SkipEmptyParts));
    }
    // A snapshot is told after a pause, which a busy machine makes at any place.
    static QList<QJsonObject> withoutSnapshots(const QString &lines)
    {
        QList<QJsonObject> objects;
        for (const QString &line : lines.split(u'\n', Qt::SkipEmptyParts)) {
            const QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
            if (object[u"event"_s].toString() != u"snapshot") {
                objects.append(object);
            }
        }
        return objects;
    }

    void run(const QString &line)
    {
        start(line + u" --server 127.0.0.1:%1"_s.arg(server->applicationPort()));
    }
    int exitCode()
    {
        const bool ended = QTest::qWaitFor([this] { return tool->state() == QProcess::NotRunning; }, 30'000);
        return ended && tool->exitStatus() == QProcess::NormalExit ? tool->exitCode() : -1;
    }
    QString output() { return QString::fromUtf8(tool->readAllStandardOutput()).remove(u'\r'); }
    QString errors()
    {
        text += tool->readAllStandardError();
        return QString::fromUtf8(text).remove(u'\r');
    }

    std::unique_ptr<TestServer> server;
    std::unique_ptr<ScriptedRadio> radio;
    std::unique_ptr<QProcess> tool;
    QByteArray text;
};

QTEST_GUILESS_MAIN(TestWatchTool)
#include "tst_watchtool.moc"
