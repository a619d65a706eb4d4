// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationmanager.h"

#include "core/quillmere.h"
#include "service/platform.h"

#include <QTcpSocket>
#include <QTimer>

#include <array>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace QMR {

namespace {

constexpr auto EventId = static_cast<int>(0xC0000001);

constexpr int ReadTimeout = 500; // ms, anew with each arrival

// An application that sends faster than its messages are taken is held back by TCP, not kept in memory.
constexpr qint64 ReadBufferSize = 64LL * 1024;

// An application that never reads costs no more memory than this.
constexpr qint64 MaximumUnsent = 64LL * 1024 * 1024;

// All applications come back at once when the server has been restarted. One that the system could not queue
// may believe for good that it is connected, and is told nothing.
constexpr int ConnectionBacklog = 4096;

constexpr int AcceptPause = 1000; // ms

} // namespace

ApplicationManager::ApplicationManager(Quillmere *owner, quint16 port) : server(owner)
{
    connect(&tcpServer, &QTcpServer::newConnection, this, &ApplicationManager::applicationConnected);
    // After an accept error (no descriptors left, say) the server would not accept again by itself.
    connect(&tcpServer, &QTcpServer::acceptError, this,
            [this] { QTimer::singleShot(AcceptPause, &tcpServer, &QTcpServer::resumeAccepting); });
    tcpServer.setListenBacklogSize(ConnectionBacklog);
    if (!tcpServer.listen(QHostAddress::AnyIPv4, port)) {
        server->logMessage(u"Failed to listen for application connections"_s, QtServiceBase::Error, EventId);
    }
}

ApplicationManager::~ApplicationManager()
{
    while (!applications.empty()) {
        removeApplication(*applications.begin());
    }
    tcpServer.close();
}

void ApplicationManager::applicationConnected()
{
    Platform::endEventLoopTurn();
    server->commitWrites();
    while (QTcpSocket *socket = tcpServer.nextPendingConnection()) {
        server->logMessage(u"Application connected from %1"_s.arg(socket->peerAddress().toString()),
                           QtServiceBase::Information, EventId);
        socket->setReadBufferSize(ReadBufferSize);
        applications.insert(socket);
        connect(socket, &QTcpSocket::disconnected, this, &ApplicationManager::applicationDisconnected);
        connect(socket, &QTcpSocket::errorOccurred, this, &ApplicationManager::socketError);
        connect(socket, &QTcpSocket::readyRead, this, &ApplicationManager::applicationDataAvailable);
        server->sendRadioTable(socket);
    }
}

void ApplicationManager::applicationDisconnected()
{
    server->commitWrites();
    auto *socket = dynamic_cast<QTcpSocket *>(sender());
    if (applications.contains(socket)) {
        removeApplication(socket);
    }
}

void ApplicationManager::socketError(QAbstractSocket::SocketError error)
{
    server->commitWrites();
    auto *socket = dynamic_cast<QTcpSocket *>(sender());
    // A wait for the rest of a message that ends without data raises an error too, but not one of the
    // connection.
    const bool waitEnded = socket == awaited && error == QAbstractSocket::SocketTimeoutError;
    // What left with the commit may have met the same error, and have dropped the application.
    if (waitEnded || !applications.contains(socket)) {
        return;
    }
    if (error != QAbstractSocket::RemoteHostClosedError) {
        server->logMessage(u"Network error %1 on connection to %2:%3"_s.arg(
                               QString::number(static_cast<int>(error)), socket->peerAddress().toString(),
                               QString::number(socket->peerPort())),
                           QtServiceBase::Warning, EventId);
    }
    removeApplication(socket);
}

void ApplicationManager::removeApplication(QTcpSocket *socket)
{
    server->logMessage(u"Application disconnected from %1"_s.arg(socket->peerAddress().toString()),
                       QtServiceBase::Information, EventId);
    QObject::disconnect(socket, nullptr, this, nullptr);
    applications.erase(socket);
    socket->deleteLater();
}

void ApplicationManager::applicationDataAvailable()
{
    Platform::endEventLoopTurn();
    server->commitWrites();
    auto *socket = dynamic_cast<QTcpSocket *>(sender());
    while (socket && socket->bytesAvailable() > 0 && readMessage(socket)) {
    }
}

