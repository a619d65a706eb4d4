// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/identity.h"

#include <QTimer>

#include <functional>
#include <optional>

namespace Follow {

// Tells where the table that a server sends to a new connection ends and its changes begin. The server puts
// no mark there: the first notice that is out of the order of the ESNs is a change, and so is what comes
// after half a second without a notice. After such a pause it may still be that the network only stood still.
class Snapshot
{
public:
    // radios: so many were told, and they were all that the server had. Called in front of the change that
    // shows it.
    std::function<void(qint64 radios)> onEnd = [](qint64) {};
    // What the server had before and has not told of again is gone: at the end where a change has shown it,
    // otherwise only when the network has had time to go on. A radio that is shown for too long is better
    // than all of them gone and back.
    std::function<void()> onCertain = [] {};

    // ms
    static constexpr int PauseBehindTable = 500; // the server tells its radios without one
    static constexpr int StandstillOfNetwork = 10000;

    explicit Snapshot(int pause = PauseBehindTable, int standstill = StandstillOfNetwork);
    Q_DISABLE_COPY_MOVE(Snapshot)

    void begin(); // with each connection
    // Whether a notice of this radio, the next to come, belongs to the snapshot.
    bool takes(const QMR::Esn &esn);
    void abandon(); // with the connection: it has no end then

private:
    void end();

    std::optional<QMR::Esn> last;
    qint64 radios = 0;
    QTimer quiet;      // active while the snapshot goes on
    QTimer standstill; // active while it has ended, and that is not certain
};

} // namespace Follow
