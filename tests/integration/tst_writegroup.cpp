// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/connections.h"
#include "tests/support/databaselock.h"
#include "tests/support/eventloop.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QSqlQuery>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

LogRecord error(const QString &message)
{
    return RecordingLog::record(Scm::EventError, message);
}

LogRecord registered(const ScriptedRadio &radio)
{
    return RecordingLog::record(Scm::EventInformation, radio.registeredText());
}

QString addressOf(int radio)
{
    return u"127.0.0.%1"_s.arg(radio + 1);
}

// A group that is kept open is committed by nothing but what the test does.
class NoGroupFallsDue : public QObject
{
public:
    NoGroupFallsDue() { QCoreApplication::instance()->installEventFilter(this); }

    bool eventFilter(QObject *object, QEvent *event) override
    {
        const auto *timer = qobject_cast<QTimer *>(object);
        return event->type() == QEvent::Timer && timer && timer->interval() == 20;
    }
};

// Some radios, an application, and a server that is told of all of them before it looks.
class Burst
{
public:
    explicit Burst(int count)
    {
        server.startWithoutDiscovery();
        for (int i = 1; i <= count; ++i) {
            radios.push_back(std::make_unique<ScriptedRadio>(server.registrationPort(),
                                                             static_cast<quint8>(i), addressOf(i)));
        }
        application = std::make_unique<ScriptedApplication>(server.applicationPort());
        (void)server.log.takeOnce(1);
    }

    void registers(const QByteArray &services = "\1")
    {
        for (const auto &radio : radios) {
            radio->registers(services);
        }
    }

    QList<LogRecord> registrations() const
    {
        QList<LogRecord> records;
        for (const auto &radio : radios) {
            records.append(registered(*radio));
        }
        return records;
    }

    // Each is acknowledged, once, and the application told of each, in order.
    bool allAreServed(const QByteArray &services = "\1")
    {
        return std::all_of(radios.begin(), radios.end(), [&](const auto &radio) {
            return radio->isAcknowledged() && !radio->hasReceived() &&
                   application->sees(*radio, QMR::Registered, services);
        });
    }

    // The serials of those whose rows have this service.
    QList<int> stored(int service = 1) const
    {
        QList<int> serials;
        for (const QVariantList &row :
             server.query(u"SELECT esn FROM subscribers JOIN supported_services ON id = subscriber_id "
                          "WHERE service = %1 AND availability = 3 ORDER BY esn"_s.arg(service))) {
            serials.append(row[0].toByteArray().at(7));
        }
        return serials;
    }

    TestServer server;
    std::vector<std::unique_ptr<ScriptedRadio>> radios;
    std::unique_ptr<ScriptedApplication> application;
};

QString raise(const QString &event, const QString &how, int serial)
{
    return u"CREATE TRIGGER stop BEFORE %1 ON subscribers WHEN hex(NEW.esn) LIKE '%%2' "
           "BEGIN SELECT RAISE(%3, 'no'); END"_s.arg(event, QString::number(serial).rightJustified(2, u'0'),
                                                     how);
}

} // namespace

// Writes that share a commit: what waits for it, and what becomes of it when it is lost.
class TestWriteGroup : public QObject
{
    Q_OBJECT

private slots:
    void newRadioIsInsertedAndUpdatedInOneCommit()
    {
        const NoGroupFallsDue hold; // nothing further is waiting
        Burst burst(1);
        const CommitHook hook;
        burst.registers();
        QVERIFY(burst.allAreServed());
        QCOMPARE(hook.commits(), 1);
        QCOMPARE(burst.stored(), QList<int>{1});
    }

    void waitingDatagramsShareACommit()
    {
        constexpr int Count = 200;
        Burst burst(Count);
        const CommitHook hook;
        burst.registers();
        // A wait that sleeps between two turns of the loop would let a group grow old.
        QVERIFY(runsUntil([&] { return burst.server.log.records().size() == Count; }));
        QVERIFY(burst.allAreServed());
        QCOMPARE(burst.server.log.take(), burst.registrations());
        QCOMPARE(burst.stored().size(), Count);
        // How many there are is a matter of the machine's speed.
        QVERIFY2(hook.commits() < Count / 2, qPrintable(u"%1 commits"_s.arg(hook.commits())));
    }

