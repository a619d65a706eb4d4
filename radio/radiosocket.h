// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/qmrs.h"

#include <QHostAddress>
#include <QUdpSocket>

#include <functional>

namespace QMR {

// The UDP socket of the radios, and nothing of what they say.
class RadioSocket
{
public:
    struct Datagram
    {
        Qmrs::Buffer bytes{};
        qint64 size = 0; // of a longer one the first bytes; of one that could not be read none
        QHostAddress sender;
        quint16 port = 0;
    };

    // Binds the port on all addresses. arrived: is called for each datagram that waits, which is to be taken
    // then. A socket that could not be bound receives nothing, but can send.
    RadioSocket(quint16 port, std::function<void()> arrived);
    Q_DISABLE_COPY_MOVE(RadioSocket)

    bool isBound() const { return bound; }
    bool hasWaiting() const;
    Datagram take();
    // False: it has not left whole.
    bool send(QByteArrayView bytes, const QHostAddress &destination, quint16 port);

private:
    void readyRead();

    QUdpSocket socket;
    std::function<void()> hasArrived;
    bool bound;
};

} // namespace QMR
