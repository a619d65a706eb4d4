// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "apps/applicationreader.h"
#include "radio/identity.h"

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>

#include <optional>

class QTcpSocket;

namespace QMR {

// The connection of one application: what it sends, message by message, and what it is told. It decides
// nothing and logs nothing, and no call of it blocks.
class ApplicationConnection : public QObject
{
    Q_OBJECT

public:
    // The socket, which is connected, owns it.
    explicit ApplicationConnection(QTcpSocket *socket);

    QTcpSocket &socket() const { return *stream; }
    // Of the other end; known beyond the connection's own end.
    const QString &peerAddress() const { return address; }
    quint16 peerPort() const { return port; }

    // What it sends.

    // Whether there is something to read. Takes in what the socket has, and so is to be asked each time
    // something has arrived.
    bool hasMessage();
    // Only where there is something to read.
    ApplicationReader::Reading readMessage();
    bool isAwaiting() const { return reader.isAwaiting(); }
    ApplicationReader::Fault giveUpWaiting() { return reader.giveUpWaiting(); }
    // While the end of a wait is made sure of: a time-out that the socket reports then is no error of the
    // connection, it only says that nothing more has arrived.
    bool isLookingAgain() const { return lookingAgain; }

    // What it is told.

    // The radio table comes first, in ESN order. Which radio was the last that has been sent; none yet:
    // nothing.
    const std::optional<Esn> &tablePlace() const { return lastOfTable; }
    bool isTableSent() const { return tableSent; }
    // The notice of the next radio of the table.
    void tellOfTable(const Esn &esn, QByteArrayView notice);
    // Every radio has been sent: the changes of radios that had been sent before follow.
    void completeTable();

    // Notices of changes, whole and in order. allowance: the bytes by which what is unsent may grow. Returns
    // how many notices were not accepted.
    qsizetype tell(QByteArrayView notices, qint64 allowance);
    // What it has been told leaves now, as far as the system takes it.
    void flush();
    // Bytes that have not left for the application yet.
    qint64 unsent() const;

    // The connection has ended, with a warning for the log or none. What has arrived before can still be
    // read; nothing is told any more.
    void end(const QString &warning);
    bool hasEnded() const { return ended; }
    const QString &endWarning() const { return lastWarning; }

    // Whether it waits for its turn.
    bool isBusy() const { return busy; }
    void setBusy(bool isBusy) { busy = isBusy; }

signals:
    // 500 ms have passed since the last arrival, and a message is still not whole.
    void waitEnded();

private:
    void takeArrival();
    void superviseWait();
    void endWait();
    bool accept(QByteArrayView notices);
    bool tellOne(QByteArrayView notice, qint64 &allowance);

    QTcpSocket *stream;
    const QString address;
    const quint16 port;

    ApplicationReader reader;
    QTimer waitTimer{this};
    bool lookingAgain = false;
    QByteArray rest; // what the socket held when the connection ended

    std::optional<Esn> lastOfTable;
    bool tableSent = false;
    QByteArray afterTable; // changes that wait for the end of the table

    bool busy = false;
    bool ended = false;
    QString lastWarning;
};

} // namespace QMR