    void nothingLeavesBeforeTheCommit()
    {
        Burst burst(3);
        bool leftEarly = false;
        QList<qsizetype> recordsAtCommit;
        const CommitObserver observer([&] {
            recordsAtCommit.append(burst.server.log.records().size());
            for (const auto &radio : burst.radios) {
                leftEarly = leftEarly || radio->hasReceived();
            }
            leftEarly = leftEarly || burst.application->connection().waitForReadyRead(10);
        });
        inOneTurn(burst, 1);
        // Records are written at once.
        QCOMPARE(recordsAtCommit, QList<qsizetype>{3});
        QVERIFY(!leftEarly);
        QVERIFY(burst.allAreServed());
    }

    void groupEndsAfter256Turns()
    {
        const NoGroupFallsDue hold;
        TestServer server;
        server.startWithoutDiscovery();
        const CommitHook hook;
        QMR::RadioEntry radio;
        int turns = 0;
        while (hook.commits() == 0 && turns < 1000) {
            QMR::WriteTurn turn(server->writeGroup(), QMR::WriteTurn::Continue);
            radio.esn.bytes[6] = static_cast<quint8>(turns >> 8);
            radio.esn.bytes[7] = static_cast<quint8>(turns);
            server->insertSubscriber(radio);
            turn.keepOpen();
            ++turns;
        }
        QCOMPARE(turns, 256);
        QCOMPARE(server.query(u"SELECT count(*) FROM subscribers"_s).value(0).value(0).toInt(), turns);
    }

    void groupEndsNoEarlierThanItMust()
    {
        const NoGroupFallsDue hold;
        TestServer server;
        server.startWithoutDiscovery();
        int turns = 0;
        do {
            QMR::WriteTurn turn(server->writeGroup(), QMR::WriteTurn::Continue);
            turn.keepOpen();
            ++turns;
        } while (server->writeGroup()->isOpen() && turns < 1000);
        QCOMPARE(turns, 256);
    }

    void groupThatIsOldEndsWithItsNextTurn()
    {
        const NoGroupFallsDue hold;
        TestServer server;
        server.startWithoutDiscovery();
        QVERIFY(keepOpen(server));
        server.clock.workPauses(20ms - 1ns);
        {
            QMR::WriteTurn turn(server->writeGroup(), QMR::WriteTurn::Continue);
            turn.keepOpen();
        }
        QVERIFY(server->writeGroup()->isOpen());
        server.clock.workPauses(1ns);
        {
            QMR::WriteTurn turn(server->writeGroup(), QMR::WriteTurn::Continue);
            turn.keepOpen();
        }
        QVERIFY(!server->writeGroup()->isOpen());
        QCOMPARE(server.query(u"SELECT * FROM subscribers"_s).size(), 1);
    }

    void keptGroupFallsDueByItself()
    {
        TestServer server;
        server.startWithoutDiscovery();
        QVERIFY(keepOpen(server));
        QVERIFY(server.query(u"SELECT * FROM subscribers"_s).isEmpty());
        QTRY_COMPARE(server.query(u"SELECT * FROM subscribers"_s).size(), 1);
    }

    void everyOtherEventCommitsFirst_data()
    {
        using Event = std::function<void(Burst &)>;
        QTest::addColumn<Event>("happens");
        QTest::newRow("discovery") << Event([](Burst &burst) { burst.server.expireDiscovery(); });
        QTest::newRow("deadline") << Event([](Burst &burst) { burst.server.expireHeartbeat(); });
        QTest::newRow("timeout check") << Event([](Burst &burst) { burst.server.expireTimeoutCheck(); });
        QTest::newRow("a registration by itself") << Event([](Burst &burst) {
            burst.server->registerRadio({{9}}, 1, {}, QHostAddress(u"127.0.0.9"_s), 9, false, {});
        });
        QTest::newRow("a write by itself") << Event([](Burst &burst) { burst.server->deleteSubscriber({}); });
        QTest::newRow("an application connects") << Event([](Burst &burst) {
            const ScriptedApplication other(burst.server.applicationPort());
            QVERIFY(!burst.server.log.takeOnce(1).isEmpty());
        });
        QTest::newRow("an application sends") << Event([](Burst &burst) {
            burst.application->sends(ScriptedApplication::message(9, {}));
            QVERIFY(!burst.server.log.takeOnce(1).isEmpty());
        });
        QTest::newRow("an application leaves") << Event([](Burst &burst) {
            burst.application.reset();
            QVERIFY(!burst.server.log.takeOnce(1).isEmpty());
        });
        QTest::newRow("stop") << Event([](Burst &burst) { burst.server.stop(); });
    }

