// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The account that a service is to run under.
#pragma once

#include <QString>

#include <optional>

namespace Linux {

// The User= of a unit for an account as the service-control functions name it: ".\name" is a local user,
// "DOMAIN\name" one that the machine's name service knows under that name. Nothing when there is no such
// user.
std::optional<QString> unitUser(const QString &account);

} // namespace Linux
