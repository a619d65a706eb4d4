// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/rowwriter.h"

#include <algorithm>

namespace QMR {

namespace {

template<size_t Size>
QByteArrayView toBlob(const std::array<quint8, Size> &bytes)
{
    return QByteArrayView(bytes.data(), static_cast<qsizetype>(Size));
}

} // namespace

std::optional<WriteStep> RowWriter::write(const RowWrite &write, OwedWrites::Debt debt)
{
    const SubscriberRow &row = write.row;
    switch (write.kind) {
    case RowWrite::Insert:
        // The row of the radio that had this ESN before may still wait for its deletion.
        if (debt != OwedWrites::Debt::None && !statements.deleteSubscriber.run({toBlob(row.esn.bytes)})) {
            return WriteStep::InsertRow;
        }
        return insert(row);
    case RowWrite::Update:
        return update(row, debt) ? std::nullopt : std::optional(WriteStep::Update);
    default:
        return statements.deleteSubscriber.run({toBlob(row.esn.bytes)}) ? std::nullopt
                                                                        : std::optional(WriteStep::Delete);
    }
}

std::optional<qint64> RowWriter::rowOf(const Esn &esn)
{
    return statements.selectId.firstValue({toBlob(esn.bytes)});
}

std::optional<WriteStep> RowWriter::insert(const SubscriberRow &row)
{
    if (!statements.insertSubscriber.run({toBlob(row.esn.bytes), toBlob(row.suid.bytes), qint64{row.address},
                                          qint64{row.availability}, row.lastContact,
                                          qint64{row.discoveryAttempts}, row.lastDiscoveryAttempt,
                                          qint64{row.protocolVersion}})) {
        return WriteStep::InsertRow;
    }
    const std::optional<qint64> id = rowOf(row.esn);
    if (!id) {
        return WriteStep::ReadId;
    }
    return insertServices(*id, row.services) ? std::nullopt : std::optional(WriteStep::InsertServices);
}

bool RowWriter::update(const SubscriberRow &row, OwedWrites::Debt debt)
{
    const std::optional<qint64> id = rowOf(row.esn);
    if (!id) {
        const bool isExpected = debt == OwedWrites::Debt::Insert || debt == OwedWrites::Debt::Unknown;
        return isExpected && !insert(row);
    }
    return statements.updateSubscriber.run(
               {toBlob(row.suid.bytes), qint64{row.address}, qint64{row.availability}, row.lastContact,
                qint64{row.discoveryAttempts}, row.lastDiscoveryAttempt, qint64{row.protocolVersion}, *id}) &&
           statements.deleteServices.run({*id}) && insertServices(*id, row.services);
}

bool RowWriter::insertServices(qint64 id, const ServiceList &services)
{
    return std::all_of(services.begin(), services.end(), [this, id](quint32 service) {
        return statements.insertService.run({id, qint64{static_cast<qint32>(service)}});
    });
}

} // namespace QMR