    void everyOtherEventCommitsFirst()
    {
        using Event = std::function<void(Burst &)>;
        QFETCH(const Event, happens);
        const NoGroupFallsDue hold;
        Burst burst(0);
        QVERIFY(keepOpen(burst.server));
        QVERIFY(burst.server.query(u"SELECT * FROM subscribers"_s).isEmpty());
        qsizetype rowsAtRecord = 1;
        burst.server.log.whenWritten([&](const LogRecord &) {
            rowsAtRecord = std::min(rowsAtRecord, burst.server.query(u"SELECT * FROM subscribers"_s).size());
        });
        happens(burst);
        QCOMPARE(rowsAtRecord, 1);
        burst.server.log.whenWritten({});
        QVERIFY(!burst.server.query(u"SELECT * FROM subscribers WHERE hex(esn) LIKE '%01'"_s).isEmpty());
        QVERIFY(!burst.server->holdsBack());
    }

    void refusedWriteFailsAlone_data()
    {
        QTest::addColumn<QString>("how");
        QTest::newRow("its savepoint is rolled back") << u"ABORT"_s;
        QTest::newRow("it is left half done") << u"FAIL"_s;
        // As SQLite does by itself when the disk is full, or fails.
        QTest::newRow("the whole transaction is rolled back") << u"ROLLBACK"_s;
    }

    void refusedWriteFailsAlone()
    {
        QFETCH(const QString, how);
        Burst burst(5);
        burst.registers();
        QVERIFY(burst.allAreServed());
        burst.server.log.take();
        burst.server.query(raise(u"UPDATE"_s, how, 3));
        burst.registers("\2");
        QVERIFY(burst.allAreServed("\2"));
        QList<LogRecord> expected = burst.registrations();
        expected.insert(3, error(u"Database write error"_s));
        QCOMPARE(burst.server.log.take(), expected);
        QCOMPARE(burst.stored(2), (QList<int>{1, 2, 4, 5}));
        QCOMPARE(burst.stored(1), QList<int>{3});
        // What is refused for its content is not tried again.
        burst.server.query(u"DROP TRIGGER stop"_s);
        burst.server.stop();
        QCOMPARE(burst.stored(1), QList<int>{3});
    }

    void refusedWriteEndsItsSavepoint()
    {
        Burst burst(2);
        burst.server.query(raise(u"INSERT"_s, u"ABORT"_s, 1));
        StatementTrace trace;
        {
            const QMR::WriteTurn turn(burst.server->writeGroup());
            for (const auto &radio : burst.radios) {
                QMR::RadioEntry entry;
                entry.esn = radio->esn;
                burst.server->insertSubscriber(entry);
            }
        }
        const QStringList statements = trace.take();
        QCOMPARE(statements.filter(QRegularExpression(u"^[A-Z ]+( write)?$"_s)),
                 (QStringList{u"BEGIN IMMEDIATE"_s, u"SAVEPOINT write"_s, u"ROLLBACK TO write"_s,
                              u"RELEASE write"_s, u"SAVEPOINT write"_s, u"RELEASE write"_s, u"COMMIT"_s}));
    }

    void writeWithoutItsSavepointFailsAlone_data()
    {
        QTest::addColumn<QByteArray>("denied");
        QTest::addColumn<QString>("error");
        QTest::newRow("not begun") << QByteArray("BEGIN") << u"Database insert error (1)"_s;
        QTest::newRow("not released") << QByteArray("RELEASE") << u"Database insert error (3)"_s;
    }

    void writeWithoutItsSavepointFailsAlone()
    {
        QFETCH(const QByteArray, denied);
        QFETCH(const QString, error);
        TestServer server;
        server.startWithoutDiscovery();
        {
            const QMR::WriteTurn turn(server->writeGroup());
            const SavepointDenial denial(denied.constData());
            server->insertSubscriber({});
        }
        QCOMPARE(server.log.takeMessages(), QStringList{error});
        QVERIFY(server.query(u"SELECT * FROM subscribers"_s).isEmpty());
    }

