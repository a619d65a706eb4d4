// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Functions of the system that are looked up by name, so that the program starts where one is missing.
#pragma once

#include "service/scm.h"

#include <QFunctionPointer>
#include <QString>

#include <functional>
#include <optional>

namespace Windows {

// A library's function of that name; null when it has none.
using Resolver = std::function<QFunctionPointer(const char *name)>;

// Sets each service-control function to what advapi32's resolver gives for it.
void provide(Scm::Functions &functions, const Resolver &advapi32);

// The folder as shell32's function tells it, empty when the function fails; nothing when there is no
// function.
std::optional<QString> commonDataFolder(const Resolver &shell32);

} // namespace Windows
