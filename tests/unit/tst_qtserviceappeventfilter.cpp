// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtserviceappeventfilter.h"

#include <QTest>

using namespace Qt::StringLiterals;

class TestQtServiceAppEventFilter : public QObject
{
    Q_OBJECT

private slots:
    void isOneForTheProcess()
    {
        QVERIFY(QtServiceAppEventFilter::instance());
        QCOMPARE(QtServiceAppEventFilter::instance(), QtServiceAppEventFilter::instance());
    }

    void swallowsOnlyTheLogOff_data()
    {
        QTest::addColumn<quint32>("message");
        QTest::addColumn<qulonglong>("lParam");
        QTest::addColumn<bool>("swallowed");
        QTest::newRow("log-off") << quint32(0x16) << 0x80000000ULL << true;
        QTest::newRow("log-off, sign extended") << quint32(0x16) << 0xFFFFFFFF80000000ULL << true;
        QTest::newRow("log-off, forced") << quint32(0x16) << 0xC0000000ULL << true;
        QTest::newRow("shutdown") << quint32(0x16) << 0ULL << false;
        QTest::newRow("shutdown, forced") << quint32(0x16) << 0x40000000ULL << false;
        QTest::newRow("query") << quint32(0x11) << 0x80000000ULL << false;
        QTest::newRow("timer") << quint32(0x113) << 0x80000000ULL << false;
    }

    void swallowsOnlyTheLogOff()
    {
        QFETCH(quint32, message);
        QFETCH(qulonglong, lParam);
        // As Windows lays a message out, the rest of it behind.
        struct
        {
            void *window;
            quint32 message;
            quintptr wParam;
            qintptr lParam;
            quint32 time;
            qint32 x;
            qint32 y;
        } native = {nullptr, message, 1, static_cast<qintptr>(lParam), 0, 0, 0};
        // Messages from the queue, and those that are sent to the event dispatcher's window.
        for (const QByteArray type : {"windows_generic_MSG", "windows_dispatcher_MSG"}) {
            qintptr result = 77;
            const bool swallowed =
                QtServiceAppEventFilter::instance()->nativeEventFilter(type, &native, &result);
            QTEST(swallowed, "swallowed");
            QCOMPARE(result, qintptr(swallowed ? 1 : 77));
            // The event dispatcher asks for no answer.
            QCOMPARE(QtServiceAppEventFilter::instance()->nativeEventFilter(type, &native, nullptr),
                     swallowed);
        }
    }

    void passesTheMessagesOfOtherSystems()
    {
        QtServiceAppEventFilter::Message native{nullptr, 0x16, 0, static_cast<qintptr>(0x80000000LL)};
        QVERIFY(!QtServiceAppEventFilter::instance()->nativeEventFilter("xcb_generic_event_t"_ba, &native,
                                                                        nullptr));
    }
};

QTEST_APPLESS_MAIN(TestQtServiceAppEventFilter)
#include "tst_qtserviceappeventfilter.moc"
