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
// after half a second without a notice.
class Snapshot
{
public:
    // After a pause it may be that the network only stood still, and more of it comes.
    enum class End { AfterPause, Certain };
    // radios: so many were told, and they were all that the server had. Called in front of the change that
    // shows it.
    std::function<void(qint64 radios, End end)> onEnd;

    Snapshot();
    Q_DISABLE_COPY_MOVE(Snapshot)

    void begin(); // with each connection
    // Whether a notice of this radio, the next to come, belongs to the snapshot.
    bool takes(const QMR::Esn &esn);
    void abandon(); // with the connection: it has no end then
    bool isGoingOn() const { return quiet.isActive(); }

private:
    void end(End how);

    std::optional<QMR::Esn> last;
    qint64 radios = 0;
    QTimer quiet; // active while the snapshot goes on
};

} // namespace Follow
