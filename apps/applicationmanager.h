// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/qmra.h"

#include <QAbstractSocket>
#include <QObject>
#include <QTcpServer>

#include <memory>
#include <set>
#include <vector>

class QTcpSocket;

namespace QMR {

class Quillmere;
struct RadioEntry;

// The TCP server to which client applications connect: it keeps the set of connected applications, reads
// their messages and writes radio notices to them. Lives on the server's thread.
class ApplicationManager : public QObject
{
    Q_OBJECT

public:
    // Listens on every IPv4 interface. A port that cannot be had is logged; no application then ever
    // connects. The server must outlive the manager.
    ApplicationManager(Quillmere *server, quint16 port);
    ~ApplicationManager() override;
    Q_DISABLE_COPY_MOVE(ApplicationManager)

    // Tells one application, or all connected ones when the socket is null, of the radio as it now is. A
    // notice that an application does not take whole is logged and lost for it. One to all is held back, as
    // it is now, while what it tells is not yet stored.
    void sendRadioNotice(std::shared_ptr<RadioEntry> entry, QTcpSocket *socket);

    // What has been held back leaves, in its order.
    void sendHeldBack();

    // Drops one application; its socket is deleted from the event loop.
    void removeApplication(QTcpSocket *socket);

private slots:
    void applicationConnected();
    void applicationDisconnected();
    void socketError(QAbstractSocket::SocketError error);
    void applicationDataAvailable();

private:
    bool readBytes(QTcpSocket *socket, char *buffer, qint64 count);
    bool readMessage(QTcpSocket *socket);
    void write(QTcpSocket *socket, QByteArrayView message) const;

    Quillmere *server;
    QTcpServer tcpServer;
    std::set<QTcpSocket *> applications; // children of tcpServer
    QTcpSocket *awaited = nullptr;       // while the rest of its message is waited for
    std::vector<char> heldBack;          // whole notices, one behind the other
    std::vector<char> spare;             // empty, kept for its memory
};

} // namespace QMR