    void refusedInsertOfABurstFailsAlone()
    {
        Burst burst(5);
        burst.server.query(raise(u"INSERT"_s, u"ROLLBACK"_s, 3));
        burst.registers();
        QVERIFY(burst.allAreServed());
        QList<LogRecord> expected = burst.registrations();
        expected.insert(2, error(u"Database insert error (1)"_s));
        expected.insert(4, error(u"Database write error"_s));
        QCOMPARE(burst.server.log.take(), expected);
        QCOMPARE(burst.stored(), (QList<int>{1, 2, 4, 5}));
    }

    void recordsOfALostGroupComeInTheOrderOfItsWrites()
    {
        Burst burst(3);
        burst.registers();
        QVERIFY(burst.allAreServed());
        burst.server.query(raise(u"UPDATE"_s, u"ROLLBACK"_s, 3));
        const CommitHook hook(1000);
        burst.server.log.take();
        {
            const QMR::WriteTurn turn(burst.server->writeGroup());
            burst.server->deregisterRadio(burst.radios[0]->esn, burst.radios[0]->address());
            burst.server->setAvailability(burst.server->findRadio(burst.radios[2]->esn), QMR::Unconfirmed);
        }
        QCOMPARE(burst.server.log.takeMessages().mid(1),
                 (QStringList{u"Database delete error"_s, u"Database write error"_s}));
    }

    void applicationThatIsGoneDoesNotLetAcknowledgementsOvertakeNotices()
    {
        Burst burst(2);
        std::vector<std::unique_ptr<ScriptedApplication>> others;
        for (int i = 0; i < 8; ++i) {
            others.push_back(std::make_unique<ScriptedApplication>(burst.server.applicationPort()));
        }
        (void)burst.server.log.takeOnce(8);
        for (const auto &application : others) {
            reset(application->connection());
        }
        bool overtaken = false;
        burst.server.log.whenWritten([&](const LogRecord &) {
            for (const auto &radio : burst.radios) {
                overtaken = overtaken || radio->hasReceived();
            }
        });
        inOneTurn(burst, 1); // before the server has looked at the connections
        burst.server.log.whenWritten({});
        QVERIFY(!overtaken);
        QVERIFY(burst.allAreServed());
    }

    void refusedCommitIsDoneOneByOne()
    {
        Burst burst(5);
        burst.registers();
        QVERIFY(burst.allAreServed());
        burst.server.log.take();
        const CommitHook hook(1);
        inOneTurn(burst, 2);
        QCOMPARE(hook.commits(), 1 + 5);
        QVERIFY(burst.allAreServed("\2"));
        QCOMPARE(burst.server.log.take(), burst.registrations());
        QCOMPARE(burst.stored(2), (QList<int>{1, 2, 3, 4, 5}));
    }

    void loneWriteWhoseCommitIsRefusedIsDoneOnceMore_data()
    {
        QTest::addColumn<int>("refusals");
        QTest::addColumn<QStringList>("errors");
        QTest::newRow("and stored") << 1 << QStringList();
        QTest::newRow("and refused again") << 2 << QStringList{u"Database insert error (3)"_s};
    }

    void loneWriteWhoseCommitIsRefusedIsDoneOnceMore()
    {
        QFETCH(const int, refusals);
        QFETCH(const QStringList, errors);
        TestServer server;
        server.startWithoutDiscovery();
        const CommitHook hook(refusals);
        {
            const QMR::WriteTurn turn(server->writeGroup());
            server->insertSubscriber({});
        }
        QCOMPARE(hook.commits(), 2);
        QCOMPARE(server.log.takeMessages(), errors);
        QCOMPARE(server.query(u"SELECT * FROM subscribers"_s).size(), 1 - errors.size());
    }

