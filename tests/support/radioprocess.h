// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QStringList>

// The built quillmere-radio, run while this process's event loop serves it. It is ended with its object.
class RadioProcess
{
public:
    explicit RadioProcess(const QString &line); // its arguments
    // In the program's place one that ends as the tool, given its path and these arguments.
    RadioProcess(const QStringList &program, const QString &line);
    ~RadioProcess();
    Q_DISABLE_COPY_MOVE(RadioProcess)

    // Waits for its end; -1: it was killed, or has not ended.
    int exitCode();
    QString output(); // all of it so far
    QString errors(); // since the last call
    // The output, every line of which is one object.
    QList<QJsonObject> objects();

private:
    QProcess process;
    QByteArray text;
};

// " --server 127.0.0.1:PORT"
QString serverOption(quint16 port);
