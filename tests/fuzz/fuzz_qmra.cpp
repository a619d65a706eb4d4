// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Any bytes as a header and a payload, from an application and from the server.
#include "apps/qmra.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView bytes(data, static_cast<qsizetype>(size));
    if (bytes.size() < QMR::Qmra::HeaderSize) {
        return 0;
    }
    QMR::Qmra::decodeHeader(bytes.first(QMR::Qmra::HeaderSize));
    const QByteArrayView payload = bytes.sliced(QMR::Qmra::HeaderSize);
    if (payload.size() == QMR::Qmra::ReportPayload) {
        const auto report = QMR::Qmra::decodeReport(payload);
        if (QMR::Qmra::encodeReport(report).sliced(QMR::Qmra::HeaderSize) != payload) {
            std::abort();
        }
    }
    if (const auto notice = QMR::Qmra::decodeNotice(payload)) {
        const auto again = QMR::Qmra::encodeNotice(*notice);
        if (QMR::Qmra::decodeNotice(again.view().sliced(QMR::Qmra::HeaderSize)) != notice) {
            std::abort();
        }
    }
    return 0;
}
