// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/registrationmodel.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/statecomparison.h"
#include "tests/support/testserver.h"

#include <functional>
#include <memory>

// Holds a server against the model of it: table, queues, timers, rows, records and notices. The first
// difference is kept and ends the comparing. The server's database exists already.
class ModelComparison
{
public:
    ModelComparison(TestServer &server, const RegistrationModel &model);
    Q_DISABLE_COPY_MOVE(ModelComparison)

    // Compares all that a step has caused. The notices are those that the connected application gets.
    void compare();

    void connectApplication();
    void dropApplication() { application.reset(); }
    bool hasApplication() const { return application != nullptr; }
    // A datagram of this radio is handled once one of garbage sent behind it has been; its record is not
    // compared.
    void waitForDatagramsOf(ScriptedRadio &radio);

    // Keeps the server from writing, on the connection that the rows are read through.
    void lockDatabase() { state.lockDatabase(); }
    void unlockDatabase() { state.unlockDatabase(); }

    void differs(const QString &what, const QString &actual, const QString &expected)
    {
        state.differs(what, actual, expected);
    }
    // Empty while nothing differs.
    QString difference() const { return state.difference(); }

private:
    void compareRecords();
    void compareNotices();
    static bool happens(const std::function<bool()> &condition);

    TestServer &server;
    const RegistrationModel &model;
    std::unique_ptr<ScriptedApplication> application;
    StateComparison state;
};
