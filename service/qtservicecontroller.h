// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>
#include <QStringList>

// Speaks to the service manager of this machine about the service of one name. It keeps no handle between
// calls. Every operation but serviceFilePath() answers false when the service-control functions are not
// available or any step of it fails.
class QtServiceController
{
public:
    explicit QtServiceController(QString serviceName);

    bool isInstalled() const;
    // True in every state but stopped, the pending ones included.
    bool isRunning() const;

    // Installs the running executable, with the description and start type of the process's service object.
    // account: one without a backslash is an account of this machine; empty, or one that ends with
    // "\LocalSystem", makes the service run as LocalSystem, without the password.
    bool install(const QString &account, const QString &password) const;
    // A running service is not stopped first.
    bool uninstall() const;

    // arguments: the start parameters of the service, whose main function gets them.
    bool start(const QStringList &arguments) const;
    // True when the service has stopped within two seconds. A refusal is also told by a Qt warning.
    bool stop() const;
    bool pause() const;
    bool resume() const;
    // code: 0 to 127; only a running service is sent it.
    bool sendCommand(int code) const;

    // Full path of the running executable.
    static QString serviceFilePath();

private:
    QString name;
};
