// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The parameters of one start, on their way from whoever starts a service to its process: a file in the
// unit's runtime directory, which systemd hands to the service's account as it starts it and removes when it
// stops.
#pragma once

#include <QByteArray>
#include <QStringList>

namespace Linux {

// Before the start, by root: makes the runtime directory and the file. False, and the last error set, when
// that is not possible: 5, or 87 for parameters that take more than 1 MiB of UTF-8, an end each included.
bool storeStartParameters(const QByteArray &runtimeDirectory, const QStringList &parameters);

// By the service: reads the file and removes it, so that a restart after a failure finds none.
QStringList takeStartParameters(const QByteArray &runtimeDirectory);

} // namespace Linux
