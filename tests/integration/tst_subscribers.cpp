// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/serverdatabase.h"
#include "tests/support/storedradio.h"
#include "tests/support/testserver.h"

#include <QSqlQuery>
#include <QTest>

using namespace Qt::StringLiterals;
using QMR::RadioEntry;

namespace {

constexpr quint16 Port = 9; // nobody hears the acknowledgements

RadioEntry knownRadio(const TestServer &server)
{
    RadioEntry radio;
    radio.esn = {{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD}};
    radio.suid = {{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};
    radio.address = QHostAddress(u"127.0.0.5"_s);
    radio.availability = QMR::Unconfirmed;
    radio.discoveryAttempts = 2;
    radio.lastContactTime = server.clock.now();
    radio.lastDiscoveryAttempt = server.clock.now().addSecs(-60);
    radio.protocolVersion = 3;
    radio.supportedServices = {1, 3};
    return radio;
}

QList<LogRecord> failure(const QString &message)
{
    return {RecordingLog::record(Scm::EventError, message)};
}

using Rows = QList<QVariantList>;

Rows subscriberRows(const TestServer &server)
{
    return server.query(
        u"SELECT id, hex(esn), hex(suid), ip_address, availability, last_contact_time, "
        "num_discovery_attempts, last_discovery_attempt, protocol_version FROM subscribers"_s);
}

Rows serviceRows(const TestServer &server)
{
    return server.query(u"SELECT subscriber_id, service FROM supported_services ORDER BY rowid"_s);
}

QString raiseOn(const QString &event)
{
    return u"CREATE TRIGGER stop BEFORE "_s % event % u" BEGIN SELECT RAISE(ABORT, 'no'); END"_s;
}

} // namespace

// The writes that keep a radio's rows in step with its record, and each way in which they fail.
class TestSubscribers : public QObject
{
    Q_OBJECT

private slots:
    void insertStoresEachValueInItsForm()
    {
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        radio.address = QHostAddress(u"200.1.2.3"_s);
        radio.lastContactTime = QDateTime::fromMSecsSinceEpoch(1'800'000'000'999, Qt::UTC);
        radio.lastDiscoveryAttempt = QDateTime::fromSecsSinceEpoch(4'294'967'295, Qt::UTC);
        radio.discoveryAttempts = 65535;
        server->insertSubscriber(radio);
        QCOMPARE(subscriberRows(server), (Rows{{1LL, u"0011AABB22CC33DD"_s, u"123456789ABCDE"_s, 3355509251LL,
                                                2LL, 1800000000LL, 65535LL, 4294967295LL, 3LL}}));
        QCOMPARE(server.query(u"SELECT typeof(esn), typeof(suid), typeof(ip_address), typeof(availability), "
                              "typeof(last_contact_time), typeof(last_discovery_attempt) FROM subscribers"_s),
                 (Rows{{u"blob"_s, u"blob"_s, u"integer"_s, u"integer"_s, u"integer"_s, u"integer"_s}}));
        QCOMPARE(serviceRows(server), (Rows{{1LL, 1LL}, {1LL, 3LL}}));
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void addressesAreStoredUnsigned_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<qlonglong>("stored");
        QTest::newRow("low") << u"10.0.0.1"_s << 167772161LL;
        QTest::newRow("middle") << u"192.168.0.1"_s << 3232235521LL;
        QTest::newRow("highest") << u"255.255.255.255"_s << 4294967295LL;
        QTest::newRow("none") << QString() << 0LL;
        QTest::newRow("without an IPv4 form") << u"2001:db8::1"_s << 0LL;
    }

    void addressesAreStoredUnsigned()
    {
        QFETCH(const QString, address);
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        radio.address = QHostAddress(address);
        server->insertSubscriber(radio);
        QTEST(server.query(u"SELECT ip_address FROM subscribers"_s).value(0).value(0).toLongLong(), "stored");
        radio.address = QHostAddress(u"127.0.0.1"_s);
        server->updateSubscriber(radio);
        radio.address = QHostAddress(address);
        server->updateSubscriber(radio);
        QTEST(server.query(u"SELECT ip_address FROM subscribers"_s).value(0).value(0).toLongLong(), "stored");
    }

    void servicesKeepTheirOrderAndDuplicates()
    {
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        radio.supportedServices = {3, 1, 3, 3, 2};
        server->insertSubscriber(radio);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 3LL}, {1LL, 1LL}, {1LL, 3LL}, {1LL, 3LL}, {1LL, 2LL}}));
        radio.supportedServices = {2, 1, 1};
        server->updateSubscriber(radio);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 2LL}, {1LL, 1LL}, {1LL, 1LL}}));
        radio.supportedServices = {};
        server->updateSubscriber(radio);
        QCOMPARE(serviceRows(server), Rows());
    }

    void pendingRegistrationIsNeverStored()
    {
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        radio.pendingSuid = {{0xFF}};
        radio.pendingAddress = QHostAddress(u"127.0.0.9"_s);
        radio.pendingServices = {7};
        radio.pendingDeadline = server.clock.now();
        server->insertSubscriber(radio);
        const Rows rows = subscriberRows(server);
        QCOMPARE(rows.value(0).value(2), u"123456789ABCDE"_s);
        QCOMPARE(rows.value(0).value(3), 2130706437LL);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 1LL}, {1LL, 3LL}}));
        server->updateSubscriber(radio);
        QCOMPARE(subscriberRows(server), rows);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 1LL}, {1LL, 3LL}}));
    }

    void updateWritesAllButTheEsn()
    {
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        server->insertSubscriber(radio);
        StoredRadio{.id = 2, .esn = u"x'0011AABB22CC33DE'"_s, .services = {5}}.store(server);
        const Rows other = subscriberRows(server).mid(1);
        radio.suid = {};
        radio.address = QHostAddress(u"200.1.2.3"_s);
        radio.availability = QMR::Unreachable;
        radio.discoveryAttempts = 0;
        radio.lastContactTime = QDateTime::fromSecsSinceEpoch(3'000'000'000, Qt::UTC);
        radio.lastDiscoveryAttempt = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
        radio.protocolVersion = 2;
        radio.supportedServices = {2};
        server->updateSubscriber(radio);
        QCOMPARE(subscriberRows(server), (Rows{{1LL, u"0011AABB22CC33DD"_s, u"00000000000000"_s, 3355509251LL,
                                                1LL, 3000000000LL, 0LL, 0LL, 2LL}}) +
                                             other);
        QCOMPARE(server.query(u"SELECT typeof(suid) FROM subscribers"_s), (Rows{{u"blob"_s}, {u"blob"_s}}));
        QCOMPARE(serviceRows(server), (Rows{{2LL, 5LL}, {1LL, 2LL}}));
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void deleteTakesTheServicesAlong()
    {
        TestServer server;
        server.start();
        const RadioEntry radio = knownRadio(server);
        server->insertSubscriber(radio);
        StoredRadio{.id = 2, .esn = u"x'0011AABB22CC33DE'"_s, .services = {5}}.store(server);
        server->deleteSubscriber(radio);
        QCOMPARE(server.query(u"SELECT id FROM subscribers"_s), (Rows{{2LL}}));
        QCOMPARE(serviceRows(server), (Rows{{2LL, 5LL}}));
        server->deleteSubscriber(radio); // no row is no failure
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void failedInsertChangesNothing_data()
    {
        QTest::addColumn<QStringList>("obstacles");
        QTest::addColumn<bool>("selectDenied");
        QTest::addColumn<int>("refusedCommits");
        QTest::addColumn<QString>("message");
        const auto row = [](const char *name, const QStringList &obstacles, int step, bool denied = false,
                            int refused = 0) {
            QTest::newRow(name) << obstacles << denied << refused
                                << u"Database insert error (%1)"_s.arg(step);
        };
        row("the ESN is stored already",
            {u"INSERT INTO subscribers VALUES (5, x'0011AABB22CC33DD', x'00', 1, 1, 1, 1, 1, 1)"_s}, 1);
        row("the row is refused", {raiseOn(u"INSERT ON subscribers"_s)}, 1);
        row("no table of subscribers", {u"ALTER TABLE subscribers RENAME TO gone"_s}, 1);
        row("the new row is gone at once",
            {u"CREATE TRIGGER stop AFTER INSERT ON subscribers BEGIN DELETE FROM subscribers WHERE id = "
             u"NEW.id; "
             "INSERT INTO config VALUES (99); END"_s},
            2);
        row("the new row cannot be read", {}, 2, true);
        row("the first service is refused", {raiseOn(u"INSERT ON supported_services WHEN NEW.service = 1"_s)},
            3);
        row("the last service is refused", {raiseOn(u"INSERT ON supported_services WHEN NEW.service = 3"_s)},
            3);
        row("no table of services", {u"DROP TABLE supported_services"_s}, 3);
        row("the commit is refused", {}, 3, false, 1);
    }

    void failedInsertChangesNothing()
    {
        QFETCH(const QStringList, obstacles);
        QFETCH(const bool, selectDenied);
        QFETCH(const int, refusedCommits);
        QFETCH(const QString, message);
        TestServer server;
        server.start();
        for (const QString &obstacle : obstacles) {
            server.query(obstacle);
        }
        const QByteArray before = dump(server);
        {
            const CommitHook hook(refusedCommits);
            const auto denial = selectDenied ? std::make_unique<SelectDenial>() : nullptr;
            server->insertSubscriber(knownRadio(server));
        }
        QCOMPARE(server.log.take(), failure(message));
        QCOMPARE(dump(server), before);
        // The transaction is over: others may write.
        server.query(u"UPDATE config SET database_version = 3"_s);
    }

    void insertGoesOnOnceTheObstacleIsGone()
    {
        TestServer server;
        server.start();
        const RadioEntry radio = knownRadio(server);
        server.query(u"ALTER TABLE subscribers RENAME TO gone"_s);
        server->insertSubscriber(radio);
        QCOMPARE(server.log.take(), failure(u"Database insert error (1)"_s));
        server.query(u"ALTER TABLE gone RENAME TO subscribers"_s);
        server.query(raiseOn(u"INSERT ON supported_services WHEN NEW.service = 3"_s));
        server->insertSubscriber(radio);
        QCOMPARE(server.log.take(), failure(u"Database insert error (3)"_s));
        server.query(u"DROP TRIGGER stop"_s);
        server->insertSubscriber(radio);
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(subscriberRows(server).size(), 1);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 1LL}, {1LL, 3LL}}));
    }

    void failedUpdateChangesNothing_data()
    {
        QTest::addColumn<QStringList>("obstacles");
        QTest::addColumn<bool>("selectDenied");
        QTest::addColumn<int>("refusedCommits");
        const auto row = [](const char *name, const QStringList &obstacles, bool denied = false,
                            int refused = 0) { QTest::newRow(name) << obstacles << denied << refused; };
        row("no row", {u"DELETE FROM subscribers"_s});
        row("no table of subscribers", {u"ALTER TABLE subscribers RENAME TO gone"_s});
        row("the row cannot be read", {}, true);
        row("the row is refused", {raiseOn(u"UPDATE ON subscribers"_s)});
        row("the old services stay", {raiseOn(u"DELETE ON supported_services"_s)});
        row("the first service is refused",
            {raiseOn(u"INSERT ON supported_services WHEN NEW.service = 8"_s)});
        row("the last service is refused", {raiseOn(u"INSERT ON supported_services WHEN NEW.service = 9"_s)});
        row("no table of services", {u"DROP TABLE supported_services"_s});
        row("the commit is refused", {}, false, 1);
    }

    void failedUpdateChangesNothing()
    {
        QFETCH(const QStringList, obstacles);
        QFETCH(const bool, selectDenied);
        QFETCH(const int, refusedCommits);
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        server->insertSubscriber(radio);
        for (const QString &obstacle : obstacles) {
            server.query(obstacle);
        }
        const QByteArray before = dump(server);
        radio.suid = {};
        radio.supportedServices = {8, 9};
        {
            const CommitHook hook(refusedCommits);
            const auto denial = selectDenied ? std::make_unique<SelectDenial>() : nullptr;
            server->updateSubscriber(radio);
        }
        QCOMPARE(server.log.take(), failure(u"Database write error"_s));
        QCOMPARE(dump(server), before);
        server.query(u"UPDATE config SET database_version = 3"_s);
    }

    void failedDeleteLeavesRowAndServices_data()
    {
        QTest::addColumn<QString>("obstacle");
        QTest::newRow("the row stays") << raiseOn(u"DELETE ON subscribers"_s);
        QTest::newRow("its services stay") << raiseOn(u"DELETE ON supported_services"_s);
        QTest::newRow("no table") << u"ALTER TABLE subscribers RENAME TO gone"_s;
    }

    void failedDeleteLeavesRowAndServices()
    {
        QFETCH(const QString, obstacle);
        TestServer server;
        server.start();
        const RadioEntry radio = knownRadio(server);
        server->insertSubscriber(radio);
        server.query(obstacle);
        const QByteArray before = dump(server);
        server->deleteSubscriber(radio);
        QCOMPARE(server.log.take(), failure(u"Database delete error"_s));
        QCOMPARE(dump(server), before);
        server.query(u"UPDATE config SET database_version = 3"_s);
    }

    void lockedDatabaseFailsTheWriteAlone()
    {
        TestServer server;
        server.start();
        RadioEntry radio = knownRadio(server);
        server->insertSubscriber(radio);
        setBusyTimeout(0);
        {
            QSqlDatabase holder = QSqlDatabase::addDatabase(u"QSQLITE"_s, u"holder"_s);
            holder.setDatabaseName(server.folder.databaseFile());
            QVERIFY(holder.open());
            QVERIFY(QSqlQuery(holder).exec(u"BEGIN IMMEDIATE"_s));
            radio.supportedServices = {8};
            server->updateSubscriber(radio);
            QCOMPARE(server.log.take(), failure(u"Database write error"_s));
            server->deleteSubscriber(radio);
            QCOMPARE(server.log.take(), failure(u"Database delete error"_s));
            radio.esn.bytes[7] = 0xDE;
            server->insertSubscriber(radio);
            QCOMPARE(server.log.take(), failure(u"Database insert error (1)"_s));
            radio.esn.bytes[7] = 0xDD;
        }
        QSqlDatabase::removeDatabase(u"holder"_s);
        server->updateSubscriber(radio);
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(serviceRows(server), (Rows{{1LL, 8LL}}));
    }

    void tableGoesOnAndTheNextWriteRepairsTheRow()
    {
        TestServer server;
        server.start();
        const QMR::Esn esn = knownRadio(server).esn;
        const QMR::Suid first{{0x11}};
        const QMR::Suid second{{0x22}};
        const QHostAddress address(u"127.0.0.5"_s);
        server->registerRadio(esn, 3, first, address, Port, false, {1});
        server.query(raiseOn(u"UPDATE ON subscribers"_s));
        server.log.take();
        const Rows before = subscriberRows(server);
        server.clock.advance(100);

        server->registerRadio(esn, 3, second, address, Port, false, {3});
        QCOMPARE(server.log.takeMessages(),
                 (QStringList{
                     u"Radio 0011AABB22CC33DD with SUID {WACN: 0x22000, System: 0x0, Unit: 0x0} registered "
                     "with address 127.0.0.5"_s,
                     u"Database write error"_s}));
        QCOMPARE(server->findRadio(esn)->suid, second);
        QCOMPARE(server->findRadio(esn)->supportedServices, (QMR::ServiceList{3}));
        QCOMPARE(subscriberRows(server), before);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 1LL}}));

        server.query(u"DROP TRIGGER stop"_s);
        server->setAvailability(server->findRadio(esn), QMR::Unconfirmed);
        QCOMPARE(server.log.take(), QList<LogRecord>());
        QCOMPARE(subscriberRows(server).value(0).value(2), u"22000000000000"_s);
        QCOMPARE(subscriberRows(server).value(0).value(5), server.clock.seconds());
        QCOMPARE(serviceRows(server), (Rows{{1LL, 3LL}}));
    }

    void radioLeavesTheTableEvenWhenItsRowStays()
    {
        TestServer server;
        server.start();
        const QMR::Esn esn = knownRadio(server).esn;
        const QHostAddress address(u"127.0.0.5"_s);
        server->registerRadio(esn, 3, {{0x11}}, address, Port, false, {1});
        server.query(raiseOn(u"DELETE ON subscribers"_s));
        server.log.take();
        server->deregisterRadio(esn, address);
        QCOMPARE(server.log.takeMessages().last(), u"Database delete error"_s);
        QVERIFY(!server->findRadio(esn));
        QCOMPARE(subscriberRows(server).size(), 1);

        // It comes back while its old row is there: the insert fails, the update that follows repairs the
        // row.
        server.query(u"DROP TRIGGER stop"_s);
        server->registerRadio(esn, 2, {{0x22}}, address, Port, false, {3});
        QCOMPARE(server.log.takeMessages().first(), u"Database insert error (1)"_s);
        QCOMPARE(subscriberRows(server).size(), 1);
        QCOMPARE(subscriberRows(server).value(0).value(2), u"22000000000000"_s);
        QCOMPARE(serviceRows(server), (Rows{{1LL, 3LL}}));
    }

private:
    // All tables' content as text, the schema too.
    static QByteArray dump(const TestServer &server)
    {
        QByteArray text;
        for (const QVariantList &object :
             server.query(u"SELECT name, sql, type FROM sqlite_master ORDER BY name"_s)) {
            text += object[0].toByteArray() + ' ' + object[1].toByteArray() + '\n';
            if (object[2] != u"table"_s) {
                continue;
            }
            for (const QVariantList &row : server.query(u"SELECT * FROM "_s % object[0].toString())) {
                for (const QVariant &value : row) {
                    text += value.toByteArray().toHex() + ' ';
                }
                text += '\n';
            }
        }
        return text;
    }
};

QTEST_GUILESS_MAIN(TestSubscribers)
#include "tst_subscribers.moc"
