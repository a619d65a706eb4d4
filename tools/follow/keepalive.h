// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QtGlobal>

namespace Follow {

// A server may have nothing to say for hours, and one that is cut off says nothing either: with this the
// system asks it after twenty seconds of silence, and ends the connection when there is no answer for
// fifteen. It costs the server nothing. socket: a connected one of TCP. What the system refuses of it is left
// as it is.
void keepAlive(qintptr socket);

} // namespace Follow
