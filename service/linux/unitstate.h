// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// A unit's state as systemd shows it, in the words of the service-control functions.
#pragma once

#include "service/scm.h"

#include <QByteArray>
#include <QString>

namespace Linux {

struct UnitState
{
    Scm::State state = Scm::StateStopped;
    bool isLoaded = false;        // there is a unit file
    bool isMasked = false;        // the administrator forbids starting it
    bool waitsForRestart = false; // it failed, and systemd will start it again
    bool hasReported = false;     // its process has told a status since it was started
    Scm::Dword exitCode = 0;
    QByteArray invocation; // another one for each start
};

// Reads what systemctl show printed.
UnitState unitState(const QByteArray &properties);

// Asks systemd. A unit that systemd does not know is stopped and not loaded. False: systemd gave no answer.
bool queryUnit(const QString &unit, UnitState &state);

// The status text by which a service tells its state; systemd itself knows nothing of pausing.
QByteArray statusText(Scm::Dword state);

} // namespace Linux
