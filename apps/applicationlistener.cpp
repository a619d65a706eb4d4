// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationlistener.h"

#include "service/platform.h"

#include <QTcpSocket>

#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace QMR {

namespace {

// All applications come back at once when the server has been restarted. One that the system could not queue
// may believe for good that it is connected, and is told nothing.
constexpr int ConnectionBacklog = 4096;

constexpr int AcceptedAtOnce = 32;
constexpr int DescriptorReserve = 16; // for the database and the log
constexpr auto AcceptPause = 1s;

} // namespace

ApplicationListener::ApplicationListener(quint16 port, std::function<void()> connected)
{
    QObject::connect(&tcpServer, &QTcpServer::newConnection, &tcpServer, [notify = std::move(connected)] {
        platform.endEventLoopTurn();
        notify();
    });
    QObject::connect(&acceptTimer, &QTimer::timeout, &tcpServer, [this] { limitAccepting(); });
    tcpServer.setListenBacklogSize(ConnectionBacklog);
    if (tcpServer.listen(QHostAddress::AnyIPv4, port)) {
        limitAccepting();
        acceptTimer.start(AcceptPause);
    }
}

bool ApplicationListener::isListening() const
{
    return tcpServer.isListening();
}

// Qt accepts without a pause until nobody wants to connect any more or its queue is full. The queue is
// emptied here and so never fills up: a limit of 0 is what ends it.
QTcpSocket *ApplicationListener::take()
{
    QTcpSocket *const socket = tcpServer.nextPendingConnection();
    if (socket) {
        --acceptable;
    } else if (acceptable <= 0) {
        tcpServer.setMaxPendingConnections(0);
    }
    return socket;
}

// Qt has already closed a connection that it could not make ready.
bool ApplicationListener::isUsable(const QTcpSocket &socket)
{
    return socket.socketDescriptor() >= 0;
}

void ApplicationListener::review()
{
    if (acceptable < AcceptedAtOnce) {
        limitAccepting();
    }
}

// The database and the log are to have descriptors when the applications have taken all others. Qt reports an
// accept that has failed only once, and never that it could be tried again: so the free descriptors are
// counted every second, and in the turn after any application has been accepted.
void ApplicationListener::limitAccepting()
{
    acceptable = platform.freeDescriptors(DescriptorReserve + AcceptedAtOnce) - DescriptorReserve;
    if (acceptable > 0) {
        tcpServer.setMaxPendingConnections(acceptable);
        tcpServer.resumeAccepting();
    } else {
        tcpServer.pauseAccepting();
    }
}

} // namespace QMR
