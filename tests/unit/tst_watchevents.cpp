// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/format.h"
#include "tools/watch/events.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QTest>
#include <QThread>

using namespace Qt::StringLiterals;

using namespace Follow;
using namespace WatchTool;

class TestWatchEvents : public QObject
{
    Q_OBJECT

    static QMR::Qmra::RadioNotice notice(int serial)
    {
        QMR::Qmra::RadioNotice notice;
        notice.esn.bytes.back() = static_cast<quint8>(serial);
        notice.availability = QMR::Registered;
        return notice;
    }

    // "connected", "radio 01", "snapshot 1", "disconnected": what has been written since the last call.
    QStringList take()
    {
        QStringList texts;
        for (const QJsonObject &object : std::exchange(written, {})) {
            QString text = object[u"event"_s].toString();
            if (text == u"radio") {
                text += u' ' + object[u"esn"_s].toString().right(2);
            } else if (text == u"snapshot") {
                text += u' ' + QString::number(object[u"radios"_s].toInt(-1));
            }
            texts.append(text);
        }
        return texts;
    }

    // One that began its pause before is through with it by then.
    static void letAPausePass()
    {
        int snapshots = 0;
        Events later([&snapshots](const QJsonObject &object) {
            snapshots += object[u"event"_s].toString() == u"snapshot" ? 1 : 0;
        });
        for (int i = 1; i <= 2; ++i) {
            later.connected(QString());
            QTRY_COMPARE(snapshots, i);
        }
    }

    QList<QJsonObject> written;
    std::unique_ptr<Events> events;

private slots:
    void init()
    {
        events = std::make_unique<Events>([this](const QJsonObject &object) { written.append(object); });
    }
    void cleanup() { written.clear(); }

    void eachHasItsTimeAndItsKeys()
    {
        const QDateTime before = QDateTime::currentDateTimeUtc();
        events->connected(u"10.0.0.1:9361"_s);
        events->noticed(notice(1));
        events->disconnected(u"gone away"_s);
        QCOMPARE(written.size(), 3);
        for (const QJsonObject &object : std::as_const(written)) {
            const QString text = object[u"time"_s].toString();
            const QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
            QVERIFY2(text.size() == 24 && text.endsWith(u'Z'), qPrintable(text));
            QVERIFY2(before <= time && time <= QDateTime::currentDateTimeUtc(), qPrintable(text));
        }
        QCOMPARE(written[0].keys(), (QStringList{u"event"_s, u"server"_s, u"time"_s}));
        QCOMPARE(written[0][u"server"_s].toString(), u"10.0.0.1:9361"_s);
        QCOMPARE(written[2].keys(), (QStringList{u"event"_s, u"reason"_s, u"time"_s}));
        QCOMPARE(written[2][u"reason"_s].toString(), u"gone away"_s);

        QJsonObject radio = written[1];
        radio.remove(u"time"_s);
        radio.remove(u"event"_s);
        QCOMPARE(radio, noticeObject(notice(1)));
    }

    void snapshotEndsWithWhatIsOutOfOrder()
    {
        events->connected(QString());
        for (const int serial : {3, 5, 9, 5, 11}) {
            events->noticed(notice(serial));
        }
        QCOMPARE(take(), (QStringList{u"connected"_s, u"radio 03"_s, u"radio 05"_s, u"radio 09"_s,
                                      u"snapshot 3"_s, u"radio 05"_s, u"radio 0B"_s}));
        letAPausePass();
        QCOMPARE(take(), QStringList());
    }
    void radioThatChangesAgainIsOutOfOrder()
    {
        events->connected(QString());
        events->noticed(notice(3));
        events->noticed(notice(3));
        QCOMPARE(take(), (QStringList{u"connected"_s, u"radio 03"_s, u"snapshot 1"_s, u"radio 03"_s}));
    }
    void snapshotEndsWithAPause()
    {
        events->connected(QString());
        events->noticed(notice(3));
        QTRY_COMPARE(written.size(), 3);
        events->noticed(notice(5)); // higher, and a change all the same
        QCOMPARE(take(), (QStringList{u"connected"_s, u"radio 03"_s, u"snapshot 1"_s, u"radio 05"_s}));
    }
    void eachRadioPutsOffThePause()
    {
        QElapsedTimer sinceNotice;
        for (int i = 0; i < 10; ++i) { // again, where this process had to wait for the processor meanwhile
            take();
            events->connected(QString());
            QThread::msleep(600); // the pause is over, and nobody has looked
            sinceNotice.start();
            events->noticed(notice(3));
            QCoreApplication::processEvents();
            if (sinceNotice.elapsed() < 400) {
                break;
            }
        }
        QCOMPARE(take(), (QStringList{u"connected"_s, u"radio 03"_s}));
        QTRY_COMPARE(written.size(), 1);
        QCOMPARE(take(), QStringList{u"snapshot 1"_s});
    }
    void serverWithoutRadiosHasASnapshotToo()
    {
        events->connected(QString());
        QTRY_COMPARE(written.size(), 2);
        QCOMPARE(take(), (QStringList{u"connected"_s, u"snapshot 0"_s}));
    }

    void tableBeginsAnewWithEachConnection()
    {
        events->connected(QString());
        for (const int serial : {3, 5, 3}) {
            events->noticed(notice(serial));
        }
        events->disconnected(QString());
        events->connected(QString());
        for (const int serial : {2, 3, 1}) {
            events->noticed(notice(serial));
        }
        QCOMPARE(take().mid(5), (QStringList{u"disconnected"_s, u"connected"_s, u"radio 02"_s, u"radio 03"_s,
                                             u"snapshot 2"_s, u"radio 01"_s}));
    }
    void lostConnectionIsToldOnceAndEndsNoSnapshot()
    {
        events->disconnected(u"refused"_s); // an attempt that failed
        events->connected(QString());
        events->noticed(notice(3));
        events->disconnected(QString());
        events->disconnected(QString());
        letAPausePass();
        QCOMPARE(take(), (QStringList{u"connected"_s, u"radio 03"_s, u"disconnected"_s}));
    }
};

QTEST_GUILESS_MAIN(TestWatchEvents)
#include "tst_watchevents.moc"
