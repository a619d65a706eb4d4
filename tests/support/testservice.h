// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/qtservice.h"

#include <QByteArray>
#include <QStringList>

#include <functional>
#include <thread>
#include <vector>

// A service that notes what the service host calls, with a command line of its own.
class TestService : public QtService<QCoreApplication>
{
public:
    explicit TestService(const QStringList &options); // called Quill Mere
    TestService(const QStringList &options, const QString &serviceName);

    QStringList takeCalls();
    QStringList applicationArguments; // what the application was made with
    bool withoutApplication = false;
    bool allOnMainThread = true;
    // Called from within each operation, with its name: "start", "stop", "processCommand 72".
    std::function<void(const QString &)> onCall;

protected:
    void start() override;
    void stop() override;
    void pause() override;
    void resume() override;
    void processCommand(int code) override;
    void createApplication(int &argc, char **argv) override;

private:
    TestService(const QString &serviceName, std::vector<QByteArray> line);
    void called(const QString &operation);

    QStringList calls;
    std::thread::id mainThread = std::this_thread::get_id();
};
