// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/rate.h"
#include "tools/monitor/table.h"

namespace Monitor {

// How often radios registered, or changed, of late. Its times are ms of a clock that does not go back.
class Activity
{
public:
    explicit Activity(qint64 now);

    void registered(qint64 now);
    void changed(qint64 now);

    struct Counts
    {
        std::vector<quint32> registrations;
        std::vector<quint32> changes;
    };
    Counts seconds(qint64 now);            // of the last 15 minutes
    Counts minutes(qint64 now);            // of the last day
    quint32 lastRegistrations(qint64 now); // of the last whole second
    quint32 lastChanges(qint64 now);

private:
    Rate registrationsInSeconds;
    Rate registrationsInMinutes;
    Rate changesInSeconds;
    Rate changesInMinutes;
};

// What is known of the servers and their radios, and told to whoever asks.
struct Observed
{
    // newStarted: ms since 1970, UTC; the activity's clock begins at 0.
    Observed(const QStringList &servers, qint64 newStarted) : table(servers), activity(0), started(newStarted)
    {
    }

    Table table;
    Activity activity;
    qint64 started;
    QByteArray status;        // as it was put into words last
    quint64 statusNumber = 0; // of that; 0: it has not been, yet
};

} // namespace Monitor
