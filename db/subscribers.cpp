// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "db/sqlite.h"
#include "db/writegroup.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

// Leaves bytes as they are when the blob has another length.
template<size_t Size>
void fromBlob(const QByteArray &blob, std::array<quint8, Size> &bytes)
{
    if (blob.size() == Size) {
        std::copy(blob.begin(), blob.end(), bytes.begin());
    }
}

// Columns hold signed integers of up to 64 bits; addresses and times are their low 32 bits, deliberately
// unsigned.
quint32 toUnsigned(const QVariant &value)
{
    return static_cast<quint32>(value.toLongLong());
}

QDateTime toTime(const QVariant &value)
{
    return QDateTime::fromSecsSinceEpoch(toUnsigned(value), Qt::UTC);
}

} // namespace

void Quillmere::insertSubscriber(const RadioEntry &radio)
{
    writes->write({RowWrite::Insert, SubscriberRow(radio)});
}

void Quillmere::updateSubscriber(const RadioEntry &radio)
{
    writes->write({RowWrite::Update, SubscriberRow(radio)});
}

void Quillmere::deleteSubscriber(const RadioEntry &radio)
{
    writes->write({RowWrite::Delete, SubscriberRow(radio)});
}

void Quillmere::writeFailed(WriteStep step) const
{
    switch (step) {
    case WriteStep::InsertRow:
        return log(u"Database insert error (1)"_s, Error);
    case WriteStep::ReadId:
        return log(u"Database insert error (2)"_s, Error);
    case WriteStep::InsertServices:
        return log(u"Database insert error (3)"_s, Error);
    case WriteStep::Update:
        return log(u"Database write error"_s, Error);
    case WriteStep::Delete:
        return log(u"Database delete error"_s, Error);
    }
}

// Patient: a radio that is not loaded could not be stored again, for its old row would be in the way.
void Quillmere::loadSubscribers(std::list<RadioPointer> &radios, std::chrono::milliseconds patience)
{
    bool isHindered = false;
    Sqlite::whileHindered(QDeadlineTimer(patience), [&] {
        isHindered = !readSubscribers(radios);
        return isHindered;
    });
    if (isHindered) {
        radios.clear(); // the last one may lack services, and its review would store it so
    }
}

bool Quillmere::readSubscribers(std::list<RadioPointer> &radios) const
{
    radios.clear();
    QSqlQuery query(database);
    query.setForwardOnly(true);
    query.exec(u"SELECT subscribers.esn, subscribers.suid, subscribers.ip_address,"
               "        subscribers.availability, subscribers.last_contact_time,"
               "        subscribers.num_discovery_attempts, subscribers.last_discovery_attempt,"
               "        subscribers.protocol_version, supported_services.service FROM "
               "subscribers LEFT OUTER JOIN supported_services                  ON "
               "subscribers.id = supported_services.subscriber_id "_s);
    const QSqlRecord columns = query.record();
    const auto column = [&columns](const char *columnName) {
        return columns.indexOf(QLatin1String(columnName));
    };
    const int esnColumn = column("esn");
    const int suidColumn = column("suid");
    const int addressColumn = column("ip_address");
    const int availabilityColumn = column("availability");
    const int contactColumn = column("last_contact_time");
    const int attemptsColumn = column("num_discovery_attempts");
    const int discoveryColumn = column("last_discovery_attempt");
    const int versionColumn = column("protocol_version");
    const int serviceColumn = column("service");

    Suid
        suid; // deliberately not cleared: a row with a SUID of another length takes the one of the row before
    while (query.next()) {
        Esn esn;
        fromBlob(query.value(esnColumn).toByteArray(), esn.bytes);
        fromBlob(query.value(suidColumn).toByteArray(), suid.bytes);
        if (radios.empty() || radios.back()->esn != esn) {
            const auto radio = std::make_shared<RadioEntry>();
            radio->esn = esn;
            radio->suid = suid;
            radio->address = QHostAddress(toUnsigned(query.value(addressColumn)));
            radio->availability = toUnsigned(query.value(availabilityColumn));
            radio->lastContactTime = toTime(query.value(contactColumn));
            radio->discoveryAttempts = static_cast<quint16>(toUnsigned(query.value(attemptsColumn)));
            radio->lastDiscoveryAttempt = toTime(query.value(discoveryColumn));
            radio->protocolVersion = toUnsigned(query.value(versionColumn));
            radios.push_back(radio);
        }
        const QVariant service = query.value(serviceColumn);
        if (!service.isNull()) {
            radios.back()->supportedServices.push_back(toUnsigned(service));
        }
    }
    return !Sqlite::isPassing(query.lastError().nativeErrorCode().toInt());
}

} // namespace QMR
