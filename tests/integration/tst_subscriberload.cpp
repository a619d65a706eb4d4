// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/databaselock.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/storedradio.h"

#include <QTest>

#include <limits>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using QMR::RadioEntry;

namespace {

QList<RadioEntry> load(const TestServer &server)
{
    std::list<QMR::RadioPointer> radios;
    server->loadSubscribers(radios);
    QList<RadioEntry> entries;
    for (const QMR::RadioPointer &radio : radios) {
        entries.append(*radio);
    }
    return entries;
}

// The only radio that is loaded; nothing that could be mistaken for it if there are more or none.
RadioEntry loadOne(const TestServer &server)
{
    const QList<RadioEntry> entries = load(server);
    return entries.size() == 1 ? entries.first() : RadioEntry();
}

QDateTime at(qint64 seconds)
{
    return QDateTime::fromSecsSinceEpoch(seconds, Qt::UTC);
}

const QString OtherEsn = u"x'0011AABB22CC33DE'"_s;

} // namespace

// What stored rows become in memory, the odd ones too.
class TestSubscriberLoad : public QObject
{
    Q_OBJECT

private slots:
    void emptyTableGivesAnEmptyListWhateverItHeld()
    {
        TestServer server;
        server.start();
        std::list<QMR::RadioPointer> radios{std::make_shared<RadioEntry>()};
        server->loadSubscribers(radios);
        QVERIFY(radios.empty());
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void failingQueryIsSilentAndGivesAnEmptyList()
    {
        TestServer server;
        server.start();
        StoredRadio().store(server);
        server.query(u"DROP TABLE supported_services"_s);
        std::list<QMR::RadioPointer> radios{std::make_shared<RadioEntry>()};
        server->loadSubscribers(radios);
        QVERIFY(radios.empty());
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void lockIsWaitedFor()
    {
        TestServer server;
        server.start();
        StoredRadio{.services = {1, 2}}.store(server);
        setBusyTimeout(0);
        DatabaseLock lock(server.folder.databaseFile(), DatabaseLock::Exclusive);
        std::list<QMR::RadioPointer> radios;
        {
            const StatementTrace trace([&lock](const QString &) { lock.releaseAfter(100ms); });
            server->loadSubscribers(radios);
        }
        lock.release();
        QCOMPARE(radios.size(), size_t{1});
        QCOMPARE(radios.front()->supportedServices, (QMR::ServiceList{1, 2}));
        QCOMPARE(server.log.take(), QList<LogRecord>());
    }

    void isOneStatementWithoutATransaction()
    {
        TestServer server;
        server.start();
        StoredRadio{.services = {1, 2}}.store(server);
        StatementTrace trace;
        QCOMPARE(load(server).size(), 1);
        QCOMPARE(trace.take(),
                 QStringList{u"SELECT subscribers.esn, subscribers.suid, subscribers.ip_address,"
                             "        subscribers.availability, subscribers.last_contact_time,"
                             "        subscribers.num_discovery_attempts, subscribers.last_discovery_attempt,"
                             "        subscribers.protocol_version, supported_services.service "
                             "FROM subscribers LEFT OUTER JOIN supported_services"
                             "                  ON subscribers.id = supported_services.subscriber_id "_s});
    }

    void eachColumnFillsItsField()
    {
        TestServer server;
        server.start();
        StoredRadio{.address = 3355509251,
                    .availability = 1,
                    .contact = 1000,
                    .attempts = 2,
                    .discovery = 900,
                    .protocolVersion = 2,
                    .services = {3}}
            .store(server);
        const RadioEntry radio = loadOne(server);
        QCOMPARE(radio.esn.text(), u"0011AABB22CC33DD"_s);
        QCOMPARE(radio.suid.text(), u"{WACN: 0x12345, System: 0x678, Unit: 0x9ABCDE}"_s);
        QCOMPARE(radio.address, QHostAddress(u"200.1.2.3"_s));
        QCOMPARE(radio.availability, quint32{QMR::Unreachable});
        QCOMPARE(radio.lastContactTime, at(1000));
        QCOMPARE(radio.discoveryAttempts, quint16{2});
        QCOMPARE(radio.lastDiscoveryAttempt, at(900));
        QCOMPARE(radio.protocolVersion, 2U);
        QCOMPARE(radio.supportedServices, QMR::ServiceList{3});
        QCOMPARE(radio.pendingSuid, QMR::Suid());
        QVERIFY(radio.pendingAddress.isNull());
        QVERIFY(radio.pendingServices.empty());
        QVERIFY(!radio.pendingDeadline.isValid());
    }

    void servicesComeInRowOrder_data()
    {
        QTest::addColumn<QList<int>>("services");
        QTest::newRow("none") << QList<int>();
        QTest::newRow("one") << QList<int>{1};
        QTest::newRow("three") << QList<int>{3, 1, 2};
        QTest::newRow("the same twice") << QList<int>{3, 1, 3};
        QTest::newRow("beyond a byte") << QList<int>{70000, std::numeric_limits<int>::max()};
        QTest::newRow("negative") << QList<int>{-1};
        QTest::newRow("zero") << QList<int>{0};
    }

    void servicesComeInRowOrder()
    {
        QFETCH(const QList<int>, services);
        TestServer server;
        server.start();
        StoredRadio{.services = services}.store(server);
        StoredRadio{.id = 2, .esn = OtherEsn, .services = {7}}.store(server);
        const QList<RadioEntry> radios = load(server);
        QCOMPARE(radios.size(), 2);
        QMR::ServiceList expected;
        for (const int service : services) {
            expected.push_back(static_cast<quint32>(service));
        }
        QCOMPARE(radios[0].supportedServices, expected);
        QCOMPARE(radios[1].supportedServices, QMR::ServiceList{7});
    }

    void esnOfAnotherLengthIsAllZero_data()
    {
        QTest::addColumn<QString>("esn");
        QTest::newRow("empty") << u"x''"_s;
        QTest::newRow("seven bytes") << u"x'0011AABB22CC33'"_s;
        QTest::newRow("nine bytes") << u"x'0011AABB22CC33DDEE'"_s;
        QTest::newRow("number") << u"7"_s;
    }

    void esnOfAnotherLengthIsAllZero()
    {
        QFETCH(const QString, esn);
        TestServer server;
        server.start();
        StoredRadio{.esn = OtherEsn}.store(server);
        StoredRadio{.id = 2, .esn = esn, .services = {4}}.store(server);
        const QList<RadioEntry> radios = load(server);
        QCOMPARE(radios.size(), 2);
        QVERIFY(radios[1].esn.isZero());
        QCOMPARE(radios[1].supportedServices, QMR::ServiceList{4});
    }

    void adjacentRowsWithoutAProperEsnBecomeOneRadio()
    {
        TestServer server;
        server.start();
        StoredRadio{.esn = u"x'01'"_s, .address = 1, .services = {1}}.store(server);
        StoredRadio{.id = 2, .esn = u"x'02'"_s, .address = 2, .services = {2, 3}}.store(server);
        const RadioEntry radio = loadOne(server);
        QVERIFY(radio.esn.isZero());
        QCOMPARE(radio.address.toIPv4Address(), 1U);
        QCOMPARE(radio.supportedServices, (QMR::ServiceList{1, 2, 3}));
    }

    void rowsWithoutAProperEsnThatAreApartStayApart()
    {
        TestServer server;
        server.start();
        StoredRadio{.esn = u"x'01'"_s, .services = {1}}.store(server);
        StoredRadio{.id = 2, .services = {5}}.store(server);
        StoredRadio{.id = 3, .esn = u"x'02'"_s, .services = {2}}.store(server);
        const QList<RadioEntry> radios = load(server);
        QCOMPARE(radios.size(), 3);
        QVERIFY(radios[0].esn.isZero() && radios[2].esn.isZero());
        QCOMPARE(radios[2].supportedServices, QMR::ServiceList{2});

        // The table has room for the first of them alone; its row is not found again by its ESN.
        server->loadRadioTable();
        QCOMPARE(server->radios().size(), size_t{2});
        QCOMPARE(server->findRadio({})->supportedServices, QMR::ServiceList{1});
        QCOMPARE(server.log.take(),
                 QList<LogRecord>(2, RecordingLog::record(Scm::EventError, u"Database write error"_s)));
    }

    void suidOfAnotherLengthIsTheOneOfTheRowBefore_data()
    {
        QTest::addColumn<QString>("suid");
        QTest::newRow("empty text, as after an upgrade") << u"''"_s;
        QTest::newRow("empty blob") << u"x''"_s;
        QTest::newRow("six bytes") << u"x'112233445566'"_s;
        QTest::newRow("eight bytes") << u"x'1122334455667788'"_s;
        QTest::newRow("minus one") << u"-1"_s;
    }

    void suidOfAnotherLengthIsTheOneOfTheRowBefore()
    {
        QFETCH(const QString, suid);
        TestServer server;
        server.start();
        StoredRadio{.suid = suid}.store(server);
        StoredRadio{.id = 2, .esn = OtherEsn, .suid = u"x'11223344556677'"_s}.store(server);
        StoredRadio{.id = 3, .esn = u"x'0011AABB22CC33DF'"_s, .suid = suid}.store(server);
        StoredRadio{.id = 4, .esn = u"x'0011AABB22CC33E0'"_s, .suid = suid}.store(server);
        const QList<RadioEntry> radios = load(server);
        QCOMPARE(radios.size(), 4);
        const QMR::Suid known{{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77}};
        QCOMPARE(radios[0].suid, QMR::Suid());
        QCOMPARE(radios[1].suid, known);
        QCOMPARE(radios[2].suid, known);
        QCOMPARE(radios[3].suid, known);
    }

    void firstSuidOfAnotherLengthIsAllZeroAtEachLoad()
    {
        TestServer server;
        server.start();
        StoredRadio{}.store(server);
        QCOMPARE(loadOne(server).suid.wacn(), 0x12345U);
        server.query(u"UPDATE subscribers SET suid = x''"_s);
        QCOMPARE(loadOne(server).suid, QMR::Suid());
    }

    void timesAreUnsignedSeconds_data()
    {
        QTest::addColumn<qlonglong>("stored");
        QTest::addColumn<qlonglong>("loaded");
        QTest::newRow("epoch") << 0LL << 0LL;
        QTest::newRow("last signed second") << 2147483647LL << 2147483647LL;
        QTest::newRow("beyond 2^31") << 2147483648LL << 2147483648LL;
        QTest::newRow("last second") << 4294967295LL << 4294967295LL;
        QTest::newRow("2^32 is cut") << 4294967296LL << 0LL;
        QTest::newRow("beyond 2^32 is cut") << 4294967301LL << 5LL;
        QTest::newRow("minus one") << -1LL << 4294967295LL;
        QTest::newRow("lowest") << -2147483648LL << 2147483648LL;
    }

    void timesAreUnsignedSeconds()
    {
        QFETCH(const qlonglong, stored);
        QFETCH(const qlonglong, loaded);
        TestServer server;
        server.start();
        StoredRadio{.contact = stored, .discovery = stored}.store(server);
        const RadioEntry radio = loadOne(server);
        QCOMPARE(radio.lastContactTime, at(loaded));
        QCOMPARE(radio.lastDiscoveryAttempt, at(loaded));
    }

    void addressesKeepTheirBits_data()
    {
        QTest::addColumn<qlonglong>("stored");
        QTest::addColumn<QString>("address");
        QTest::newRow("unsigned") << 3355509251LL << u"200.1.2.3"_s;
        QTest::newRow("signed, the same bits") << -939458045LL << u"200.1.2.3"_s;
        QTest::newRow("low") << 167772161LL << u"10.0.0.1"_s;
        QTest::newRow("highest") << 4294967295LL << u"255.255.255.255"_s;
        QTest::newRow("none") << 0LL << u"0.0.0.0"_s;
    }

    void addressesKeepTheirBits()
    {
        QFETCH(const qlonglong, stored);
        QFETCH(const QString, address);
        TestServer server;
        server.start();
        StoredRadio{.address = stored}.store(server);
        QCOMPARE(loadOne(server).address, QHostAddress(address));
    }

    void attemptsAreCutToSixteenBits()
    {
        TestServer server;
        server.start();
        StoredRadio{.attempts = 65536 + 7}.store(server);
        QCOMPARE(loadOne(server).discoveryAttempts, quint16{7});
    }

    void anyAvailabilityIsTaken_data()
    {
        QTest::addColumn<qlonglong>("stored");
        QTest::newRow("deregistered") << 0LL;
        QTest::newRow("odd") << 7LL;
        QTest::newRow("a byte's end") << 256LL;
    }

    void anyAvailabilityIsTaken()
    {
        QFETCH(const qlonglong, stored);
        TestServer server;
        server.start();
        StoredRadio{.availability = stored}.store(server);
        QCOMPARE(loadOne(server).availability, static_cast<quint32>(stored));
        QCOMPARE(loadOne(server).esn.text(), u"0011AABB22CC33DD"_s);
    }

    void whatIsWrittenIsWhatIsLoaded()
    {
        TestServer server;
        server.start();
        RadioEntry radio;
        radio.esn = {{0xFF, 0, 0x27, 0, 0x22, 0x0A, 0, 0xFF}};
        radio.suid = {{0, 0xFF, 0, 0x27, 0, 0x80, 0}};
        radio.address = QHostAddress(u"255.0.0.1"_s);
        radio.availability = QMR::Unconfirmed;
        radio.discoveryAttempts = 65535;
        radio.lastContactTime = at(4'294'967'295);
        radio.lastDiscoveryAttempt = at(2'147'483'648);
        radio.protocolVersion = 1;
        radio.supportedServices = {0xFFFFFFFF, 2, 2};
        server->insertSubscriber(radio);
        const RadioEntry loaded = loadOne(server);
        QCOMPARE(loaded.esn, radio.esn);
        QCOMPARE(loaded.suid, radio.suid);
        QCOMPARE(loaded.address, radio.address);
        QCOMPARE(loaded.availability, radio.availability);
        QCOMPARE(loaded.discoveryAttempts, radio.discoveryAttempts);
        QCOMPARE(loaded.lastContactTime, radio.lastContactTime);
        QCOMPARE(loaded.lastDiscoveryAttempt, radio.lastDiscoveryAttempt);
        QCOMPARE(loaded.protocolVersion, radio.protocolVersion);
        QCOMPARE(loaded.supportedServices, radio.supportedServices);
    }
};

QTEST_GUILESS_MAIN(TestSubscriberLoad)
#include "tst_subscriberload.moc"
