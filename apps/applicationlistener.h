// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QTcpServer>
#include <QTimer>

#include <functional>

class QTcpSocket;

namespace QMR {

// Where applications connect: accepts them as long as that leaves the process some descriptors.
class ApplicationListener
{
public:
    // Listens on every IPv4 interface. connected: is called when somebody has connected, and is to take all
    // who have.
    ApplicationListener(quint16 port, std::function<void()> connected);
    Q_DISABLE_COPY_MOVE(ApplicationListener)

    // False: the port could not be had, and nobody ever connects.
    bool isListening() const;
    // The next who has connected, null when there is none left. The listener owns the socket.
    QTcpSocket *take();
    // False: the system has given the connection, but has not let it be made ready.
    static bool isUsable(const QTcpSocket &socket);
    // To be called some time after connections have been taken: finds out how many more there may be.
    void review();

private:
    void limitAccepting();

    QTcpServer tcpServer;
    QTimer acceptTimer;
    int acceptable = 0; // how many may be accepted before the free descriptors are counted again
};

} // namespace QMR
