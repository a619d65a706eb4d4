// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/snapshot.h"

namespace Follow {

namespace {

constexpr int PauseAfterSnapshot = 500; // ms; the server tells its radios without a pause

} // namespace

Snapshot::Snapshot()
{
    quiet.setSingleShot(true);
    quiet.setInterval(PauseAfterSnapshot);
    QObject::connect(&quiet, &QTimer::timeout, &quiet, [this] { end(End::AfterPause); });
}

void Snapshot::begin()
{
    radios = 0;
    last.reset();
    quiet.start();
}

bool Snapshot::takes(const QMR::Esn &esn)
{
    if (!quiet.isActive()) {
        return false;
    }
    if (last && !(*last < esn)) {
        end(End::Certain);
        return false;
    }
    last = esn;
    ++radios;
    quiet.start();
    return true;
}

void Snapshot::abandon()
{
    quiet.stop();
}

void Snapshot::end(End how)
{
    quiet.stop();
    onEnd(radios, how);
}

} // namespace Follow
