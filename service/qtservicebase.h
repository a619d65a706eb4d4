// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/qtservicecontroller.h"
#include "service/scm.h"

#include <QByteArray>
#include <QFlags>
#include <QString>
#include <QStringList>

class QCoreApplication;

// Base of a program that is a service, its installer and its remote control in one. The process has one such
// object, made before anything else; what a run does is decided by exec() from the first argument.
class QtServiceBase
{
public:
    // Of a fixed width, so that a value out of range is one too: a success, and a manual start.
    enum MessageType : int { Success = 0, Error = 1, Warning = 2, Information = 3 };
    enum StartupType : int { AutoStartup = 0, ManualStartup = 1 };
    enum ServiceFlag { Default = 0, CanBeSuspended = 1, CannotBeStopped = 2, NeedsStopOnShutdown = 4 };
    Q_DECLARE_FLAGS(ServiceFlags, ServiceFlag)

    // Copies the arguments. A name over 255 characters is cut, and its backslashes become U+0000;
    // each with a Qt warning.
    QtServiceBase(int argc, char **argv, const QString &name);
    virtual ~QtServiceBase();
    Q_DISABLE_COPY_MOVE(QtServiceBase)

    // The service object constructed last.
    static QtServiceBase *instance();

    QString serviceName() const { return name; }
    QString serviceDescription() const { return description; }
    void setServiceDescription(const QString &text) { description = text; }
    StartupType startupType() const { return startup; }
    void setStartupType(StartupType type) { startup = type; }
    ServiceFlags serviceFlags() const { return flags; }
    void setServiceFlags(ServiceFlags newFlags) { flags = newFlags; }

    // Does what the command line asks for and returns the process's exit code.
    int exec();

    // Writes one record to the operating system's event log, from any thread. category: the low 16 bits
    // count. A record that cannot be written is lost without a word.
    void logMessage(const QString &message, MessageType type = Success, int id = 0, uint category = 0,
                    const QByteArray &data = QByteArray()) const;

protected:
    friend class QtServiceControllerHandler;
    friend class QtServiceStarter;

    // Called on the main thread, inside the event loop.
    virtual void start() = 0;
    virtual void stop() {}
    virtual void pause() {}
    virtual void resume() {}
    // code: 0 to 127.
    virtual void processCommand(int code) { Q_UNUSED(code) }

    virtual void createApplication(int &argc, char **argv) = 0;
    // Runs the event loop of the application that createApplication() made; returns its exit code.
    virtual int executeApplication() = 0;

private:
    // Rows of the command table; each returns the process's exit code.
    int commandInstall();
    int commandUninstall();
    int commandVersion();
    int commandExec();
    int commandTerminate();
    int commandPause();
    int commandResume();
    int commandCommand();
    int commandHelp();
    int commandStart();

    // In the foreground: the event loop's exit code, or -1 when there is no application. As a service: 0 once
    // the service has run, or once the service manager has been asked to start it from a console; -1 when the
    // start failed.
    int run(bool asService, const QStringList &runArguments);
    int runInForeground(const QStringList &runArguments);
    int runAsService(const QStringList &runArguments);

    QString name;
    QtServiceController controller;
    QString description;
    StartupType startup = ManualStartup;
    ServiceFlags flags = Default;
    QStringList arguments;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(QtServiceBase::ServiceFlags)