    void groupInWhichAllFailedLeavesNothingLocked()
    {
        Burst burst(1);
        burst.server.query(raise(u"INSERT"_s, u"FAIL"_s, 1));
        setBusyTimeout(0);
        DatabaseLock reader(burst.server.folder.databaseFile(), DatabaseLock::Shared);
        {
            const QMR::WriteTurn turn(burst.server->writeGroup());
            QMR::RadioEntry radio;
            radio.esn = burst.radios[0]->esn;
            burst.server->insertSubscriber(radio);
        }
        QCOMPARE(burst.server.log.takeMessages(), QStringList{u"Database insert error (1)"_s});
        reader.release();
        burst.server.query(u"UPDATE config SET database_version = 3"_s);
    }

    void eachHasItsRecordWhenNoCommitSucceeds()
    {
        Burst burst(3);
        const CommitHook hook(1000);
        inOneTurn(burst, 1);
        QVERIFY(burst.allAreServed());
        const LogRecord insertError = error(u"Database insert error (3)"_s);
        const LogRecord writeError = error(u"Database write error"_s);
        QList<LogRecord> expected = burst.registrations();
        expected << insertError << writeError << insertError << writeError << insertError << writeError;
        QCOMPARE(burst.server.log.take(), expected);
        QCOMPARE(burst.stored(), QList<int>());
        QCOMPARE(burst.server->radios().size(), size_t{3});
    }

    void whatIsWrittenAgainIsAsItWas()
    {
        Burst burst(2);
        {
            const CommitHook hook(1);
            const QMR::WriteTurn turn(burst.server->writeGroup());
            ScriptedRadio &first = *burst.radios[0];
            ScriptedRadio &second = *burst.radios[1];
            const auto registers = [&](const ScriptedRadio &radio, const QHostAddress &address,
                                       quint32 service) {
                burst.server->registerRadio(radio.esn, 3, radio.suid, address, radio.port(), false,
                                            {service});
            };
            registers(first, first.address(), 1);
            registers(second, second.address(), 1);
            registers(first, second.address(), 2); // the second loses its address, and so its row
            burst.server->deregisterRadio(first.esn, second.address());
            registers(first, first.address(), 3);
        }
        QCOMPARE(burst.stored(3), QList<int>{1});
        QCOMPARE(burst.server.query(u"SELECT esn FROM subscribers"_s).size(), 1);
        QCOMPARE(burst.server.query(u"SELECT service FROM supported_services"_s),
                 (QList<QVariantList>{{3LL}}));
        for (const LogRecord &record : burst.server.log.take()) {
            QCOMPARE(record.type, Scm::Word{Scm::EventInformation});
        }
    }

    void whatIsOpenWhenTheProcessEndsIsGone()
    {
        TestServer server;
        server.startWithoutDiscovery();
        {
            QMR::WriteGroup group(
                serverDatabase(), [](QMR::WriteStep) {}, [] {});
            group.setLockPatience(1h);
            QMR::WriteTurn turn(&group, QMR::WriteTurn::Continue);
            group.write({QMR::RowWrite::Insert, QMR::SubscriberRow(QMR::Esn{{1}})});
            turn.keepOpen();
        }
        QVERIFY(server.query(u"SELECT * FROM subscribers"_s).isEmpty());
        // Nothing is left locked either, and nobody waits for a lock on behalf of the group.
        DatabaseLock other(server.folder.databaseFile(), DatabaseLock::Reserved);
        other.releaseAfter(10s);
        QVERIFY(!QSqlQuery(QSqlDatabase::database()).exec(u"BEGIN IMMEDIATE"_s));
    }

private:
    // A row with serial 1 that waits for its commit.
    static bool keepOpen(TestServer &server)
    {
        QMR::RadioEntry radio;
        radio.esn.bytes[7] = 1;
        {
            QMR::WriteTurn turn(server->writeGroup(), QMR::WriteTurn::Continue);
            server->insertSubscriber(radio);
            turn.keepOpen();
        }
        return server->writeGroup()->isOpen();
    }

    static void inOneTurn(Burst &burst, quint32 service)
    {
        const QMR::WriteTurn turn(burst.server->writeGroup());
        for (const auto &radio : burst.radios) {
            burst.server->registerRadio(radio->esn, 3, radio->suid, radio->address(), radio->port(), false,
                                        {service});
        }
    }
};

QTEST_GUILESS_MAIN(TestWriteGroup)
#include "tst_writegroup.moc"
