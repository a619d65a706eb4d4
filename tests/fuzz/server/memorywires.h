// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The server's sockets without sockets: a program that is linked with these definitions of RadioSocket and
// ApplicationListener decides itself what arrives and when, and sees what is sent.
#pragma once

#include <QByteArray>
#include <QHostAddress>
#include <QList>
#include <QTcpSocket>

#include <deque>
#include <functional>

// One application's end of its connection.
class MemorySocket : public QTcpSocket
{
public:
    explicit MemorySocket(QObject *parent);

    // The application sends this.
    void receives(const QByteArray &bytes);
    // The connection ends, in good order or with an error.
    void ends(SocketError error);
    // What the server has told the application since the last call.
    QByteArray takeTold();
    // From now on what it is told stays unsent, or leaves at once.
    void setStalled(bool isStalled);
    // It leaves so much unsent from now on, and takes nothing more.
    void setUnsent(qint64 bytes);
    // What comes while the server looks once more whether something has come.
    void comesLate(const QByteArray &bytes) { late = bytes; }
    // The connection breaks then.
    void endsLate();

    qint64 bytesAvailable() const override { return QTcpSocket::bytesAvailable() + incoming.size(); }
    qint64 bytesToWrite() const override { return unsent; }
    bool waitForReadyRead(int milliseconds) override;

protected:
    qint64 readData(char *data, qint64 size) override;
    qint64 writeData(const char *data, qint64 size) override;

private:
    QByteArray incoming;
    QByteArray told;
    QByteArray late;
    qint64 unsent = 0;
    bool stalled = false;
    bool ended = false;
    bool endingLate = false;
};

// Of the one server that is alive.
struct MemoryWires
{
    struct Datagram
    {
        QByteArray bytes;
        QHostAddress address; // of the sender, or of the destination
        quint16 port = 0;

        bool operator==(const Datagram &) const = default;
    };

    std::deque<Datagram> incoming;
    QList<Datagram> sent;
    bool isPortFree = true; // the radios'
    bool refusing = false;  // nothing can be sent
    int refused = 0;
    std::function<void()> datagramArrived; // none while there is no server
    std::deque<MemorySocket *> connecting;
    std::function<void()> applicationConnected;
};

MemoryWires &wires();
