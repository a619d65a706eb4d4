// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/statements.h"

using namespace Qt::StringLiterals;

namespace QMR {

PreparedStatement::PreparedStatement(const QSqlDatabase &database, QString statementText)
    : query(database), text(std::move(statementText))
{
    query.setForwardOnly(true);
}

bool PreparedStatement::run(std::initializer_list<Binding> bindings)
{
    prepared = prepared || query.prepare(text);
    if (!prepared) {
        return false;
    }
    for (const auto &[name, value] : bindings) {
        query.bindValue(name, value);
    }
    return query.exec();
}

QVariant PreparedStatement::takeFirstValue()
{
    const QVariant value = query.next() ? query.value(0) : QVariant();
    query.finish();
    return value;
}

SubscriberStatements::SubscriberStatements(const QSqlDatabase &database)
    : insertSubscriber(database,
                       u"INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time,"
                       "                          num_discovery_attempts, last_discovery_attempt, "
                       "protocol_version) VALUES (:esn, :suid, :addr, :avail, :contact_time, :attempts, "
                       ":discover_time, :protocol_version)"_s),
      selectId(database, u"SELECT id FROM subscribers WHERE esn=:esn"_s),
      updateSubscriber(database, u"UPDATE subscribers SET suid=:suid, ip_address=:addr, availability=:avail,"
                                 "        last_contact_time=:contact_time, num_discovery_attempts=:attempts,"
                                 "        last_discovery_attempt=:discover_time, "
                                 "protocol_version=:protocol_version WHERE id=:id"_s),
      deleteSubscriber(database, u"DELETE FROM subscribers WHERE esn=:esn"_s),
      insertService(database,
                    u"INSERT INTO supported_services (subscriber_id, service) VALUES(:id, :service)"_s),
      deleteServices(database, u"DELETE FROM supported_services WHERE subscriber_id=:id"_s)
{
}

} // namespace QMR
