// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "db/statements.h"
#include "db/transaction.h"

#include <QSqlQuery>
#include <QSqlRecord>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

template<size_t Size>
QByteArray toBlob(const std::array<quint8, Size> &bytes)
{
    return QByteArray(reinterpret_cast<const char *>(bytes.data()), Size);
}

// Leaves bytes as they are when the blob has another length.
template<size_t Size>
void fromBlob(const QByteArray &blob, std::array<quint8, Size> &bytes)
{
    if (blob.size() == Size) {
        std::copy(blob.begin(), blob.end(), bytes.begin());
    }
}

// Whole seconds since 1970; a time that was never set is stored as 0.
qint64 toSeconds(const QDateTime &time)
{
    return time.isValid() ? time.toSecsSinceEpoch() : 0;
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

void Quillmere::writeFailed(const QString &message)
{
    ++failedWrites;
    log(message, Error);
}

void Quillmere::insertSubscriber(const RadioEntry &radio)
{
    const QByteArray esn = toBlob(radio.esn.bytes);
    Transaction transaction(database);
    if (!statements->insertSubscriber.run(
            {{u":esn"_s, esn},
             {u":suid"_s, toBlob(radio.suid.bytes)},
             {u":addr"_s, radio.address.toIPv4Address()},
             {u":avail"_s, static_cast<int>(radio.availability)},
             {u":contact_time"_s, toSeconds(radio.lastContactTime)},
             {u":attempts"_s, static_cast<int>(radio.discoveryAttempts)},
             {u":discover_time"_s, toSeconds(radio.lastDiscoveryAttempt)},
             {u":protocol_version"_s, static_cast<int>(radio.protocolVersion)}})) {
        return writeFailed(u"Database insert error (1)"_s);
    }
    const QVariant id =
        statements->selectId.run({{u":esn"_s, esn}}) ? statements->selectId.takeFirstValue() : QVariant();
    if (!id.isValid()) {
        return writeFailed(u"Database insert error (2)"_s);
    }
    if (!insertServices(id.toInt(), radio.supportedServices) || !transaction.commit()) {
        writeFailed(u"Database insert error (3)"_s);
    }
}

bool Quillmere::insertServices(int id, const ServiceList &services)
{
    return std::all_of(services.begin(), services.end(), [this, id](quint32 service) {
        return statements->insertService.run({{u":id"_s, id}, {u":service"_s, static_cast<int>(service)}});
    });
}

void Quillmere::updateSubscriber(const RadioEntry &radio)
{
    Transaction transaction(database);
    if (!writeUpdate(radio) || !transaction.commit()) {
        writeFailed(u"Database write error"_s);
    }
}

bool Quillmere::writeUpdate(const RadioEntry &radio)
{
    const QVariant id = statements->selectId.run({{u":esn"_s, toBlob(radio.esn.bytes)}})
                            ? statements->selectId.takeFirstValue()
                            : QVariant();
    return id.isValid() &&
           statements->updateSubscriber.run(
               {{u":suid"_s, toBlob(radio.suid.bytes)},
                {u":addr"_s, radio.address.toIPv4Address()},
                {u":avail"_s, static_cast<int>(radio.availability)},
                {u":contact_time"_s, toSeconds(radio.lastContactTime)},
                {u":attempts"_s, static_cast<int>(radio.discoveryAttempts)},
                {u":discover_time"_s, toSeconds(radio.lastDiscoveryAttempt)},
                {u":protocol_version"_s, static_cast<int>(radio.protocolVersion)},
                {u":id"_s, id.toInt()}}) &&
           statements->deleteServices.run({{u":id"_s, id.toInt()}}) &&
           insertServices(id.toInt(), radio.supportedServices);
}

void Quillmere::deleteSubscriber(const RadioEntry &radio)
{
    if (!statements->deleteSubscriber.run({{u":esn"_s, toBlob(radio.esn.bytes)}})) {
        writeFailed(u"Database delete error"_s);
    }
}

void Quillmere::loadSubscribers(std::list<RadioPointer> &radios)
{
    radios.clear();
    QSqlQuery query(database);
    query.setForwardOnly(true);
    query.exec(u"SELECT subscribers.esn, subscribers.suid, subscribers.ip_address,"
               "        subscribers.availability, subscribers.last_contact_time,"
               "        subscribers.num_discovery_attempts, subscribers.last_discovery_attempt,"
               "        subscribers.protocol_version, supported_services.service FROM subscribers "
               "LEFT OUTER JOIN supported_services                  ON subscribers.id = "
               "supported_services.subscriber_id "_s);
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
}

} // namespace QMR
