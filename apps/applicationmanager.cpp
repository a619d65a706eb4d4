// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationmanager.h"

#include "apps/applicationconnection.h"
#include "core/clock.h"
#include "core/eventid.h"
#include "core/quillmere.h"
#include "service/platform.h"

#include <QTcpSocket>

#include <algorithm>
#include <chrono>
#include <utility>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace QMR {

namespace {

// How long a turn of all applications together takes at most: as long may radios, timers and a stop of the
// service have to wait for it. There may be a turn between any two datagrams, so a registration waits for as
// many turns as there are datagrams before it.
constexpr auto LongestTurn = 2ms;
constexpr int MessagesATurn = 100; // of one application

// An application that sends faster than its messages are taken is held back by TCP, not kept in memory.
constexpr qint64 ReadBufferSize = 16LL * 1024;

// Applications that never read cost no more memory than this, each and together.
constexpr qint64 MaximumUnsent = 64LL * 1024 * 1024;
constexpr qint64 MaximumUnsentTogether = 256LL * 1024 * 1024;
constexpr qint64 MaximumUnsentOfTable = 1024LL * 1024;

QString errorText(QAbstractSocket::SocketError error, const QString &address, quint16 port)
{
    return u"Network error %1 on connection to %2:%3"_s.arg(QString::number(static_cast<int>(error)), address,
                                                            QString::number(port));
}

// Of the registration that awaits confirmation while there is one, else of the confirmed one.
Qmra::RadioNotice noticeOf(const RadioEntry &radio)
{
    const bool pending = !radio.pendingAddress.isNull();
    Qmra::RadioNotice notice;
    notice.esn = radio.esn;
    notice.suid = pending ? radio.pendingSuid : radio.suid;
    notice.pending = pending;
    notice.address = (pending ? radio.pendingAddress : radio.address).toIPv4Address();
    notice.availability = static_cast<quint8>(pending ? quint32{Registered} : radio.availability);
    notice.services = Qmra::noticeServices(pending ? radio.pendingServices : radio.supportedServices);
    return notice;
}

} // namespace

ApplicationManager::ApplicationManager(Quillmere *owner, quint16 port)
    : server(owner), listener(port, [this] { applicationConnected(); }), tableLimit(MaximumUnsentOfTable)
{
    if (!listener.isListening()) {
        server->logMessage(u"Failed to listen for application connections"_s, QtServiceBase::Error, EventId);
    }
}

ApplicationManager::~ApplicationManager()
{
    while (!applications.empty()) {
        removeApplication(applications.begin()->first);
    }
}

void ApplicationManager::applicationConnected()
{
    if (!server->commitIsComing()) {
        server->commitWrites();
    }
    while (QTcpSocket *socket = listener.take()) {
        if (ApplicationListener::isUsable(*socket)) {
            accept(socket);
        } else {
            refuse(socket);
        }
    }
    arrangeTurn();
}

void ApplicationManager::refuse(QTcpSocket *socket)
{
    server->logMessage(errorText(socket->error(), QString(), 0), QtServiceBase::Warning, EventId);
    socket->deleteLater();
}

void ApplicationManager::accept(QTcpSocket *socket)
{
    auto *application = new ApplicationConnection(socket);
    server->logMessage(u"Application connected from %1"_s.arg(application->peerAddress()),
                       QtServiceBase::Information, EventId);
    socket->setReadBufferSize(ReadBufferSize);
    applications.emplace(socket, application);
    connect(socket, &QTcpSocket::disconnected, this,
            [this, application] { applicationDisconnected(application); });
    connect(socket, &QTcpSocket::errorOccurred, this,
            [this, application](QAbstractSocket::SocketError error) { socketError(application, error); });
    connect(socket, &QTcpSocket::readyRead, this,
            [this, application] { applicationDataAvailable(application); });
    connect(application, &ApplicationConnection::waitEnded, this,
            [this, application] { waitEnded(application); });
    connect(socket, &QTcpSocket::bytesWritten, this, [this, application] { tableProceeds(application); });
    // The table shows what is stored, and begins at once unless that has to be waited for.
    if (!server->holdsBack()) {
        serveTable(application);
    }
    tableProceeds(application);
}

