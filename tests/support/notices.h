// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Notices for tests of those that follow a server.
#pragma once

#include "apps/qmra.h"

namespace Notices {

// The radio 00000000000000NN with the SUID 12345/678/0000NN at 10.0.0.NN, services 1 and 3.
inline QMR::Qmra::RadioNotice of(int serial, quint8 availability = QMR::Registered, bool pending = false)
{
    const auto last = static_cast<quint8>(serial);
    return {{{0, 0, 0, 0, 0, 0, 0, last}},
            {{0x12, 0x34, 0x56, 0x78, 0, 0, last}},
            pending,
            availability == QMR::Deregistered ? 0 : 0x0A000000U + last,
            availability,
            {1, 3}};
}

} // namespace Notices
