// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/applicationlistener.h"
#include "apps/applicationreader.h"

#include <QAbstractSocket>
#include <QObject>

#include <deque>
#include <map>
#include <memory>
#include <vector>

class QTcpSocket;

namespace QMR {

class ApplicationConnection;
class Quillmere;
class TimeSlice;
struct RadioEntry;

// The server towards the client applications: it keeps the set of those that are connected, and gives each
// its turn of being read and told. Lives on the server's thread, and never blocks it.
class ApplicationManager : public QObject
{
    Q_OBJECT

public:
    // Listens on every IPv4 interface. A port that cannot be had is logged; no application then ever
    // connects. The server must outlive the manager.
    ApplicationManager(Quillmere *server, quint16 port);
    ~ApplicationManager() override;
    Q_DISABLE_COPY_MOVE(ApplicationManager)

    // Tells one application, which is being sent the radio table, or all connected ones when there is none
    // given, of the radio as it now is. A notice that an application does not take whole is logged and lost
    // for it. One to all is held back, as it is now, while what it tells is not yet stored.
    void sendRadioNotice(std::shared_ptr<RadioEntry> entry, ApplicationConnection *application);

    // Whether more of the radio table may go to an application now.
    bool wantsTable(const ApplicationConnection &application) const;

    // What has been held back leaves, in its order.
    void sendHeldBack();

    // Drops one application, in its own turn or with all others; its socket is deleted from the event loop.
    void removeApplication(QTcpSocket *socket);

private slots:
    void applicationConnected();
    void applicationDisconnected(ApplicationConnection *application);
    void socketError(ApplicationConnection *application, QAbstractSocket::SocketError error);
    void applicationDataAvailable(ApplicationConnection *application);

private:
    void waitEnded(ApplicationConnection *application);
    void tableProceeds(ApplicationConnection *application);

    void accept(QTcpSocket *socket);
    void refuse(QTcpSocket *socket);
    void end(ApplicationConnection *application, const QString &warning);
    void finish(ApplicationConnection *application);

    void beBusy(ApplicationConnection *application);
    void arrangeTurn();
    void takeTurn();
    void serveTable(ApplicationConnection *application);
    bool serve(ApplicationConnection *application, const TimeSlice &turn);
    void take(const ApplicationReader::Reading &reading);
    void logFault(ApplicationReader::Fault fault) const;

    void limitTables();
    qint64 equalShare() const;
    qint64 unsentTogether() const;

    Quillmere *server;
    ApplicationListener listener;
    std::map<QTcpSocket *, ApplicationConnection *> applications; // the sockets are the listener's
    std::deque<ApplicationConnection *> busy; // in the order of their turns; only its own turn drops one
    bool turnArranged = false;
    qint64 tableLimit;                // bytes of its table that an application may leave unsent
    bool tableLimitIsCurrent = false; // it is found anew once a turn
    std::vector<char> heldBack;       // whole notices, one behind the other
    std::vector<char> spare;          // empty, kept for its memory
};

} // namespace QMR
