// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/ports.h"

#include <QFile>
#include <QStringList>

#include <algorithm>

#include <sys/socket.h>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

// A line a socket: number, local address and port, remote ones, state, all hexadecimal; then what is not
// asked for here. state: empty: any.
bool isListedAt(const QString &file, const QByteArray &state, quint16 port)
{
    QFile table(file);
    if (!table.open(QIODevice::ReadOnly)) {
        return false; // a system without IPv6
    }
    const QByteArray wanted = ':' + QByteArray::number(port, 16).rightJustified(4, '0').toUpper();
    const QList<QByteArray> lines = table.readAll().split('\n');
    return std::any_of(lines.begin(), lines.end(), [&](const QByteArray &line) {
        const QList<QByteArray> fields = line.simplified().split(' ');
        return fields.size() > 3 && fields[1].endsWith(wanted) && (state.isEmpty() || fields[3] == state);
    });
}

} // namespace

bool isListenedAt(Protocol protocol, quint16 port)
{
    const bool isUdp = protocol == Protocol::Udp;
    // A program may listen at the port of another's TCP connection; a port of UDP is one program's in any
    // state.
    const QByteArray state = isUdp ? QByteArray() : QByteArray("0A");
    const QString table = isUdp ? u"/proc/net/udp"_s : u"/proc/net/tcp"_s;
    return isListedAt(table, state, port) || isListedAt(table + u'6', state, port);
}

quint16 firstPortForAll()
{
    QFile file(u"/proc/sys/net/ipv4/ip_unprivileged_port_start"_s);
    return file.open(QIODevice::ReadOnly) ? static_cast<quint16>(file.readAll().trimmed().toUInt())
                                          : quint16{1024};
}

void endSending(qintptr socket)
{
    ::shutdown(static_cast<int>(socket), SHUT_WR);
}

} // namespace CheckTool
