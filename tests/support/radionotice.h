// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"

// What an application is told of a made-up radio. serial: the last byte of ESN, SUID and address.
inline QMR::Qmra::RadioNotice radioNotice(int serial, quint8 availability = QMR::Registered,
                                          bool pending = false)
{
    const auto last = static_cast<quint8>(serial);
    return {{{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, last}},
            {{0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, last}},
            pending,
            availability == QMR::Deregistered ? 0 : 0x0A000000U + last,
            availability,
            {1, 3}};
}
