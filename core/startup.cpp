// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "apps/applicationmanager.h"
#include "core/configuration.h"
#include "core/eventid.h"
#include "db/sqlite.h"
#include "db/writegroup.h"
#include "radio/registrationmanager.h"
#include "service/platform.h"

#include <QDir>
#include <QFileInfo>
#include <QSqlQuery>

#include <chrono>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace QMR {

namespace {

constexpr auto WritablePatience = 2s; // a file may be denied to us though the system calls it writable

constexpr auto SecondTry = 5s; // for what is still owed at a stop

QString applicationName()
{
    return QLatin1String(ApplicationName);
}

// Name, release and build.
QString versionText(const QString &format)
{
    return format.arg(applicationName(), QString::fromLatin1(QUILLMERE_RELEASE),
                      QString::fromLatin1(QUILLMERE_BUILD));
}

} // namespace

Quillmere::Quillmere(int argc, char **argv) : QtService<QCoreApplication>(argc, argv, applicationName())
{
    // The missing blank between the build number and the next word is deliberate: it is the registered
    // description.
    setServiceDescription(versionText(u"%1 %2 Build %3"_s) +
                          u"Maintains a list of radios on the P25 system and their IP addresses"_s);

    prepareSupervision();
    owedWritesTimer.setSingleShot(true);
    connect(&owedWritesTimer, &QTimer::timeout, this, &Quillmere::eventOwedWritesDue);
}

Quillmere::~Quillmere()
{
    applicationManager.reset();
    writes.reset();
    if (databaseConfigured) {
        database = QSqlDatabase();
        QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
    }
}

QString Quillmere::configDirectory()
{
    const QString organization = QCoreApplication::organizationName();
    const QString application = QCoreApplication::applicationName();
    const std::optional<QString> folder = platform.commonDataFolder();
    QString directory = folder.value_or(QString());
    if (folder && !organization.isEmpty() && !application.isEmpty()) {
        const QChar separator = platform.folderSeparator;
        directory += separator + organization + separator + application;
    }
    if (!directory.isEmpty()) {
        QDir().mkpath(directory);
    }
    return directory;
}

void Quillmere::configure()
{
    QCoreApplication::setOrganizationName(QLatin1String(OrganizationName));
    QCoreApplication::setApplicationName(applicationName());
    settings = std::make_unique<QSettings>(configDirectory() + u'/' + QLatin1String(ConfigurationFile),
                                           QSettings::IniFormat);
    Sqlite::disableMemoryStatistics();
    Sqlite::tellFaultsFromDamage();
    database = QSqlDatabase::addDatabase(u"QSQLITE"_s);
    database.setDatabaseName(configDirectory() + u'/' + QLatin1String(DatabaseFile));
    database.setConnectOptions(u"QSQLITE_BUSY_TIMEOUT=250"_s); // ms
    databaseConfigured = true;
}

// SQLite opens a file for reading only when it could not be opened for writing, for want of a descriptor say,
// and would never try again.
bool Quillmere::openDatabase()
{
    Sqlite::whileHindered(QDeadlineTimer(WritablePatience), [this] {
        return database.open() && Sqlite::isReadOnly(database) &&
               QFileInfo(database.databaseName()).isWritable();
    });
    return database.isOpen();
}

void Quillmere::start()
{
    if (!databaseConfigured) {
        configure();
    }
    if (!openDatabase()) {
        log(u"Failed to open database ('%1\\qmr.db')"_s.arg(configDirectory()), Error);
        return;
    }
    QSqlQuery(database).exec(u"PRAGMA foreign_keys = ON"_s);
    QSqlQuery(database).exec(u"PRAGMA synchronous = EXTRA"_s);
    if (!checkDatabase()) {
        return;
    }
    keepJournal();
    writes = std::make_unique<WriteGroup>(
        Sqlite::handle(database), [this](WriteStep step) { writeFailed(step); }, [this] { groupStored(); });
    writes->setLockPatience(Sqlite::StartPatience);
    loadRadioTable();
    writes->setLockPatience(WriteGroup::LockPatience);

    // The settings object of an earlier start still holds what it read then.
    settings->sync();
    const Configuration configuration = Configuration::read(*settings);
    minimumDiscoveryPeriod = configuration.minimumDiscoveryPeriod;
    registrationManager = std::make_unique<RegistrationManager>(
        this, static_cast<quint16>(configuration.radioRegistrationPort));
    applicationManager =
        std::make_unique<ApplicationManager>(this, static_cast<quint16>(configuration.applicationPort));

    startTimeoutChecks();
    const QString started = u"%1 Service started with the following configuration:\n"
                            "Minimum Discovery Period: %2 (seconds)\n"
                            "Radio Registration Port: %3 (UDP)\n"
                            "Application Port: %4 (TCP)\n"
                            "Config Path: %5\n"_s;
    log(started.arg(versionText(u"%1 %2.%3\n"_s), QString::number(minimumDiscoveryPeriod),
                    QString::number(configuration.radioRegistrationPort),
                    QString::number(configuration.applicationPort), configDirectory()),
        Success);
}

void Quillmere::stop()
{
    if (writes) {
        commitWrites();
        lastRetried.reset();
        retryOwedWrites(std::chrono::nanoseconds::max());
        // What fails once may be stored the second time.
        retryOwedWrites(SecondTry);
    }
    owedWritesTimer.stop();
    stopSupervision();
    clearRadioTable();
    applicationManager.reset();
    registrationManager.reset();
    writes.reset();
    database.close();
    log(u"Service stopped"_s, Success);
}

void Quillmere::log(const QString &message, MessageType type) const
{
    logMessage(message, type, EventId);
}

} // namespace QMR
