// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

namespace QMR {

// The identifier of the server's records in the operating system's event log, but for the few that have 0.
constexpr auto EventId = static_cast<int>(0xC0000001);

} // namespace QMR
