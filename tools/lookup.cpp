// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/lookup.h"

#include <QHostInfo>

using namespace Qt::StringLiterals;

namespace Console {

Parsed<QHostAddress> lookUp(const QString &name)
{
    const QHostInfo host = QHostInfo::fromName(name);
    if (host.error() != QHostInfo::NoError) {
        return Parsed<QHostAddress>::failed(u"'%1' cannot be looked up: %2"_s.arg(name, host.errorString()));
    }
    for (const QHostAddress &address : host.addresses()) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol) {
            return Parsed<QHostAddress>::of(address);
        }
    }
    return Parsed<QHostAddress>::failed(u"'%1' has no IPv4 address"_s.arg(name));
}

} // namespace Console
