// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/snapshot.h"

namespace Follow {

Snapshot::Snapshot(int newPause, int newStandstill)
{
    quiet.setSingleShot(true);
    quiet.setInterval(newPause);
    standstill.setSingleShot(true);
    standstill.setInterval(newStandstill);
    QObject::connect(&quiet, &QTimer::timeout, &quiet, [this] {
        end();
        standstill.start();
    });
    QObject::connect(&standstill, &QTimer::timeout, &standstill, [this] { onCertain(); });
}

void Snapshot::begin()
{
    radios = 0;
    last.reset();
    standstill.stop();
    quiet.start();
}

bool Snapshot::takes(const QMR::Esn &esn)
{
    if (!quiet.isActive()) {
        return false;
    }
    if (last && !(*last < esn)) {
        end();
        onCertain();
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
    standstill.stop();
}

void Snapshot::end()
{
    quiet.stop();
    onEnd(radios);
}

} // namespace Follow
