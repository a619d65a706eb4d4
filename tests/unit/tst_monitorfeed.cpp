// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radionotice.h"
#include "tools/monitor/feed.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace Monitor;

namespace {

QByteArray numbered(const QByteArray &number)
{
    return R"({"number":")" + number + R"("})";
}

} // namespace

class TestMonitorFeed : public QObject
{
    Q_OBJECT

    // The next event: "status S", "radios 01 02-gone", "snapshot 2", "reset"; empty: none.
    static QString next(Feed &feed)
    {
        const QByteArray text = feed.next();
        if (text.isEmpty()) {
            return {};
        }
        const QList<QByteArray> lines = text.split('\n');
        if (lines.size() != 4 || !lines[0].startsWith("event: ") || !lines[1].startsWith("data: ") ||
            !lines[2].isEmpty() || !lines[3].isEmpty()) {
            return u"no event: "_s + QString::fromUtf8(text);
        }
        QString event = QString::fromLatin1(lines[0].mid(7));
        const QJsonDocument data = QJsonDocument::fromJson(lines[1].mid(6));
        if (event == u"status") {
            return event + u' ' + data[u"number"_s].toString();
        }
        if (event == u"snapshot") {
            return event + u' ' + QString::number(data[u"radios"_s].toInt(-1));
        }
        const QJsonArray radios = data.array();
        for (const QJsonValue radio : radios) {
            event += u' ' + radio[u"esn"_s].toString().right(2) +
                     (radio[u"state"_s].toString() == u"gone" ? u"-gone"_s : QString());
        }
        return event;
    }
    static QStringList all(Feed &feed)
    {
        QStringList events;
        for (QString event = next(feed); !event.isEmpty() && events.size() < 1000; event = next(feed)) {
            events.append(event);
        }
        return events;
    }

    void putStatus(const QByteArray &number)
    {
        observed->status = numbered(number);
        ++observed->statusNumber;
    }
    void changes(int serial, quint8 availability = QMR::Registered)
    {
        observed->table.noticed(0, radioNotice(serial, availability), false, 2000);
    }

    std::unique_ptr<Observed> observed;

private slots:
    void init()
    {
        observed = std::make_unique<Observed>(QStringList{u"a:1"_s}, 0);
        observed->table.connected(0, 1000);
        putStatus("one");
    }

    void tellsTheStatusThenTheTable()
    {
        changes(2);
        changes(1);
        Feed feed(*observed);
        QCOMPARE(all(feed), (QStringList{u"status one"_s, u"radios 02 01"_s, u"snapshot 2"_s}));
    }
    void emptyTableIsToldToo()
    {
        Feed feed(*observed);
        QCOMPARE(all(feed), (QStringList{u"status one"_s, u"snapshot 0"_s}));
    }
    void tellsWhatChanges()
    {
        changes(1);
        Feed feed(*observed);
        all(feed);
        changes(2);
        changes(1, QMR::Unconfirmed);
        changes(2, QMR::Deregistered);
        QCOMPARE(all(feed), QStringList{u"radios 01 02-gone"_s}); // several changes as one
        QCOMPARE(all(feed), QStringList());
    }
    void tellsEachStatusOnce()
    {
        Feed feed(*observed);
        all(feed);
        putStatus("two");
        changes(1);
        QCOMPARE(all(feed), (QStringList{u"status two"_s, u"radios 01"_s}));
        putStatus("three");
        putStatus("four");
        QCOMPARE(all(feed), QStringList{u"status four"_s});
    }
    void readersGoAtTheirOwnPace()
    {
        Feed quick(*observed);
        Feed slow(*observed);
        all(quick);
        changes(1);
        QCOMPARE(all(quick), QStringList{u"radios 01"_s});
        changes(2);
        QCOMPARE(all(quick), QStringList{u"radios 02"_s});
        // To the slow one no radio was in the table as it began.
        QCOMPARE(all(slow), (QStringList{u"status one"_s, u"snapshot 0"_s, u"radios 01 02"_s}));
    }
    void whatWasGoneBeforeIsNotTold()
    {
        changes(1);
        changes(2);
        changes(1, QMR::Deregistered);
        Feed feed(*observed);
        QCOMPARE(all(feed), (QStringList{u"status one"_s, u"radios 02"_s, u"snapshot 1"_s}));
    }

