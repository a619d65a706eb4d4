// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/modelcomparison.h"

#include "db/writegroup.h"
#include "tests/support/serverdatabase.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

#include <algorithm>

using namespace Qt::StringLiterals;
using QMR::Esn;

namespace {

constexpr int Patience = 5000; // ms
const QString Connection = u"model"_s;

// A request to a loopback address comes to the server's own socket, which rejects it with the first; the
// second is the answer to a datagram that is sent to know that all before it have been handled.
const LogRecord RequestCameBack =
    RecordingLog::record(Scm::EventWarning, u"QMRS Protocol error: invalid message (2)"_s);
const LogRecord GarbageArrived =
    RecordingLog::record(Scm::EventWarning, u"QMRS Protocol error: invalid message received (1)"_s);

RegistrationModel::Address valueOf(const QHostAddress &address)
{
    return address.isNull() ? RegistrationModel::Address() : address.toIPv4Address();
}

RegistrationModel::Radio liveRadio(const QMR::RadioEntry &entry)
{
    RegistrationModel::Radio radio{entry.protocolVersion,
                                   entry.suid,
                                   entry.pendingSuid,
                                   valueOf(entry.address),
                                   valueOf(entry.pendingAddress),
                                   entry.supportedServices,
                                   entry.pendingServices,
                                   entry.availability,
                                   entry.discoveryAttempts,
                                   entry.lastDiscoveryAttempt.toMSecsSinceEpoch(),
                                   entry.lastContactTime.toMSecsSinceEpoch(),
                                   std::nullopt};
    if (entry.pendingDeadline.isValid()) {
        radio.deadline = entry.pendingDeadline.toMSecsSinceEpoch();
    }
    return radio;
}

template<typename Map>
QString textOf(const Map &map)
{
    QStringList lines;
    for (const auto &[esn, value] : map) {
        lines.append(esn.text() + u": "_s + value.text());
    }
    return lines.join(u"\n    "_s);
}

template<typename Queue>
std::vector<Esn> esnsOf(const Queue &queue)
{
    std::vector<Esn> esns;
    for (const QMR::RadioPointer &radio : queue) {
        esns.push_back(radio->esn);
    }
    return esns;
}

std::vector<Esn> esnsOf(const QMR::OwedWrites &debts)
{
    std::vector<Esn> esns;
    for (auto esn = debts.first(); esn; esn = debts.after(*esn)) {
        esns.push_back(*esn);
    }
    return esns;
}

QString textOf(const std::vector<Esn> &esns)
{
    QStringList texts;
    for (const Esn &esn : esns) {
        texts.append(esn.text());
    }
    return texts.join(u", "_s);
}

template<typename Value>
QString textOf(const QList<Value> &values)
{
    QStringList texts;
    for (const Value &value : values) {
        const std::unique_ptr<char[]> text(toString(value));
        texts.append(QString::fromUtf8(text.get()));
    }
    return texts.join(u"\n    "_s);
}

std::optional<qint64> armed(const QTimer &timer)
{
    return timer.isActive() ? std::optional<qint64>(timer.interval()) : std::nullopt;
}

} // namespace

ModelComparison::ModelComparison(TestServer &testServer, const RegistrationModel &registrationModel)
    : server(testServer), model(registrationModel)
{
    QSqlDatabase database = QSqlDatabase::addDatabase(u"QSQLITE"_s, Connection);
    database.setDatabaseName(server.folder.databaseFile());
    if (!database.open()) {
        qFatal("cannot open the database");
    }
    rows = std::make_unique<QSqlQuery>(database);
    rows->setForwardOnly(true);
    rows->prepare(u"SELECT esn, suid, ip_address, availability, num_discovery_attempts, last_contact_time, "
                  "last_discovery_attempt, protocol_version, service FROM subscribers LEFT JOIN "
                  "supported_services ON id = subscriber_id ORDER BY esn, supported_services.rowid"_s);
}

ModelComparison::~ModelComparison()
{
    rows.reset();
    QSqlDatabase::removeDatabase(Connection);
}

void ModelComparison::connectApplication()
{
    application = std::make_unique<ScriptedApplication>(server.applicationPort());
    const QString connected = u"Application connected from 127.0.0.1"_s;
    if (!happens([&] { return server.log.count(connected) > 0; })) {
        differs(u"the application"_s, u"nothing"_s, connected);
    }
    server.log.take();
}

void ModelComparison::waitForDatagramsOf(ScriptedRadio &radio)
{
    radio.sends("?");
    if (!happens([&] { return server.log.records().contains(GarbageArrived); })) {
        differs(u"datagrams"_s, u"not handled"_s, u"handled"_s);
    }
}

void ModelComparison::lockDatabase()
{
    setBusyTimeout(0);
    runSql(QSqlDatabase::database(Connection), u"BEGIN IMMEDIATE"_s);
}

