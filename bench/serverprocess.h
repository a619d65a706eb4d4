// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QProcess>
#include <QTemporaryDir>

// The server in a process of its own, run as systemd runs it, with a folder of its own that has its database,
// its settings and its event log. Both go with the object. Any failure ends the run.
class ServerProcess
{
public:
    // place: the folder in which to make its own.
    explicit ServerProcess(const QString &place);
    ~ServerProcess();
    Q_DISABLE_COPY_MOVE(ServerProcess)

    // To be filled before the start.
    QString database() const;
    // Another file on the same file system.
    QString file(const QString &name) const { return folder.filePath(name); }

    // Returns when it serves; how many seconds that took.
    double start();

    quint16 port() const { return registrationPort; }
    quint16 applicationPort() const { return listeningPort; }
    // How many seconds a stop takes.
    double stop();
    double processorMicroseconds() const; // so far
    qint64 memory() const;                // bytes of it that are resident

private:
    bool hasStarted() const;

    const QTemporaryDir folder;
    int notified = -1; // the socket where systemd would be told of it
    quint16 registrationPort = 0;
    quint16 listeningPort = 0;
    QProcess process;
};