    void tableComesInSlices()
    {
        for (int i = 0; i < 2000; ++i) {
            auto notice = radioNotice(1);
            notice.esn.bytes[0] = static_cast<quint8>(i / 256);
            notice.esn.bytes[1] = static_cast<quint8>(i % 256);
            observed->table.noticed(0, notice, true, 1000);
        }
        Feed feed(*observed);
        feed.next();
        const QByteArray slice = feed.next();
        QVERIFY2(slice.size() > 65536 && slice.size() < 70000, qPrintable(QString::number(slice.size())));
        changes(7); // while the table is told: behind its end
        const QStringList rest = all(feed);
        QCOMPARE(rest[rest.size() - 2], u"snapshot 2000"_s);
        QCOMPARE(rest.last(), u"radios 07"_s);
    }
    void radioThatChangesWhileTheTableIsToldIsToldBehindIt()
    {
        changes(1);
        changes(2);
        Feed feed(*observed);
        feed.next();
        changes(1, QMR::Unconfirmed);
        QCOMPARE(all(feed), (QStringList{u"radios 02"_s, u"snapshot 1"_s, u"radios 01"_s}));
    }

    void readerThatMissedThatARadioIsGoneBeginsAnew()
    {
        changes(1);
        Feed feed(*observed);
        Feed other(*observed);
        all(feed);
        changes(1, QMR::Deregistered);
        goMany();
        QVERIFY(observed->table.forgottenOrder() > 0);
        changes(2);
        QCOMPARE(all(feed), (QStringList{u"reset"_s, u"radios 02"_s, u"snapshot 1"_s}));
        QCOMPARE(all(feed), QStringList());
        Feed later(*observed); // has missed nothing
        QCOMPARE(all(later), (QStringList{u"status one"_s, u"radios 02"_s, u"snapshot 1"_s}));
        changes(2, QMR::Deregistered);
        goMany();
        QCOMPARE(all(later), (QStringList{u"reset"_s, u"snapshot 0"_s}));
    }
    void whatIsForgottenWhileTheTableIsToldWasNeverHeardOf()
    {
        changes(1);
        goMany();
        changes(2);
        Feed feed(*observed);
        feed.next();
        auto notice = radioNotice(3, QMR::Deregistered);
        observed->table.noticed(0, notice, false, 1000); // one that had gone before is forgotten for it
        QVERIFY(observed->table.forgottenOrder() > 0);
        QCOMPARE(all(feed), (QStringList{u"radios 01 02"_s, u"snapshot 2"_s, u"radios 03-gone"_s}));
    }
    void readerThatWasToldOfTheLastOneForgottenHasMissedNothing()
    {
        changes(1);
        Feed feed(*observed);
        all(feed);
        changes(1, QMR::Deregistered);
        QCOMPARE(all(feed), QStringList{u"radios 01-gone"_s});
        goMany(); // it forgets just that one
        QVERIFY(observed->table.forgottenOrder() > 0);
        QVERIFY(!all(feed).contains(u"reset"_s));
    }

private:
    // So many that one that was gone before is forgotten.
    void goMany()
    {
        for (size_t i = 0; i < Table::LongestMemory; ++i) {
            auto notice = radioNotice(1, QMR::Deregistered);
            notice.esn.bytes[0] = static_cast<quint8>(1 + i / 256);
            notice.esn.bytes[1] = static_cast<quint8>(i % 256);
            notice.esn.bytes[2] = static_cast<quint8>(round);
            observed->table.noticed(0, notice, false, 1000);
        }
        ++round;
    }

    int round = 0;
};

QTEST_APPLESS_MAIN(TestMonitorFeed)
#include "tst_monitorfeed.moc"
