// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/storedradio.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>
#include <QUdpSocket>

#include <sqlite3.h>

using namespace Qt::StringLiterals;

namespace {

LogRecord success(const QString &message)
{
    return RecordingLog::record(Scm::EventSuccess, message);
}

LogRecord startRecord(const TestServer &server)
{
    return success(u"Quill Mere 1.38.3.27\n"
                   " Service started with the following configuration:\n"
                   "Minimum Discovery Period: 30 (seconds)\n"
                   "Radio Registration Port: %1 (UDP)\n"
                   "Application Port: %2 (TCP)\n"
                   "Config Path: %3\n"_s.arg(QString::number(server.registrationPort()),
                                             QString::number(server.applicationPort()),
                                             server.folder.path()));
}

bool portsAreFree(const TestServer &server)
{
    QUdpSocket radioSide;
    QTcpServer applicationSide;
    return radioSide.bind(server.registrationPort(), QAbstractSocket::DefaultForPlatform) &&
           applicationSide.listen(QHostAddress::AnyIPv4, server.applicationPort());
}

bool timersAreOff(const TestServer &server)
{
    return !server->timerForTimeoutCheck().isActive() && !server->timerForDiscovery().isActive() &&
           !server->timerForDeadline().isActive();
}

QStringList connectionNames()
{
    return QSqlDatabase::connectionNames();
}

} // namespace

