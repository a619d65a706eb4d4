// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

#include <vector>

namespace RadioTool {

// Counts of one run, and the latencies of its acknowledgements: in microseconds, exact up to 2 ms and within
// a thousandth above, in an amount of memory that does not grow.
class Statistics
{
public:
    quint64 sent = 0; // registrations, however often repeated
    quint64 lost = 0;
    quint64 repeated = 0;     // datagrams sent beyond the first of a registration
    quint64 late = 0;         // acknowledgements that nothing waited for any more
    quint64 unexpected = 0;   // datagrams of any other kind
    quint64 discoveries = 0;  // discovery requests received
    quint64 deregistered = 0; // deregistrations sent; the server answers none
    qint64 elapsed = 0;       // ms

    void addLatency(qint64 nanoseconds);

    quint64 acknowledged() const { return count; }
    // Nearest rank, 0 < percent <= 100; 0 when there was no acknowledgement.
    quint64 percentile(double percent) const;
    quint64 maximum() const { return largest; }
    double acknowledgedPerSecond() const;

private:
    std::vector<quint64> buckets;
    quint64 count = 0;
    quint64 largest = 0;
};

} // namespace RadioTool
