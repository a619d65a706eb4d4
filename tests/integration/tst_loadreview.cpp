// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/otherconnection.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/storedradio.h"

#include <QRegularExpression>
#include <QSqlQuery>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 Hour = 3600;

QMR::Esn esnOf(quint8 serial)
{
    return {{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, serial}};
}

QString esnBlob(quint8 serial)
{
    return u"x'%1'"_s.arg(esnOf(serial).text());
}

// Stores Registered radios of these serial numbers, last heard of an hour ago.
void storeRadios(const TestServer &server, const QList<quint8> &serials)
{
    for (const quint8 serial : serials) {
        StoredRadio{
            .id = serial, .esn = esnBlob(serial), .contact = server.clock.seconds() - Hour, .services = {1}}
            .store(server);
    }
}

// Column availability, by id.
QList<int> storedAvailabilities(const TestServer &server)
{
    QList<int> values;
    for (const QVariantList &row : server.query(u"SELECT availability FROM subscribers ORDER BY id"_s)) {
        values.append(row[0].toInt());
    }
    return values;
}

LogRecord writeError()
{
    return RecordingLog::record(Scm::EventError, u"Database write error"_s);
}

} // namespace

// The load of the stored radios at start-up, each one's adjustment, and how it is written.
class TestLoadReview : public QObject
{
    Q_OBJECT

private slots:
    void adjustsByAgeAndAvailability_data()
    {
        QTest::addColumn<qlonglong>("age"); // of the last contact, seconds
        QTest::addColumn<int>("stored");
        QTest::addColumn<int>("reviewed");
        QTest::addColumn<bool>("attemptsKept");
        const auto rows = [](const char *when, qlonglong age, bool stale) {
            const auto row = [&](const char *what, int stored, int reviewed, bool kept) {
                QTest::addRow("%s, %s", when, what) << age << stored << reviewed << kept;
            };
            row("unreachable", 1, 1, !stale);
            row("unconfirmed", 2, stale ? 1 : 2, !stale);
            row("registered", 3, stale ? 1 : 2, false);
            row("of no name", 7, 7, true);
        };
        rows("just now", 0, false);
        rows("in the future", -Hour, false);
        rows("11 hours ago", 11 * Hour, false);
        rows("a second under 12 hours", 43199, false);
        rows("exactly 12 hours", 43200, true);
        rows("13 hours ago", 13 * Hour, true);
    }

