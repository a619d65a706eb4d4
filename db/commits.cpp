// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"

#include "apps/applicationmanager.h"
#include "core/clock.h"
#include "db/writegroup.h"
#include "radio/registrationmanager.h"

using namespace std::chrono_literals;

namespace QMR {

namespace {

constexpr int OwedWritesPause = 1000;  // ms
constexpr auto OwedWritesRound = 20ms; // then the rest of the event loop has its turn

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

bool Quillmere::commitIsComing() const
{
    return holdsBack() && registrationManager && registrationManager->hasWaiting();
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
    const bool wholeRound = retryOwedWrites(OwedWritesRound);
    if (!writes->owed().isEmpty()) {
        owedWritesTimer.start(wholeRound || writes->isLockedOut() ? OwedWritesPause : 0);
    }
}

// Goes on behind the radio with which the last round ended. True: all that can be tried now has been.
bool Quillmere::retryOwedWrites(std::chrono::nanoseconds longest)
{
    const WriteTurn turn(writes.get());
    const TimeSlice round(longest);
    auto esn = lastRetried ? writes->owed().after(*lastRetried) : writes->owed().first();
    for (; esn; esn = writes->owed().after(*esn)) {
        const RadioPointer radio = findRadio(*esn);
        const bool isStored = radio && !radio->address.isNull();
        const WriteResult result = writes->retry(isStored ? RowWrite::Update : RowWrite::Delete,
                                                 isStored ? SubscriberRow(*radio) : SubscriberRow(*esn));
        // A lock is in the way of all of them; a full disk may be in the way of one.
        if (result == WriteResult::Locked) {
            return true;
        }
        if (round.isOver() && writes->owed().after(*esn)) {
            lastRetried = esn;
            return false;
        }
    }
    lastRetried.reset();
    return true;
}

} // namespace QMR
