// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Any bytes as a datagram, from a radio and from the server. What is accepted must also hold together.
#include "radio/qmrs.h"

#include <cstdlib>

namespace {

void check(bool holds)
{
    if (!holds) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QByteArrayView datagram(data,
                                  static_cast<qsizetype>(std::min<size_t>(size, QMR::Qmrs::MaximumMessage)));
    const auto decoded = QMR::Qmrs::decodeRadioMessage(datagram);
    if (const auto *registration = std::get_if<QMR::Qmrs::Registration>(&decoded)) {
        check(datagram.size() > QMR::Qmrs::HeaderSize);
        check(registration->protocolVersion >= 1 && registration->protocolVersion <= 3);
        check(!registration->pending || registration->protocolVersion == 3);
        check(registration->services.size() <= 255);
        for (const quint32 service : registration->services) {
            check(service >= 1 && service <= 3);
        }
        if (registration->protocolVersion == 1) {
            check(registration->suid == QMR::Suid{});
        } else {
            check(!registration->esn.isZero());
        }
    } else if (std::holds_alternative<QMR::Qmrs::Deregistration>(decoded)) {
        check(datagram.size() == QMR::Qmrs::HeaderSize);
    }
    QMR::Qmrs::decodeServerMessage(datagram);
    return 0;
}