    void adjustsByAgeAndAvailability()
    {
        QFETCH(const qlonglong, age);
        QFETCH(const int, stored);
        QFETCH(const int, reviewed);
        QFETCH(const bool, attemptsKept);
        TestServer server;
        server.start();
        const qint64 contact = server.clock.seconds() - age;
        const qint64 discovery = server.clock.seconds() - 100;
        StoredRadio{.availability = stored, .contact = contact, .attempts = 2, .discovery = discovery}.store(
            server);
        server->loadRadioTable();

        const QMR::RadioPointer radio = server->findRadio(esnOf(0xDD));
        QVERIFY(radio);
        QCOMPARE(radio->availability, static_cast<quint32>(reviewed));
        QCOMPARE(radio->discoveryAttempts, quint16(attemptsKept ? 2 : 0));
        QCOMPARE(radio->lastContactTime.toSecsSinceEpoch(), contact);
        QCOMPARE(server.query(u"SELECT availability, num_discovery_attempts, last_contact_time, "
                              "last_discovery_attempt FROM subscribers"_s),
                 (QList<QVariantList>{{reviewed, attemptsKept ? 2 : 0, contact, discovery}}));
        QCOMPARE(server->dueForDiscovery().size(), size_t{1});
        QCOMPARE(*server->dueForDiscovery().begin(), radio);
        const qint64 wait = reviewed == 2 ? 200 : 1700;
        QCOMPARE(QMR::Quillmere::nextDiscoveryTime(*radio), server.clock.now().addSecs(wait));
        QVERIFY(server->timerForDiscovery().isActive());
        QCOMPARE(server->timerForDiscovery().interval(), wait * 1000);
        QVERIFY(server->awaitingConfirmation().empty());
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void partOfASecondUnderTwelveHoursIsUnder()
    {
        TestServer server;
        server.start();
        StoredRadio{.contact = server.clock.seconds() - 43199}.store(server);
        server.clock.set(server.clock.now().addMSecs(999));
        server->loadRadioTable();
        QCOMPARE(server->findRadio(esnOf(0xDD))->availability, quint32{QMR::Unconfirmed});
    }

    void writesEachRowEvenIfNothingChanged()
    {
        TestServer server;
        server.start();
        StoredRadio{.suid = u"x''"_s, .availability = 2, .contact = server.clock.seconds()}.store(server);
        server->loadRadioTable();
        QCOMPARE(server.query(u"SELECT hex(suid) FROM subscribers"_s),
                 (QList<QVariantList>{{u"00000000000000"_s}}));
    }

    void deregisteredRowsAreDeleted()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1, 2, 3});
        server.query(u"UPDATE subscribers SET availability = 0 WHERE id = 2"_s);
        server->loadRadioTable();
        QCOMPARE(server->radios().size(), size_t{2});
        QVERIFY(!server->findRadio(esnOf(2)));
        QCOMPARE(server->dueForDiscovery().size(), size_t{2});
        QCOMPARE(storedAvailabilities(server), (QList<int>{2, 2}));
        QCOMPARE(server.query(u"SELECT subscriber_id FROM supported_services ORDER BY 1"_s),
                 (QList<QVariantList>{{1LL}, {3LL}}));
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void queueIsOrderedByDueTimeThenEsn()
    {
        TestServer server;
        server.start();
        const qint64 now = server.clock.seconds();
        // Due after: unreachable 1800 s, others 300 s.
        StoredRadio{.id = 1, .esn = esnBlob(0xF0), .availability = 3, .contact = now, .discovery = now - 50}
            .store(server);
        StoredRadio{.id = 2, .esn = esnBlob(0x0F), .availability = 1, .contact = now, .discovery = now - 1550}
            .store(server);
        StoredRadio{.id = 3, .esn = esnBlob(0x7F), .availability = 2, .contact = now, .discovery = now - 50}
            .store(server);
        StoredRadio{.id = 4, .esn = esnBlob(0x01), .availability = 1, .contact = now, .discovery = now}.store(
            server);
        StoredRadio{.id = 5, .esn = esnBlob(0xFF), .availability = 2, .contact = now, .discovery = 0}.store(
            server);
        server->loadRadioTable();
        QList<QMR::Esn> order;
        for (const QMR::RadioPointer &radio : server->dueForDiscovery()) {
            order.append(radio->esn);
        }
        QCOMPARE(order, (QList<QMR::Esn>{esnOf(0xFF), esnOf(0x0F), esnOf(0x7F), esnOf(0xF0), esnOf(0x01)}));
        // The first is long overdue.
        QCOMPARE(server->timerForDiscovery().interval(), 0);
    }

    void restartReviewsWhatTheRunBeforeLeft()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1});
        server.restart();
        QCOMPARE(server->findRadio(esnOf(1))->availability, quint32{QMR::Unconfirmed});
        server.clock.advance(12 * Hour);
        server.restart();
        QCOMPARE(server->findRadio(esnOf(1))->availability, quint32{QMR::Unreachable});
        QCOMPARE(storedAvailabilities(server), QList<int>{1});
        QCOMPARE(server->findRadio(esnOf(1))->supportedServices, QMR::ServiceList{1});
    }

    void isOneTransaction()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1, 2, 3, 4, 5});
        server.query(u"UPDATE subscribers SET availability = 0 WHERE id = 4"_s);
        const CommitHook hook;
        server->loadRadioTable();
        QCOMPARE(hook.commits(), 1);
        QCOMPARE(storedAvailabilities(server), (QList<int>{2, 2, 2, 2}));
        // The batch is over: a later write stands by itself.
        server->updateSubscriber(*server->findRadio(esnOf(1)));
        QCOMPARE(hook.commits(), 2);
    }

    void isMoreThanOneTransactionForALargeFleet()
    {
        TestServer server;
        server.start();
        server.query(u"INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time) "
                     "WITH RECURSIVE number(n) AS (SELECT 0 UNION ALL SELECT n + 1 FROM number LIMIT 20000) "
                     "SELECT CAST(printf('%08d', n) AS BLOB), x'00', n, 3, %1 FROM number"_s.arg(
                         server.clock.seconds()));
        const CommitHook hook;
        server->loadRadioTable();
        QCOMPARE(hook.commits(), 2);
        QCOMPARE(server->radios().size(), size_t{20000});
        QCOMPARE(server.query(u"SELECT count(*) FROM subscribers WHERE availability = 2"_s),
                 (QList<QVariantList>{{20000LL}}));
    }

    void failingRadioIsRolledBackAlone_data()
    {
        QTest::addColumn<QString>("obstacle");
        QTest::addColumn<int>("stored");
        QTest::addColumn<QString>("message");
        const QString raise = u" BEGIN SELECT RAISE(%1, 'no'); END"_s;
        QTest::newRow("row refused") << u"UPDATE ON subscribers WHEN NEW.id = 2"_s % raise.arg(u"ABORT"_s)
                                     << 3 << u"Database write error"_s;
        QTest::newRow("service refused")
            << u"INSERT ON supported_services WHEN NEW.subscriber_id = 2"_s % raise.arg(u"ABORT"_s) << 3
            << u"Database write error"_s;
        QTest::newRow("statement left half done")
            << u"INSERT ON supported_services WHEN NEW.subscriber_id = 2"_s % raise.arg(u"FAIL"_s) << 3
            << u"Database write error"_s;
        QTest::newRow("delete refused") << u"DELETE ON subscribers WHEN OLD.id = 2"_s % raise.arg(u"ABORT"_s)
                                        << 0 << u"Database delete error"_s;
        // As SQLite does by itself when the disk is full, say.
        QTest::newRow("whole transaction gone, at a row")
            << u"UPDATE ON subscribers WHEN NEW.id = 2"_s % raise.arg(u"ROLLBACK"_s) << 3
            << u"Database write error"_s;
        QTest::newRow("whole transaction gone, at a delete")
            << u"DELETE ON subscribers WHEN OLD.id = 2"_s % raise.arg(u"ROLLBACK"_s) << 0
            << u"Database delete error"_s;
    }

    void failingRadioIsRolledBackAlone()
    {
        QFETCH(const QString, obstacle);
        QFETCH(const int, stored);
        QFETCH(const QString, message);
        TestServer server;
        server.start();
        storeRadios(server, {1, 2, 3});
        server.query(u"UPDATE subscribers SET availability = %1 WHERE id = 2"_s.arg(stored));
        server.query(u"CREATE TRIGGER stop BEFORE "_s % obstacle);
        server->loadRadioTable();

        QCOMPARE(server.log.take(), QList{RecordingLog::record(Scm::EventError, message)});
        QCOMPARE(storedAvailabilities(server), (QList<int>{2, stored, 2}));
        QCOMPARE(server.query(u"SELECT subscriber_id, service FROM supported_services ORDER BY 1"_s),
                 (QList<QVariantList>{{1LL, 1LL}, {2LL, 1LL}, {3LL, 1LL}}));
        // The table goes on as reviewed.
        QCOMPARE(server->radios().size(), size_t(stored == 0 ? 2 : 3));
        QCOMPARE(server->dueForDiscovery().size(), server->radios().size());
        if (stored != 0) {
            QCOMPARE(server->findRadio(esnOf(2))->availability, quint32{QMR::Unconfirmed});
        }
        // Nothing is left open.
        server.query(u"UPDATE config SET database_version = 3"_s);
    }

    void refusedCommitIsDoneOneByOne()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1, 2, 3, 4});
        server.query(u"UPDATE subscribers SET availability = 0 WHERE id = 3"_s);
        const CommitHook hook(1);
        server->loadRadioTable();
        QCOMPARE(hook.commits(), 5);
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(storedAvailabilities(server), (QList<int>{2, 2, 2}));
        QCOMPARE(server->radios().size(), size_t{3});
        QCOMPARE(server->dueForDiscovery().size(), size_t{3});
    }

    void eachFailureIsReportedOnceThoughTheCommitIsRefused()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1, 2, 3});
        server.query(u"CREATE TRIGGER stop BEFORE UPDATE ON subscribers WHEN NEW.id = 2 "
                     "BEGIN SELECT RAISE(ABORT, 'no'); END"_s);
        const CommitHook hook(2); // the batch, and the first radio alone
        server->loadRadioTable();
        QCOMPARE(server.log.take(), (QList{writeError(), writeError()}));
        QCOMPARE(storedAvailabilities(server), (QList<int>{3, 3, 2}));
        QCOMPARE(server->radios().size(), size_t{3});
    }

    void lockedDatabaseFailsEachRadioWithItsRecord()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1, 2, 3});
        server.query(u"UPDATE subscribers SET availability = 0 WHERE id = 2"_s);
        setBusyTimeout(0);
        {
            const OtherConnection other(server);
            QVERIFY(other.run(u"BEGIN IMMEDIATE"_s));
            server->loadRadioTable();
        }
        QCOMPARE(server.log.take(),
                 (QList{writeError(), RecordingLog::record(Scm::EventError, u"Database delete error"_s),
                        writeError()}));
        QCOMPARE(storedAvailabilities(server), (QList<int>{3, 0, 3}));
        // The radios are there all the same, and the next write repairs a row.
        QCOMPARE(server->radios().size(), size_t{2});
        QCOMPARE(server->dueForDiscovery().size(), size_t{2});
        server->updateSubscriber(*server->findRadio(esnOf(1)));
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(storedAvailabilities(server), (QList<int>{2, 0, 3}));
    }

    void readerThatKeepsTheCommitOutFailsEachRadioWithItsRecord()
    {
        TestServer server;
        server.start();
        storeRadios(server, {1, 2});
        setBusyTimeout(0);
        {
            const OtherConnection reader(server);
            QVERIFY(reader.run(u"BEGIN"_s));
            QVERIFY(reader.run(u"SELECT count(*) FROM subscribers"_s));
            server->loadRadioTable();
            QCOMPARE(server.log.take(), (QList{writeError(), writeError()}));
            QVERIFY(reader.run(u"COMMIT"_s));
        }
        QCOMPARE(storedAvailabilities(server), (QList<int>{3, 3}));
        QCOMPARE(server->radios().size(), size_t{2});
        server->updateSubscriber(*server->findRadio(esnOf(1)));
        QCOMPARE(storedAvailabilities(server), (QList<int>{2, 3}));
    }

    // A statement that outlives its connection is told by Qt in a warning.
    void statementsAreReleasedBeforeTheDatabaseIsClosed()
    {
        QTest::failOnWarning(QRegularExpression(u".*"_s));
        TestServer server;
        storeAll(server);
        server.stop();
        storeAll(server);
        server.restart();
        server.stop();
    }

private:
    // Starts the server and has it use each statement, a failing one too.
    static void storeAll(TestServer &server)
    {
        server.start();
        QMR::RadioEntry radio;
        radio.esn = esnOf(9);
        radio.supportedServices = {1};
        server->insertSubscriber(radio);
        server->updateSubscriber(radio);
        server->deleteSubscriber(radio);
        server->updateSubscriber(radio);
        QCOMPARE(server.log.take(), QList{writeError()});
    }
};

QTEST_GUILESS_MAIN(TestLoadReview)
#include "tst_loadreview.moc"
