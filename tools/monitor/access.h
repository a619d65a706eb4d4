// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/console.h"
#include "tools/monitor/http.h"

#include <QHostAddress>
#include <QList>
#include <QString>

#include <utility>

namespace Monitor {

// Who may ask.
class Access
{
public:
    using Network = std::pair<QHostAddress, int>;

    // "10.0.0.5" or "10.0.0.0/8"
    static Console::Parsed<Network> parseNetwork(const QString &text);
    // A line a user, "name:password"; empty lines and such as begin with "#" are none. file: its name, for
    // the error.
    static Console::Parsed<QList<QByteArray>> parseLogins(const QByteArray &content, const QString &file);

    // Empty lists: everybody, without a login.
    Access() = default;
    Access(QList<Network> networks, QList<QByteArray> logins);

    // Whether the request's sender is among the networks.
    bool admits(const QHostAddress &peer) const;
    // Whether it has a login, where one is needed.
    bool knows(const QByteArray &authorization) const;

private:
    QList<Network> networks;
    QList<QByteArray> logins; // digests
};

} // namespace Monitor
