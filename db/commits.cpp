// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "apps/applicationmanager.h"
#include "db/writegroup.h"
#include "radio/registrationmanager.h"

#include <QElapsedTimer>

#include <limits>

namespace QMR {

namespace {

constexpr int OwedWritesPause = 1000; // ms
constexpr int OwedWritesRound = 20;   // ms, then the rest of the event loop has its turn

} // namespace

void Quillmere::commitWrites()
{
    if (writes) {
        writes->commit();
    }
}

bool Quillmere::holdsBack() const
{
    return writes && writes->isOpen();
}

void Quillmere::groupStored()
{
    if (applicationManager) {
        applicationManager->sendHeldBack();
    }
    if (registrationManager) {
        registrationManager->sendHeldBack();
    }
    if (!writes->owed().isEmpty() && !owedWritesTimer.isActive()) {
        owedWritesTimer.start(OwedWritesPause);
    }
}

void Quillmere::eventOwedWritesDue()
{
    retryOwedWrites(OwedWritesRound);
    if (!writes->owed().isEmpty()) {
        owedWritesTimer.start(writes->isRetryBlocked() ? OwedWritesPause : 0);
    }
}

void Quillmere::retryOwedWrites(qint64 milliseconds)
{
    const WriteTurn turn(writes.get());
    QElapsedTimer spent;
    spent.start();
    bool goesOn = true;
    for (auto esn = writes->owed().first(); esn && goesOn; esn = writes->owed().after(*esn)) {
        const RadioPointer radio = findRadio(*esn);
        const bool isStored = radio && !radio->address.isNull();
        writes->retry(isStored ? RowWrite::Update : RowWrite::Delete,
                      isStored ? SubscriberRow(*radio) : SubscriberRow(*esn));
        goesOn = !writes->isRetryBlocked() && !spent.hasExpired(milliseconds);
    }
}

} // namespace QMR