// The server's way up and down: what is done in which order, what is logged, what stays.
class TestStartup : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        QCoreApplication::setOrganizationName(QString());
        QCoreApplication::setApplicationName(QString());
    }

    void constructionStartsNothing()
    {
        const TestServer server;
        QVERIFY(timersAreOff(server));
        QVERIFY(portsAreFree(server));
        QVERIFY(connectionNames().isEmpty());
        QVERIFY(!QFile::exists(server.folder.databaseFile()));
        QVERIFY(server.log.records().isEmpty());
        QVERIFY(server->timerForDiscovery().isSingleShot());
        QVERIFY(server->timerForDeadline().isSingleShot());
        QCOMPARE(server->timerForDeadline().timerType(), Qt::PreciseTimer);
        QVERIFY(!server->timerForTimeoutCheck().isSingleShot());
    }

    void descriptionRunsTheBuildIntoTheNextWord()
    {
        const TestServer server;
        QCOMPARE(
            server->serviceDescription(),
            u"Quill Mere 1.38.3 Build 27Maintains a list of radios on the P25 system and their IP addresses"_s);
        QCOMPARE(server->serviceName(), u"Quill Mere"_s);
    }

    void startTellsItsConfiguration()
    {
        TestServer server;
        server->start();
        QCOMPARE(server.log.take(),
                 (QList{RecordingLog::record(Scm::EventWarning,
                                             u"Unable to update database.  Replacing database..."_s),
                        startRecord(server)}));
        QCOMPARE(QCoreApplication::organizationName(), u"Brackwater"_s);
        QCOMPARE(QCoreApplication::applicationName(), u"Quill Mere"_s);
        QVERIFY(server->timerForTimeoutCheck().isActive());
        QCOMPARE(server->timerForTimeoutCheck().interval(), 300000);
        QVERIFY(!server->timerForDiscovery().isActive());
        QVERIFY(!server->timerForDeadline().isActive());
        QCOMPARE(connectionNames(), QStringList{QLatin1String(QSqlDatabase::defaultConnection)});
    }

    void databaseIsReadyBeforeTheTableIsLoaded()
    {
        TestServer server;
        server.start();
        StoredRadio{.availability = 2, .contact = server.clock.seconds()}.store(server);
        server.stop();
        StatementTrace trace;
        server->start();
        const QStringList statements = trace.take();
        QStringList expected{u"PRAGMA foreign_keys = ON"_s,
                             u"PRAGMA synchronous = EXTRA"_s,
                             u"BEGIN"_s,
                             u"SELECT database_version FROM config"_s,
                             u"COMMIT"_s,
                             u"PRAGMA synchronous = EXTRA"_s};
        if (platform.canDeleteOpenFiles) {
            expected << u"PRAGMA journal_mode"_s << u"PRAGMA journal_mode = PERSIST"_s
                     << u"PRAGMA journal_size_limit = 4194304"_s;
        }
        expected << u"PRAGMA cache_size = -65536"_s;
        QCOMPARE(statements.mid(0, expected.size()), expected);
        QVERIFY(statements.value(expected.size()).startsWith(u"SELECT subscribers.esn"_s));
        QCOMPARE(statements.value(expected.size() + 1), u"BEGIN IMMEDIATE"_s);
        QCOMPARE(statements.last(), u"COMMIT"_s);
    }

    void fileInWriteAheadModeStaysInIt()
    {
        TestServer server;
        server.start();
        server.stop();
        server.query(u"PRAGMA journal_mode = WAL"_s);
        server->start();
        QCOMPARE(server.query(u"PRAGMA journal_mode"_s), (QList<QVariantList>{{u"wal"_s}}));
    }

    void radiosAreLoadedBeforeTheSocketsOpen()
    {
        TestServer server;
        server.start();
        // It cannot be stored again: its review fails.
        StoredRadio{.esn = u"x'01'"_s, .contact = server.clock.seconds()}.store(server);
        server.stop();
        server.log.take();
        QUdpSocket radioSide;
        QVERIFY(radioSide.bind(server.registrationPort(), QAbstractSocket::DefaultForPlatform));
        QTcpServer applicationSide;
        QVERIFY(applicationSide.listen(QHostAddress::AnyIPv4, server.applicationPort()));

        server->start();
        QCOMPARE(
            server.log.take(),
            (QList{RecordingLog::record(Scm::EventError, u"Database write error"_s),
                   RecordingLog::record(Scm::EventError, u"Unable to bind registration socket"_s),
                   RecordingLog::record(Scm::EventError, u"Failed to listen for application connections"_s),
                   startRecord(server)}));
        QCOMPARE(server->radios().size(), size_t{1});
        QVERIFY(server->timerForDiscovery().isActive());
    }

    void databaseThatCannotBeOpenedLeavesTheServerIdle()
    {
        TestServer server;
        QVERIFY(QDir().mkdir(server.folder.databaseFile()));
        server->start();
        QCOMPARE(server.log.take(),
                 QList{RecordingLog::record(Scm::EventError, u"Failed to open database ('%1\\qmr.db')"_s.arg(
                                                                 server.folder.path()))});
        QVERIFY(timersAreOff(server));
        QVERIFY(portsAreFree(server));
        QCoreApplication::processEvents();
        QVERIFY(server.log.records().isEmpty());

        // Once the obstacle is gone a later start succeeds.
        server.stop();
        QCOMPARE(server.log.take(), QList{success(u"Service stopped"_s)});
        QVERIFY(QDir().rmdir(server.folder.databaseFile()));
        server->start();
        QCOMPARE(server.log.records().last(), startRecord(server));
    }

    void folderThatCannotBeMadeLeavesTheServerIdle()
    {
        TestServer server;
        QVERIFY(QDir(server.folder.path()).removeRecursively());
        QFile obstacle(server.folder.path());
        QVERIFY(obstacle.open(QIODevice::WriteOnly));
        server->start();
        QCOMPARE(server.log.take(),
                 QList{RecordingLog::record(Scm::EventError, u"Failed to open database ('%1\\qmr.db')"_s.arg(
                                                                 server.folder.path()))});
        QVERIFY(timersAreOff(server));
        QVERIFY(portsAreFree(server));
    }

    void missingFolderIsMade()
    {
        TestServer server;
        const QString folder = server.folder.path();
        QVERIFY(QDir(folder).removeRecursively());
        QCoreApplication::setOrganizationName(u"Brackwater"_s);
        QCoreApplication::setApplicationName(u"Quill Mere"_s);
        QCOMPARE(QMR::Quillmere::configDirectory(), folder);
        QVERIFY(QDir(folder).exists());
    }

    void folderWithoutBothNamesIsTheCommonOne_data()
    {
        QTest::addColumn<QString>("organization");
        QTest::addColumn<QString>("application");
        QTest::newRow("no organisation") << QString() << u"Quill Mere"_s;
        QTest::newRow("neither") << QString() << QString();
    }

    void folderWithoutBothNamesIsTheCommonOne()
    {
        QFETCH(const QString, organization);
        QFETCH(const QString, application);
        const TestServer server;
        QDir common(server.folder.path());
        QVERIFY(common.cdUp() && common.cdUp());
        QVERIFY(QDir(common.filePath(u"Brackwater"_s)).removeRecursively());
        QCoreApplication::setOrganizationName(organization);
        QCoreApplication::setApplicationName(application);
        const bool unnamed = QCoreApplication::organizationName().isEmpty();
        QVERIFY(unnamed);
        QCOMPARE(QMR::Quillmere::configDirectory(), QDir::toNativeSeparators(common.path()));
        QVERIFY(common.exists());
        QVERIFY(!common.exists(u"Brackwater"_s));
    }

    void stopDropsApplicationsThenSaysSo()
    {
        TestServer server;
        server.start();
        const QByteArray database = fileContent(server);
        ScriptedApplication application(server.applicationPort());
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
        server.log.take();
        server.stop();
        QCOMPARE(server.log.take(), (QList{RecordingLog::record(Scm::EventInformation,
                                                                u"Application disconnected from 127.0.0.1"_s),
                                           success(u"Service stopped"_s)}));
        QTRY_COMPARE(application.connection().state(), QAbstractSocket::UnconnectedState);
        QVERIFY(portsAreFree(server));
        QCOMPARE(fileContent(server), database);
    }

    void stopEmptiesTheTableAndWritesNothing()
    {
        TestServer server;
        server.start();
        StoredRadio{.contact = server.clock.seconds()}.store(server);
        server->loadRadioTable();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        QVERIFY(server->timerForDiscovery().isActive());
        QVERIFY(server->timerForDeadline().isActive());
        server.log.take();
        const QByteArray database = fileContent(server);
        StatementTrace trace;
        server.stop();
        QCOMPARE(trace.take(), QStringList());
        QCOMPARE(server.log.take(), QList{success(u"Service stopped"_s)});
        QVERIFY(timersAreOff(server));
        QVERIFY(server->radios().empty());
        QVERIFY(server->dueForDiscovery().empty());
        QVERIFY(server->awaitingConfirmation().empty());
        QVERIFY(!server->writeGroup());
        QCOMPARE(fileContent(server), database);
        QVERIFY(!QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false).isOpen());
    }

    void secondStartReusesTheConnection()
    {
        TestServer server;
        server->start();
        server.stop();
        const QStringList names = connectionNames();
        // Adding the connection a second time would warn of the duplicate.
        QTest::failOnWarning(QRegularExpression(u".*"_s));
        server.log.take();
        server->start();
        QCOMPARE(server.log.take(), QList{startRecord(server)});
        QCOMPARE(connectionNames(), names);

        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        server.stop();
        server->start();
        QVERIFY(server->findRadio(radio.esn));
    }

    void secondStartDoesNotLookForTheFolderAgain()
    {
        TestServer server;
        server->start();
        server.stop();
        server.log.take();
        const TestServer other; // its folder is the one that would be found now
        if (other.folder.path() == server.folder.path()) {
            QSKIP("the platform has one data folder");
        }
        server->start();
        QVERIFY(!QFile::exists(other.folder.databaseFile()));
        QVERIFY(QFile::exists(server.folder.databaseFile()));
    }

    void namesThatWereSetAfterwardsStay()
    {
        TestServer server;
        server->start();
        server.stop();
        QCoreApplication::setOrganizationName(u"Other"_s);
        server->start();
        QCOMPARE(QCoreApplication::organizationName(), u"Other"_s);
    }

    void isDestroyedWhileItRuns()
    {
        char name[] = "quillmere";
        char *arguments[] = {name, nullptr};
        TestServer server; // lends its folder and ports
        auto running = std::make_unique<QMR::Quillmere>(1, arguments);
        running->start();
        ScriptedApplication application(server.applicationPort());
        QTRY_COMPARE(server.log.count(u"Application connected from 127.0.0.1"_s), 1);
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        server.log.take();

        QTest::failOnWarning(QRegularExpression(u".*"_s));
        running.reset();
        QCOMPARE(server.log.takeMessages(), QStringList{u"Application disconnected from 127.0.0.1"_s});
        QVERIFY(connectionNames().isEmpty());
        QVERIFY(portsAreFree(server));
        QCoreApplication::processEvents();
        QVERIFY(server.log.records().isEmpty());
    }

    // Who closes a write-ahead log last removes it.
    void databaseIsClosedWhenTheServerHasGone()
    {
        char name[] = "quillmere";
        char *arguments[] = {name, nullptr};
        const TestServer server; // lends its folder and ports
        std::make_unique<QMR::Quillmere>(1, arguments)->start();
        server.query(u"PRAGMA journal_mode = WAL"_s);
        auto running = std::make_unique<QMR::Quillmere>(1, arguments);
        running->start();
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        const QString log = server.folder.databaseFile() + u"-wal"_s;
        QVERIFY(QFile::exists(log));
        running.reset();
        QVERIFY(!QFile::exists(log));
        QCOMPARE(server.query(u"SELECT count(*) FROM subscribers"_s), QList<QVariantList>{{1LL}});
    }

    void connectionWaitsForALockAQuarterOfASecond()
    {
        TestServer server;
        server->start();
        server.stop();
        QSqlDatabase database = QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false);
        QVERIFY(database.open());
        QCOMPARE(runSql(database, u"PRAGMA busy_timeout"_s), QList<QVariantList>{{250LL}});
        database.close();
    }

    void noAccountIsKeptOfTheMemoryOfSqlite()
    {
        QCOMPARE(sqlite3_shutdown(), SQLITE_OK);
        QCOMPARE(sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 1), SQLITE_OK);
        TestServer server;
        server->start();
        QVERIFY(server->writeGroup());
        QCOMPARE(sqlite3_memory_used(), 0);
    }

private:
    static QByteArray fileContent(const TestServer &server)
    {
        QFile file(server.folder.databaseFile());
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
