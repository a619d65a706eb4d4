// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radionotice.h"
#include "tools/follow/format.h"
#include "tools/monitor/json.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace Monitor;

namespace {

constexpr qint64 Time = 1795405330291; // 2026-11-23T03:42:10.291Z

} // namespace

class TestMonitorJson : public QObject
{
    Q_OBJECT

    static QJsonObject object(const QByteArray &text)
    {
        QJsonParseError error;
        const QJsonObject object = QJsonDocument::fromJson(text, &error).object();
        return error.error == QJsonParseError::NoError ? object
                                                       : QJsonObject{{u"error"_s, error.errorString()}};
    }

    const Radio &radio(int serial, int server = 0) const
    {
        return observed->table.radiosOf(server).at(radioNotice(serial).esn);
    }

    std::unique_ptr<Observed> observed;

private slots:
    void init()
    {
        observed = std::make_unique<Observed>(QStringList{u"127.0.0.1:9361"_s, u"host.example:1"_s}, Time);
        observed->table.connected(0, Time);
    }

    void radioHasTheKeysOfANotice_data()
    {
        QTest::addColumn<int>("availability");
        QTest::addColumn<bool>("pending");
        for (const int availability : {0, 1, 2, 3, 77}) {
            QTest::addRow("%d", availability) << availability << false;
            QTest::addRow("%d pending", availability) << availability << true;
        }
    }
    void radioHasTheKeysOfANotice()
    {
        QFETCH(int, availability);
        QFETCH(bool, pending);
        auto notice = radioNotice(0xFE, static_cast<quint8>(availability), pending);
        notice.services = {0, 255, 3, 3};
        observed->table.noticed(0, notice, false, Time);
        QByteArray text;
        appendRadio(text, observed->table, radio(0xFE));
        QJsonObject expected = Follow::noticeObject(notice);
        expected[u"server"_s] = u"127.0.0.1:9361"_s;
        expected[u"changed"_s] = u"2026-11-23T03:42:10.291Z"_s;
        QCOMPARE(object(text), expected);
    }
    void radioWithoutServicesHasAnEmptyArray()
    {
        auto notice = radioNotice(1);
        notice.services.clear();
        observed->table.noticed(0, notice, true, Time);
        QByteArray text;
        appendRadio(text, observed->table, radio(1));
        QVERIFY2(text.endsWith(
                     "\"pending\":false,\"services\":[],\"server\":\"127.0.0.1:9361\",\"changed\":null}"),
                 text.constData());
    }

    void historyIsOldestFirst()
    {
        observed->table.noticed(0, radioNotice(1), true, Time);
        observed->table.noticed(0, radioNotice(1, QMR::Unconfirmed), false, Time + 1000);
        observed->table.noticed(1, radioNotice(1, QMR::Unreachable), true, Time);
        const QJsonObject text = object(radioText(observed->table, radioNotice(1).esn));
        QCOMPARE(text.keys(), (QStringList{u"history"_s, u"radios"_s}));
        const QJsonArray radios = text[u"radios"_s].toArray();
        QCOMPARE(radios.size(), 2);
        QCOMPARE(radios[0][u"state"_s].toString(), u"unconfirmed"_s);
        QCOMPARE(radios[1][u"server"_s].toString(), u"host.example:1"_s);
        const QJsonArray history = text[u"history"_s].toArray();
        QCOMPARE(history.size(), 3);
        QJsonObject first = Follow::noticeObject(radioNotice(1));
        first.remove(u"esn"_s);
        first[u"time"_s] = u"2026-11-23T03:42:10.291Z"_s;
        first[u"server"_s] = u"127.0.0.1:9361"_s;
        QCOMPARE(history[0].toObject(), first);
        QCOMPARE(history[1][u"time"_s].toString(), u"2026-11-23T03:42:11.291Z"_s);
        QCOMPARE(history[1][u"state"_s].toString(), u"unconfirmed"_s);
        QCOMPARE(history[2][u"state"_s].toString(), u"unreachable"_s);
        QVERIFY(radioText(observed->table, radioNotice(2).esn).isEmpty());
    }

