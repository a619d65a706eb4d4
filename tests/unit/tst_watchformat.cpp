// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radionotice.h"
#include "tools/follow/connection.h"
#include "tools/follow/format.h"
#include "tools/watch/commandline.h"

#include <QJsonDocument>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace Follow;
using namespace WatchTool;
using QMR::Qmra::RadioNotice;

// What quillmere-watch makes of its command line and shows of the notices.
class TestWatchFormat : public QObject
{
    Q_OBJECT

private slots:
    void lineNamesEverything()
    {
        QCOMPARE(noticeLine(radioNotice(5, QMR::Registered)),
                 u"0011AABB22CC3305 01234/567/89AB05 10.0.0.5 registered services 1,3"_s);
        RadioNotice gone = radioNotice(5, QMR::Deregistered);
        gone.services.clear();
        QCOMPARE(noticeLine(gone), u"0011AABB22CC3305 01234/567/89AB05 - gone services -"_s);
    }

    void statesHaveNames()
    {
        QCOMPARE(stateName(radioNotice(1, QMR::Registered)), u"registered"_s);
        QCOMPARE(stateName(radioNotice(1, QMR::Unconfirmed)), u"unconfirmed"_s);
        QCOMPARE(stateName(radioNotice(1, QMR::Unreachable)), u"unreachable"_s);
        QCOMPARE(stateName(radioNotice(1, QMR::Deregistered)), u"gone"_s);
        QCOMPARE(stateName(radioNotice(1, QMR::Registered, true)), u"pending"_s);
        QCOMPARE(stateName(radioNotice(1, 77)), u"77"_s);
    }

    void objectHasAllOfIt()
    {
        QCOMPARE(QJsonDocument(noticeObject(radioNotice(5, QMR::Unconfirmed))).toJson(QJsonDocument::Compact),
                 R"({"address":"10.0.0.5","availability":2,"esn":"0011AABB22CC3305",)"
                 R"("pending":false,"services":[1,3],"state":"unconfirmed",)"
                 R"("system":"567","unit":"89AB05","wacn":"01234"})"_ba);
        QVERIFY(noticeObject(radioNotice(5, QMR::Deregistered)).value(u"address"_s).isNull());
    }

    void pausesGrowToTheirBound()
    {
        QList<qint64> pauses;
        for (int attempt = 0; attempt < 9; ++attempt) {
            pauses.append(Connection::pauseBeforeAttempt(attempt));
        }
        QCOMPARE(pauses, (QList<qint64>{500, 1000, 2000, 4000, 8000, 16000, 30000, 30000, 30000}));
        QCOMPARE(Connection::pauseBeforeAttempt(1000000), 30000);
    }

    void usageErrors_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("error");
        QTest::newRow("option") << u"--nothing"_s << u"Unknown option 'nothing'."_s;
        QTest::newRow("command") << u"reprot"_s << u"unknown command 'reprot'"_s;
        QTest::newRow("server") << u"--server -a"_s
                                << u"--server: '-a' is neither an IPv4 address nor a host's name"_s;
        QTest::newRow("twice") << u"--count 1 --count 2"_s << u"--count is given more than once"_s;
        QTest::newRow("both outputs") << u"--json --table"_s << u"--json and --table exclude each other"_s;
        QTest::newRow("report alone") << u"report"_s << u"report needs an ESN and an address"_s;
        QTest::newRow("report address") << u"report 0011AABB22CC3301 10.0.0"_s
                                        << u"'10.0.0' is neither an IPv4 address nor a host's name"_s;
        QTest::newRow("report count") << u"report 0011AABB22CC3301 10.0.0.1 --count 1"_s
                                      << u"report takes neither --count nor --table"_s;
    }

    void usageErrors()
    {
        QFETCH(QString, line);
        QFETCH(QString, error);
        const CommandLine parsed = parse(line.split(u' '));
        QVERIFY(parsed.kind == CommandLine::Kind::Error);
        QCOMPARE(parsed.text, error);
    }

    void namesAreKept()
    {
        const auto parsed = parse(u"--server server.example:99"_s.split(u' '));
        QCOMPARE(parsed.settings.server.text(), u"server.example:99"_s);
        QVERIFY(parsed.settings.server.address.isNull());
    }

    void settingsAreRead()
    {
        const auto parsed = parse(u"--server 10.0.0.1:99 --json --count 7 --for 1.5"_s.split(u' '));
        QVERIFY(parsed.kind == CommandLine::Kind::Run);
        QCOMPARE(parsed.settings.server.text(), u"10.0.0.1:99"_s);
        QVERIFY(parsed.settings.output == Output::Json);
        QCOMPARE(parsed.settings.count, quint64{7});
        QCOMPARE(parsed.settings.duration, 1500);
    }
};

QTEST_APPLESS_MAIN(TestWatchFormat)
#include "tst_watchformat.moc"
