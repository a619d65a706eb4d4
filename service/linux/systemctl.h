// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// systemctl, the way to the service manager: run without a shell, with an environment of its own, nothing of
// it on the console, and never waited for without a bound.
#pragma once

#include "service/linux/errors.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

namespace Linux {

// Where the service manager's things lie on this machine; a test names others.
struct Places
{
    QByteArrayList unitFolders = {"/etc/systemd/system", "/run/systemd/system",
                                  "/usr/local/lib/systemd/system", "/usr/lib/systemd/system",
                                  "/lib/systemd/system"}; // the first one is ours
    QByteArray runtimeFolder = "/run";
    QByteArray systemctl = "/usr/bin/systemctl";
    int timeoutMilliseconds = 60000; // for each call of systemctl, and for a service to begin
};
Places &places();

struct CommandResult
{
    int exitCode = -1; // -1: not run, ended by a signal or not ended in time
    QByteArray output; // standard output, at most 64 KiB of it
};

CommandResult systemctl(const QByteArrayList &arguments);

// As above, for an operation that changes something. On failure the last error is set: access denied to
// anyone but root, service manager unavailable to root.
bool systemctlDoes(const QByteArrayList &arguments);

} // namespace Linux