    void statusHasTotalsAndServers()
    {
        observed->table.noticed(0, radioNotice(1), false, Time + 5);
        observed->table.connected(1, Time + 1);
        observed->table.noticed(1, radioNotice(1), true, Time + 2);
        observed->table.noticed(1, radioNotice(2, QMR::Registered, true), true, Time + 2);
        observed->table.disconnected(1, u"gone away"_s, Time + 3);
        observed->activity.registered(500);
        observed->activity.changed(500);
        observed->activity.changed(500);
        const QJsonObject status = statusObject(*observed, u"1.2"_s, Time + 1000, 1000);
        const QJsonObject expected{
            {u"time"_s, u"2026-11-23T03:42:11.291Z"_s},
            {u"started"_s, u"2026-11-23T03:42:10.291Z"_s},
            {u"version"_s, u"1.2"_s},
            {u"radios"_s, 3},
            {u"states"_s, QJsonObject{{u"registered"_s, 2}, {u"pending"_s, 1}}},
            {u"services"_s, QJsonObject{{u"1"_s, 3}, {u"3"_s, 3}}},
            {u"registrations"_s, 1},
            {u"changes"_s, 2},
            {u"servers"_s, QJsonArray{QJsonObject{{u"server"_s, u"127.0.0.1:9361"_s},
                                                  {u"connected"_s, true},
                                                  {u"since"_s, u"2026-11-23T03:42:10.291Z"_s},
                                                  {u"changed"_s, u"2026-11-23T03:42:10.296Z"_s},
                                                  {u"radios"_s, 1},
                                                  {u"reason"_s, QJsonValue()}},
                                      QJsonObject{{u"server"_s, u"host.example:1"_s},
                                                  {u"connected"_s, false},
                                                  {u"since"_s, u"2026-11-23T03:42:10.294Z"_s},
                                                  {u"changed"_s, QJsonValue()},
                                                  {u"radios"_s, 2},
                                                  {u"reason"_s, u"gone away"_s}}}}};
        QCOMPARE(status, expected);
    }
    void serverThatWasNeverThereHasNoTime()
    {
        const QJsonObject status = statusObject(*observed, QString(), Time, 0);
        QVERIFY(status[u"servers"_s][1][u"since"_s].isNull());
        QVERIFY(status[u"servers"_s][1][u"reason"_s].isNull());
    }

    void ratesHaveSecondsAndMinutes()
    {
        for (const qint64 now : {0, 59000, 59999, 60000}) {
            observed->activity.registered(now);
        }
        observed->activity.changed(59000);
        QCOMPARE(observed->activity.lastRegistrations(60000), 2U);
        QCOMPARE(observed->activity.lastChanges(60000), 1U);
        const QJsonObject rates = ratesObject(observed->activity, Time, 61000);
        QCOMPARE(rates[u"time"_s].toString(), u"2026-11-23T03:42:10.291Z"_s);
        const QJsonArray seconds = rates[u"seconds"_s][u"registrations"_s].toArray();
        QCOMPARE(seconds.size(), 900);
        QCOMPARE(seconds[899].toInt(), 1);
        QCOMPARE(seconds[898].toInt(), 2);
        QCOMPARE(seconds[899 - 60].toInt(), 1);
        QCOMPARE(rates[u"seconds"_s][u"changes"_s].toArray()[898].toInt(), 1);
        const QJsonArray minutes = rates[u"minutes"_s][u"registrations"_s].toArray();
        QCOMPARE(minutes.size(), 1440);
        QCOMPARE(minutes[1439].toInt(), 3);
        QCOMPARE(rates[u"minutes"_s][u"changes"_s].toArray()[1439].toInt(), 1);
    }
};

QTEST_APPLESS_MAIN(TestMonitorJson)
#include "tst_monitorjson.moc"
