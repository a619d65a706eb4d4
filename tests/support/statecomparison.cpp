// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/statecomparison.h"

#include "db/writegroup.h"
#include "tests/support/serverdatabase.h"

#include <QFile>
#include <QHostAddress>

#include <sqlite3.h>

#include <algorithm>
#include <set>

using namespace Qt::StringLiterals;
using QMR::Esn;

namespace {

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

std::optional<qint64> armed(const QTimer &timer)
{
    return timer.isActive() ? std::optional<qint64>(timer.interval()) : std::nullopt;
}

template<size_t Size>
void copyBlob(sqlite3_stmt *statement, int column, std::array<quint8, Size> &bytes)
{
    const auto *blob = static_cast<const quint8 *>(sqlite3_column_blob(statement, column));
    const auto size = static_cast<size_t>(sqlite3_column_bytes(statement, column));
    std::copy_n(blob, std::min(size, Size), bytes.begin());
}

} // namespace

StateComparison::StateComparison(const QString &databaseFile)
{
    const char *const statement =
        "SELECT esn, suid, ip_address, availability, num_discovery_attempts, last_contact_time, "
        "last_discovery_attempt, protocol_version, service FROM subscribers LEFT JOIN supported_services "
        "ON id = subscriber_id ORDER BY esn, supported_services.rowid";
    if (sqlite3_open(QFile::encodeName(databaseFile).constData(), &database) != SQLITE_OK ||
        sqlite3_prepare_v2(database, statement, -1, &rows, nullptr) != SQLITE_OK) {
        qFatal("cannot read %s: %s", qPrintable(databaseFile), sqlite3_errmsg(database));
    }
}

StateComparison::~StateComparison()
{
    sqlite3_finalize(rows);
    sqlite3_close(database);
}

void StateComparison::run(const char *statement)
{
    if (sqlite3_exec(database, statement, nullptr, nullptr, nullptr) != SQLITE_OK) {
        qFatal("%s: %s", statement, sqlite3_errmsg(database));
    }
}

void StateComparison::lockDatabase()
{
    setBusyTimeout(0);
    run("BEGIN IMMEDIATE");
}

void StateComparison::unlockDatabase()
{
    run("ROLLBACK");
}

void StateComparison::compareTable(const QMR::Quillmere &server, const RegistrationModel &model)
{
    compareEntries(server, model);
    compareAddresses(server, model);
    compareQueues(server, model);
    compareTimers(server, model);
}

void StateComparison::compareEntries(const QMR::Quillmere &server, const RegistrationModel &model)
{
    std::map<Esn, RegistrationModel::Radio> live;
    for (const auto &[esn, entry] : server.radios()) {
        live[esn] = liveRadio(*entry);
    }
    if (live != model.table) {
        differs(u"table"_s, textOf(live), textOf(model.table));
    }
}

// Who holds an address is known without a walk, and must be what a walk would find.
void StateComparison::compareAddresses(const QMR::Quillmere &server, const RegistrationModel &model)
{
    std::set<std::pair<quint32, Esn>> holders;
    for (const auto &[esn, radio] : model.table) {
        holders.insert({{radio.address.value_or(0), esn}, {radio.pendingAddress.value_or(0), esn}});
    }
    if (server.addresses().size() != holders.size()) {
        differs(u"size of the address index"_s, QString::number(server.addresses().size()),
                QString::number(holders.size()));
    }
    for (auto holder = holders.begin(); holder != holders.end();
         holder = holders.lower_bound({holder->first + 1, Esn{}})) {
        const Esn found = server.addresses().firstHolder(holder->first).value_or(Esn());
        if (found != holder->second) {
            differs(u"holder of "_s + QHostAddress(holder->first).toString(), found.text(),
                    holder->second.text());
        }
    }
}

void StateComparison::compareQueues(const QMR::Quillmere &server, const RegistrationModel &model)
{
    const auto searched = esnsOf(server.dueForDiscovery());
    if (searched != model.searchedFor()) {
        differs(u"discovery queue"_s, textOf(searched), textOf(model.searchedFor()));
    }
    const auto waiting = esnsOf(server.awaitingConfirmation());
    if (waiting != model.awaitingConfirmation()) {
        differs(u"pending queue"_s, textOf(waiting), textOf(model.awaitingConfirmation()));
    }
}

void StateComparison::compareTimers(const QMR::Quillmere &server, const RegistrationModel &model)
{
    const auto text = [](std::optional<qint64> interval) { return QString::number(interval.value_or(-1)); };
    const auto discovery = armed(server.timerForDiscovery());
    if (discovery != model.discoveryTimer) {
        differs(u"discovery timer"_s, text(discovery), text(model.discoveryTimer));
    }
    const auto deadline = armed(server.timerForDeadline());
    if (deadline != model.deadlineTimer) {
        differs(u"deadline timer"_s, text(deadline), text(model.deadlineTimer));
    }
}

std::map<Esn, RegistrationModel::Row> StateComparison::readRows()
{
    std::map<Esn, RegistrationModel::Row> stored;
    int result = SQLITE_ROW;
    while ((result = sqlite3_step(rows)) == SQLITE_ROW) {
        Esn esn;
        copyBlob(rows, 0, esn.bytes);
        RegistrationModel::Row &row = stored[esn];
        copyBlob(rows, 1, row.suid.bytes);
        const auto number = [this](int column) { return sqlite3_column_int64(rows, column); };
        row.address = static_cast<quint32>(number(2));
        row.availability = static_cast<quint32>(number(3));
        row.attempts = static_cast<quint16>(number(4));
        row.lastContact = number(5);
        row.lastDiscovery = number(6);
        row.protocolVersion = static_cast<quint32>(number(7));
        if (sqlite3_column_type(rows, 8) != SQLITE_NULL) {
            row.services.push_back(static_cast<quint32>(number(8)));
        }
    }
    sqlite3_reset(rows); // a reader would hold up the server's next commit
    if (result != SQLITE_DONE) {
        qFatal("cannot read the rows: %s", sqlite3_errmsg(database));
    }
    return stored;
}

void StateComparison::compareRows(const QMR::Quillmere &server, const RegistrationModel &model)
{
    const auto stored = readRows();
    if (stored != model.rows) {
        differs(u"rows"_s, textOf(stored), textOf(model.rows));
    }
    const auto owed = esnsOf(server.writeGroup()->owed());
    const std::vector<Esn> expected(model.owed.begin(), model.owed.end());
    if (owed != expected) {
        differs(u"owed rows"_s, textOf(owed), textOf(expected));
    }
}

void StateComparison::differs(const QString &what, const QString &actual, const QString &expected)
{
    if (firstDifference.isEmpty()) {
        firstDifference = u"%1 differ:\n    %2\nexpected:\n    %3"_s.arg(what, actual, expected);
    }
}
