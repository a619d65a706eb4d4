// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/unitstate.h"

#include "service/linux/systemctl.h"

#include <QMap>

namespace Linux {

namespace {

Scm::State activeState(const QByteArray &status)
{
    for (const Scm::State state : {Scm::StatePausePending, Scm::StatePaused, Scm::StateContinuePending}) {
        if (status == statusText(state)) {
            return state;
        }
    }
    return Scm::StateRunning;
}

Scm::State state(const QByteArray &active, const QByteArray &status)
{
    if (active == "active" || active == "reloading") {
        return activeState(status);
    }
    if (active == "activating" || active == "maintenance") {
        return Scm::StateStartPending;
    }
    if (active == "deactivating") {
        return Scm::StateStopPending;
    }
    return Scm::StateStopped; // inactive, failed
}

} // namespace

UnitState unitState(const QByteArray &properties)
{
    QMap<QByteArray, QByteArray> values;
    const QList<QByteArray> lines = properties.split('\n');
    for (const QByteArray &line : lines) {
        const qsizetype equals = line.indexOf('=');
        if (equals > 0) {
            values.insert(line.first(equals), line.sliced(equals + 1));
        }
    }
    UnitState result;
    result.state = state(values["ActiveState"], values["StatusText"]);
    result.isMasked = values["LoadState"] == "masked";
    result.isLoaded = !values["LoadState"].isEmpty() && values["LoadState"] != "not-found";
    result.waitsForRestart = values["SubState"] == "auto-restart";
    result.hasReported = !values["StatusText"].isEmpty();
    result.exitCode = values["ExecMainStatus"].toUInt();
    result.invocation = values["InvocationID"];
    return result;
}

bool queryUnit(const QString &unit, UnitState &state)
{
    const CommandResult shown =
        systemctl({"show", "--property=LoadState,ActiveState,SubState,StatusText,ExecMainStatus,InvocationID",
                   "--", unit.toLatin1() + ".service"});
    if (shown.exitCode != 0) {
        return false;
    }
    state = unitState(shown.output);
    return true;
}

QByteArray statusText(Scm::Dword state)
{
    switch (state) {
    case Scm::StateStopped:
        return "Stopped";
    case Scm::StateStartPending:
        return "Starting";
    case Scm::StateStopPending:
        return "Stopping";
    case Scm::StateRunning:
        return "Running";
    case Scm::StateContinuePending:
        return "Resuming";
    case Scm::StatePausePending:
        return "Pausing";
    case Scm::StatePaused:
        return "Paused";
    default:
        return {};
    }
}

} // namespace Linux
