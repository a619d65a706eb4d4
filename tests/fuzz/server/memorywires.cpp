// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/fuzz/server/memorywires.h"

#include "apps/applicationlistener.h"
#include "radio/radiosocket.h"

#include <algorithm>
#include <utility>

MemoryWires &wires()
{
    static MemoryWires wires;
    return wires;
}

MemorySocket::MemorySocket(QObject *parent) : QTcpSocket(parent)
{
    setPeerAddress(QHostAddress(QHostAddress::LocalHost));
    setPeerPort(40000);
    setSocketState(ConnectedState);
    setOpenMode(ReadWrite | Unbuffered);
}

void MemorySocket::receives(const QByteArray &bytes)
{
    incoming.append(bytes);
    emit readyRead();
}

void MemorySocket::ends(SocketError error)
{
    emit errorOccurred(error);
    ended = true;
    emit disconnected();
}

QByteArray MemorySocket::takeTold()
{
    return std::exchange(told, QByteArray());
}

void MemorySocket::setStalled(bool isStalled)
{
    stalled = isStalled;
    if (!stalled && unsent > 0) {
        emit bytesWritten(std::exchange(unsent, 0));
    }
}

void MemorySocket::setUnsent(qint64 bytes)
{
    stalled = true;
    unsent = bytes;
}

void MemorySocket::endsLate()
{
    endingLate = true;
}

bool MemorySocket::waitForReadyRead(int)
{
    if (endingLate) {
        ends(NetworkError);
        return false;
    }
    if (late.isEmpty()) {
        emit errorOccurred(SocketTimeoutError); // as a real one does
        return false;
    }
    receives(std::exchange(late, QByteArray()));
    return true;
}

qint64 MemorySocket::readData(char *data, qint64 size)
{
    const qint64 count = std::min<qint64>(size, incoming.size());
    std::copy_n(incoming.constData(), count, data);
    incoming.remove(0, count);
    return count;
}

qint64 MemorySocket::writeData(const char *data, qint64 size)
{
    if (ended) {
        qFatal("something is written to an application that has ended");
    }
    told.append(data, size);
    unsent += stalled ? size : 0;
    return size;
}

namespace QMR {

RadioSocket::RadioSocket(quint16, std::function<void()> arrived)
    : hasArrived(std::move(arrived)), bound(wires().isPortFree)
{
    wires().datagramArrived = [this] { readyRead(); };
}

void RadioSocket::readyRead()
{
    hasArrived();
}

bool RadioSocket::hasWaiting() const
{
    return !wires().incoming.empty();
}

RadioSocket::Datagram RadioSocket::take()
{
    const MemoryWires::Datagram arrived = wires().incoming.front();
    wires().incoming.pop_front();
    Datagram datagram;
    datagram.size = std::min<qint64>(arrived.bytes.size(), Qmrs::MaximumMessage);
    std::copy_n(arrived.bytes.begin(), datagram.size, datagram.bytes.begin());
    datagram.sender = arrived.address;
    datagram.port = arrived.port;
    return datagram;
}

bool RadioSocket::send(QByteArrayView bytes, const QHostAddress &destination, quint16 port)
{
    if (wires().refusing) {
        ++wires().refused;
        return false;
    }
    wires().sent.append({bytes.toByteArray(), destination, port});
    return true;
}

ApplicationListener::ApplicationListener(quint16, std::function<void()> connected)
{
    wires().applicationConnected = std::move(connected);
}

bool ApplicationListener::isListening() const
{
    return true;
}

QTcpSocket *ApplicationListener::take()
{
    if (wires().connecting.empty()) {
        return nullptr;
    }
    MemorySocket *const socket = wires().connecting.front();
    wires().connecting.pop_front();
    return socket;
}

bool ApplicationListener::isUsable(const QTcpSocket &)
{
    return true;
}

void ApplicationListener::review()
{
}

void ApplicationListener::limitAccepting()
{
}

} // namespace QMR
