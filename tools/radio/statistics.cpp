// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/statistics.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace RadioTool {

namespace {

// A value's 11 leading bits and its magnitude choose its bucket: below 2048 each value has one of its own,
// then each doubling has 1024.
constexpr int LeadingBits = 11;
constexpr quint64 BucketsADoubling = 1U << (LeadingBits - 1);
constexpr quint64 LargestValue = 0xFFFFFFFF; // 71 minutes
constexpr quint64 BucketCount = (32 - LeadingBits) * BucketsADoubling + 2 * BucketsADoubling;

quint64 bucketOf(quint64 value)
{
    const int shift = std::max(static_cast<int>(std::bit_width(value)) - LeadingBits, 0);
    return static_cast<quint64>(shift) * BucketsADoubling + (value >> shift);
}

quint64 smallestIn(quint64 bucket)
{
    if (bucket < 2 * BucketsADoubling) {
        return bucket;
    }
    const quint64 shift = bucket / BucketsADoubling - 1;
    return (bucket - shift * BucketsADoubling) << shift;
}

} // namespace

void Statistics::addLatency(qint64 nanoseconds)
{
    const quint64 value =
        std::min(static_cast<quint64>(std::max<qint64>(nanoseconds, 0)) / 1000, LargestValue);
    buckets.resize(BucketCount);
    ++buckets[bucketOf(value)];
    ++count;
    largest = std::max(largest, value);
}

quint64 Statistics::percentile(double percent) const
{
    const auto rank = static_cast<quint64>(std::ceil(percent / 100 * static_cast<double>(count)));
    quint64 seen = 0;
    for (quint64 bucket = 0; bucket < buckets.size(); ++bucket) {
        seen += buckets[bucket];
        if (seen >= rank) {
            return smallestIn(bucket);
        }
    }
    return largest;
}

double Statistics::acknowledgedPerSecond() const
{
    return elapsed > 0 ? static_cast<double>(count) * 1000 / static_cast<double>(elapsed) : 0;
}

} // namespace RadioTool