void ApplicationManager::applicationDisconnected(ApplicationConnection *application)
{
    end(application, QString());
}

void ApplicationManager::socketError(ApplicationConnection *application, QAbstractSocket::SocketError error)
{
    if (error == QAbstractSocket::SocketTimeoutError && application->isLookingAgain()) {
        return;
    }
    end(application, error == QAbstractSocket::RemoteHostClosedError
                         ? QString()
                         : errorText(error, application->peerAddress(), application->peerPort()));
}

// It is dropped in its turn, when what has arrived before the end has been read.
void ApplicationManager::end(ApplicationConnection *application, const QString &warning)
{
    if (!application->hasEnded()) {
        application->end(warning);
        beBusy(application);
    }
}

void ApplicationManager::finish(ApplicationConnection *application)
{
    removeApplication(&application->socket());
    if (application->isAwaiting()) {
        logFault(application->giveUpWaiting());
    }
}

void ApplicationManager::removeApplication(QTcpSocket *socket)
{
    const auto entry = applications.find(socket);
    if (!entry->second->endWarning().isEmpty()) {
        server->logMessage(entry->second->endWarning(), QtServiceBase::Warning, EventId);
    }
    server->logMessage(u"Application disconnected from %1"_s.arg(entry->second->peerAddress()),
                       QtServiceBase::Information, EventId);
    QObject::disconnect(socket, nullptr, this, nullptr);
    applications.erase(entry);
    socket->deleteLater();
}

void ApplicationManager::applicationDataAvailable(ApplicationConnection *application)
{
    platform.endEventLoopTurn();
    if (application->hasMessage()) {
        beBusy(application);
    }
}

void ApplicationManager::waitEnded(ApplicationConnection *application)
{
    server->commitWrites();
    // What leaves with the commit may have met the connection's end, which gives up the wait too.
    if (!application->hasEnded()) {
        logFault(application->giveUpWaiting());
    }
}

void ApplicationManager::tableProceeds(ApplicationConnection *application)
{
    if (wantsTable(*application)) {
        beBusy(application);
    }
}

void ApplicationManager::beBusy(ApplicationConnection *application)
{
    if (!application->isBusy()) {
        application->setBusy(true);
        busy.push_back(application);
        arrangeTurn();
    }
}

void ApplicationManager::arrangeTurn()
{
    if (!turnArranged) {
        turnArranged = true;
        QMetaObject::invokeMethod(this, &ApplicationManager::takeTurn, Qt::QueuedConnection);
    }
}

// It must not end the event loop's turn: on Windows posted events come first, and while there is a next turn
// the sockets would never have theirs.
void ApplicationManager::takeTurn()
{
    turnArranged = false;
    // Radios that come together share a commit, however much the applications ask.
    if (server->commitIsComing()) {
        arrangeTurn();
        return;
    }
    server->commitWrites();
    const TimeSlice turn(LongestTurn);
    listener.review();
    tableLimitIsCurrent = false;
    while (!busy.empty() && !turn.isOver()) {
        ApplicationConnection *const application = busy.front();
        busy.pop_front();
        // Busy until then: it may end in the middle of its own turn.
        const bool goesOn = serve(application, turn);
        application->setBusy(goesOn);
        if (goesOn) {
            busy.push_back(application);
        }
    }
    if (!busy.empty()) {
        arrangeTurn();
    }
}

// Sends the next part of its table, if it can take one.
void ApplicationManager::serveTable(ApplicationConnection *application)
{
    if (!wantsTable(*application)) {
        return;
    }
    if (!std::exchange(tableLimitIsCurrent, true)) {
        limitTables();
    }
    server->sendRadioTable(*application);
    if (application->isTableSent()) {
        disconnect(&application->socket(), &QTcpSocket::bytesWritten, this, nullptr);
    }
}