void ModelComparison::unlockDatabase()
{
    runSql(QSqlDatabase::database(Connection), u"ROLLBACK"_s);
}

void ModelComparison::compare()
{
    if (!firstDifference.isEmpty()) {
        return;
    }
    compareTable();
    compareQueues();
    compareTimers();
    compareRows();
    compareNotices();
    compareRecords();
}

void ModelComparison::compareTable()
{
    std::map<Esn, RegistrationModel::Radio> live;
    for (const auto &[esn, entry] : server->radios()) {
        live[esn] = liveRadio(*entry);
    }
    if (live != model.table) {
        differs(u"table"_s, textOf(live), textOf(model.table));
    }
}

void ModelComparison::compareQueues()
{
    const auto searched = esnsOf(server->dueForDiscovery());
    if (searched != model.searchedFor()) {
        differs(u"discovery queue"_s, textOf(searched), textOf(model.searchedFor()));
    }
    const auto waiting = esnsOf(server->awaitingConfirmation());
    if (waiting != model.awaitingConfirmation()) {
        differs(u"pending queue"_s, textOf(waiting), textOf(model.awaitingConfirmation()));
    }
}

void ModelComparison::compareTimers()
{
    const auto text = [](std::optional<qint64> interval) { return QString::number(interval.value_or(-1)); };
    const auto discovery = armed(server->nextDiscovery());
    if (discovery != model.discoveryTimer) {
        differs(u"discovery timer"_s, text(discovery), text(model.discoveryTimer));
    }
    const auto deadline = armed(server->nextDeadline());
    if (deadline != model.deadlineTimer) {
        differs(u"deadline timer"_s, text(deadline), text(model.deadlineTimer));
    }
}

void ModelComparison::compareRows()
{
    std::map<Esn, RegistrationModel::Row> stored;
    if (!rows->exec()) {
        qFatal("cannot read the rows");
    }
    while (rows->next()) {
        Esn esn;
        const QByteArray esnBlob = rows->value(0).toByteArray();
        std::copy_n(esnBlob.begin(), std::min<qsizetype>(esnBlob.size(), 8), esn.bytes.begin());
        RegistrationModel::Row &row = stored[esn];
        const QByteArray suidBlob = rows->value(1).toByteArray();
        std::copy_n(suidBlob.begin(), std::min<qsizetype>(suidBlob.size(), 7), row.suid.bytes.begin());
        row.address = rows->value(2).toUInt();
        row.availability = rows->value(3).toUInt();
        row.attempts = static_cast<quint16>(rows->value(4).toUInt());
        row.lastContact = rows->value(5).toLongLong();
        row.lastDiscovery = rows->value(6).toLongLong();
        row.protocolVersion = rows->value(7).toUInt();
        if (!rows->value(8).isNull()) {
            row.services.push_back(rows->value(8).toUInt());
        }
    }
    rows->finish(); // a reader would hold up the server's next commit
    if (stored != model.rows) {
        differs(u"rows"_s, textOf(stored), textOf(model.rows));
    }
    const auto owed = esnsOf(server->writeGroup()->owed());
    const std::vector<Esn> expected(model.owed.begin(), model.owed.end());
    if (owed != expected) {
        differs(u"owed rows"_s, textOf(owed), textOf(expected));
    }
}

void ModelComparison::compareNotices()
{
    qint64 size = 0;
    for (const Notice &notice : std::as_const(model.notices)) {
        size += 8 + 22 + notice.services.size();
    }
    QTcpSocket &connection = application->connection();
    if (!happens([&] { return connection.bytesAvailable() >= size; })) {
        return differs(u"notices"_s, u"%1 bytes"_s.arg(connection.bytesAvailable()), textOf(model.notices));
    }
    const QList<Notice> received = application->receives(model.notices.size());
    if (received != model.notices) {
        differs(u"notices"_s, textOf(received), textOf(model.notices));
    }
}

void ModelComparison::compareRecords()
{
    happens([&] { return server.log.count(RequestCameBack.message) >= model.requests; });
    QList<LogRecord> written = server.log.take();
    written.removeAll(GarbageArrived);
    QList<LogRecord> expected = model.records;
    expected.append(QList<LogRecord>(model.requests, RequestCameBack));
    if (written != expected) {
        differs(u"records"_s, textOf(written), textOf(expected));
    }
}

void ModelComparison::differs(const QString &what, const QString &actual, const QString &expected)
{
    if (firstDifference.isEmpty()) {
        firstDifference = u"%1 differ:\n    %2\nexpected:\n    %3"_s.arg(what, actual, expected);
    }
}

bool ModelComparison::happens(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(Patience);
    while (!condition() && !deadline.hasExpired()) {
        QCoreApplication::processEvents();
    }
    return condition();
}