// Takes exactly count bytes, or none when the rest does not come in time.
bool ApplicationManager::readBytes(QTcpSocket *socket, char *buffer, qint64 count)
{
    while (socket->bytesAvailable() < count) {
        awaited = socket;
        const bool arrived = socket->waitForReadyRead(ReadTimeout);
        awaited = nullptr;
        if (!arrived) {
            server->logMessage(u"Network error: read timeout"_s, QtServiceBase::Error, EventId);
            return false;
        }
    }
    return socket->read(buffer, count) == count;
}

// False: reading stops until the next data signal. What has been read by then is gone, and no search for the
// next message's start is made; both deliberately.
bool ApplicationManager::readMessage(QTcpSocket *socket)
{
    std::array<char, Qmra::HeaderSize> headerBytes{};
    if (!readBytes(socket, headerBytes.data(), headerBytes.size())) {
        return false;
    }
    const Qmra::Header header = Qmra::decodeHeader(QByteArrayView(headerBytes.data(), headerBytes.size()));
    if (!header.magicMatches || header.protocolVersion > Qmra::ProtocolVersion ||
        header.payloadLength > Qmra::MaximumPayload) {
        server->logMessage(u"QMRA Protocol error: invalid message (2)"_s, QtServiceBase::Warning, EventId);
        return false;
    }
    std::array<char, Qmra::MaximumPayload> payload{};
    if (!readBytes(socket, payload.data(), header.payloadLength)) {
        return false;
    }
    if (header.protocolVersion < Qmra::ProtocolVersion) {
        server->logMessage(u"QMRA protocol version not supported.  Update connected applications"_s,
                           QtServiceBase::Error, EventId);
        return false;
    }
    switch (static_cast<Qmra::MessageType>(header.messageType)) {
    case Qmra::MessageType::RadioReport:
        if (header.payloadLength == Qmra::ReportPayload) {
            const auto report = Qmra::decodeReport(QByteArrayView(payload.data(), Qmra::ReportPayload));
            server->handleRadioReport(report.esn, QHostAddress(report.address));
        } else {
            server->logMessage(u"QMRA protocol error detected: invalid payload length"_s,
                               QtServiceBase::Warning, EventId);
        }
        break;
    case Qmra::MessageType::Ignored:
        break;
    default:
        server->logMessage(u"QMRA protocol error detected: invalid message (1)"_s, QtServiceBase::Warning,
                           EventId);
        break;
    }
    return true;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the record is held while it is sent
void ApplicationManager::sendRadioNotice(std::shared_ptr<RadioEntry> entry, QTcpSocket *socket)
{
    const Qmra::Message message =
        entry->pendingAddress.isNull()
            ? Qmra::encodeNotice(entry->esn, entry->suid, false, entry->address.toIPv4Address(),
                                 static_cast<quint8>(entry->availability & 0xFF), entry->supportedServices)
            : Qmra::encodeNotice(entry->esn, entry->pendingSuid, true, entry->pendingAddress.toIPv4Address(),
                                 Registered, entry->pendingServices);
    const QByteArrayView bytes(message.bytes.data(), message.size);
    if (socket) {
        write(socket, bytes);
        return;
    }
    heldBack.insert(heldBack.end(), bytes.begin(), bytes.end());
    if (!server->holdsBack()) {
        sendHeldBack();
    }
}

void ApplicationManager::sendHeldBack()
{
    if (heldBack.empty()) {
        return;
    }
    std::vector<char> leaving = std::exchange(heldBack, std::move(spare));
    // A write can drop an application in the middle of the walk.
    const std::vector<QTcpSocket *> connected(applications.begin(), applications.end());
    const auto toEachConnected = [this, &connected](const auto &action) {
        for (QTcpSocket *application : connected) {
            if (applications.contains(application)) {
                action(application);
            }
        }
    };
    for (QByteArrayView rest(leaving); !rest.isEmpty();) {
        const qsizetype size =
            Qmra::HeaderSize + Qmra::decodeHeader(rest.first(Qmra::HeaderSize)).payloadLength;
        toEachConnected([&](QTcpSocket *application) { write(application, rest.first(size)); });
        rest = rest.sliced(size);
    }
    leaving.clear();
    spare = std::move(leaving);
    // They leave now, before the radios' acknowledgements do.
    toEachConnected([](QTcpSocket *application) { application->flush(); });
}

void ApplicationManager::write(QTcpSocket *socket, QByteArrayView message) const
{
    const bool fits = socket->bytesToWrite() + message.size() <= MaximumUnsent;
    if (!fits || socket->write(message.data(), message.size()) != message.size()) {
        server->logMessage(u"Network error: write message failed"_s, QtServiceBase::Error, EventId);
    }
}

} // namespace QMR
