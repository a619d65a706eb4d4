// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>
#include <QThread>

#include <atomic>
#include <memory>

class ServiceRuntime;

// Runs the service manager's dispatcher, which returns when the service has stopped, or at once when it
// fails.
class HandlerThread : public QThread
{
    Q_OBJECT

public:
    HandlerThread(QString serviceName, std::shared_ptr<ServiceRuntime> serviceRuntime);

    // False once the dispatcher has failed.
    bool succeeded() const { return success; }
    // The dispatcher failed because no service manager started this process.
    bool startedFromConsole() const { return console; }

protected:
    void run() override;

private:
    const QString name;
    std::shared_ptr<ServiceRuntime> runtime;
    std::atomic<bool> success = true;
    std::atomic<bool> console = false;
};
