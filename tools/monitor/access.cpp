// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/access.h"

#include <QCryptographicHash>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace Monitor {

namespace {

const auto Scheme = "basic "_ba;

QByteArray digest(const QByteArray &login)
{
    return QCryptographicHash::hash(login, QCryptographicHash::Sha256);
}

} // namespace

Console::Parsed<Access::Network> Access::parseNetwork(const QString &text)
{
    const qsizetype slash = text.indexOf(u'/');
    const auto address = Console::parseAddress(slash < 0 ? text : text.left(slash));
    const auto bits =
        slash < 0 ? Console::Parsed<quint64>::of(32) : Console::parseNumber(text.mid(slash + 1), 0, 32);
    if (!address || !bits) {
        return Console::Parsed<Network>::failed(u"'%1' is neither an IPv4 address nor a network"_s.arg(text));
    }
    return Console::Parsed<Network>::of({*address, static_cast<int>(*bits)});
}

Console::Parsed<QList<QByteArray>> Access::parseLogins(const QByteArray &content, const QString &file)
{
    using Logins = Console::Parsed<QList<QByteArray>>;
    QList<QByteArray> logins;
    const QList<QByteArray> lines = content.split('\n');
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray line = lines[i].endsWith('\r') ? lines[i].chopped(1) : lines[i];
        if (line.trimmed().isEmpty() || line.startsWith('#')) {
            continue;
        }
        const qsizetype colon = line.indexOf(':');
        if (colon < 1 || colon == line.size() - 1) {
            // Not the line itself: it may hold a password.
            return Logins::failed(u"%1: line %2 is not NAME:PASSWORD"_s.arg(file).arg(i + 1));
        }
        logins.append(line);
    }
    return logins.isEmpty() ? Logins::failed(u"%1: it names nobody"_s.arg(file)) : Logins::of(logins);
}

Access::Access(QList<Network> newNetworks, QList<QByteArray> newLogins)
    : networks(std::move(newNetworks)), logins(std::move(newLogins))
{
    std::transform(logins.begin(), logins.end(), logins.begin(), digest);
}

bool Access::admits(const QHostAddress &peer) const
{
    const QHostAddress plain(peer.toIPv4Address());
    return networks.isEmpty() ||
           std::any_of(networks.begin(), networks.end(),
                       [&plain](const Network &network) { return plain.isInSubnet(network); });
}

bool Access::knows(const QByteArray &authorization) const
{
    if (logins.isEmpty()) {
        return true;
    }
    if (authorization.left(Scheme.size()).toLower() != Scheme) {
        return false;
    }
    const auto decoded = QByteArray::fromBase64Encoding(authorization.mid(Scheme.size()).trimmed());
    // Digests are compared: how long that takes tells nothing about a password.
    return decoded && logins.contains(digest(*decoded));
}

} // namespace Monitor