// True: there is more to do for it.
bool ApplicationManager::serve(ApplicationConnection *application, const TimeSlice &turn)
{
    serveTable(application);
    for (int i = 0; i < MessagesATurn && application->hasMessage(); ++i) {
        if (i > 0 && turn.isOver()) {
            return true;
        }
        take(application->readMessage());
    }
    if (application->hasMessage()) {
        return true;
    }
    if (application->hasEnded()) {
        finish(application);
        return false;
    }
    return wantsTable(*application);
}

void ApplicationManager::take(const ApplicationReader::Reading &reading)
{
    if (const auto *report = std::get_if<Qmra::RadioReport>(&reading)) {
        server->handleRadioReport(report->esn, QHostAddress(report->address));
    } else if (const auto *fault = std::get_if<ApplicationReader::Fault>(&reading)) {
        logFault(*fault);
    }
}

void ApplicationManager::logFault(ApplicationReader::Fault fault) const
{
    const auto log = [this](const QString &text, QtServiceBase::MessageType type) {
        server->logMessage(text, type, EventId);
    };
    switch (fault) {
    case ApplicationReader::Fault::InvalidHeader:
        return log(u"QMRA Protocol error: invalid message (2)"_s, QtServiceBase::Warning);
    case ApplicationReader::Fault::UnsupportedVersion:
        return log(u"QMRA protocol version not supported.  Update connected applications"_s,
                   QtServiceBase::Error);
    case ApplicationReader::Fault::InvalidLength:
        return log(u"QMRA protocol error detected: invalid payload length"_s, QtServiceBase::Warning);
    case ApplicationReader::Fault::InvalidType:
        return log(u"QMRA protocol error detected: invalid message (1)"_s, QtServiceBase::Warning);
    case ApplicationReader::Fault::Timeout:
        return log(u"Network error: read timeout"_s, QtServiceBase::Error);
    }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the record is held while it is sent
void ApplicationManager::sendRadioNotice(std::shared_ptr<RadioEntry> entry,
                                         ApplicationConnection *application)
{
    const Qmra::Message message = Qmra::encodeNotice(noticeOf(*entry));
    const QByteArrayView bytes = message.view();
    if (application) {
        application->tellOfTable(entry->esn, bytes);
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
    // A copy: a write can end a connection in the middle of the walk.
    const std::vector<std::pair<QTcpSocket *, ApplicationConnection *>> connected(applications.begin(),
                                                                                  applications.end());
    qint64 together = unsentTogether();
    for (const auto &[socket, application] : connected) {
        if (application->hasEnded()) {
            continue;
        }
        const qint64 before = application->unsent();
        const qint64 common = std::max(MaximumUnsentTogether - together, equalShare() - before);
        qsizetype lost = application->tell(leaving, std::min(MaximumUnsent - before, common));
        for (; lost > 0; --lost) {
            server->logMessage(u"Network error: write message failed"_s, QtServiceBase::Error, EventId);
        }
        // They leave now, before the radios' acknowledgements do.
        application->flush();
        together += application->unsent() - before;
    }
    leaving.clear();
    spare = std::move(leaving);
}

bool ApplicationManager::wantsTable(const ApplicationConnection &application) const
{
    return !application.isTableSent() && !application.hasEnded() &&
           application.socket().bytesToWrite() <= tableLimit;
}

// What is left before all together reach their bound is shared out equally. Even when nothing is left an
// application that reads gets on: whenever the socket has given all it held to the system, one notice
// follows.
void ApplicationManager::limitTables()
{
    const qint64 left = std::max<qint64>(MaximumUnsentTogether - unsentTogether(), 0);
    tableLimit =
        std::min(MaximumUnsentOfTable, left / static_cast<qint64>(std::max<size_t>(applications.size(), 1)));
}

// What an application may leave unsent even when all together have reached their bound.
qint64 ApplicationManager::equalShare() const
{
    return MaximumUnsentTogether / static_cast<qint64>(std::max<size_t>(applications.size(), 1));
}

qint64 ApplicationManager::unsentTogether() const
{
    qint64 sum = 0;
    for (const auto &[socket, application] : applications) {
        sum += application->unsent();
    }
    return sum;
}

} // namespace QMR
