// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/testserver.h"

#include <QStringList>

#include <memory>

// A server, and what the built quillmere-check says of it.
class CheckFixture
{
protected:
    // The exit codes.
    static constexpr int Ok = 0;
    static constexpr int Warning = 1;
    static constexpr int Critical = 2;
    static constexpr int Unknown = 3;

    CheckFixture() = default;
    ~CheckFixture() = default;
    Q_DISABLE_COPY_MOVE(CheckFixture)

    // A new server, which runs.
    void begin();

    // Each sets what follows; the event loop goes on meanwhile.
    void run(const QStringList &arguments);
    void check(const QStringList &more = {});
    // The server may be stopped.
    void checkStopped(const QStringList &more = {}) { check(QStringList(u"--stopped"_s) + more); }

    // The first line of what has been found about it.
    QString of(const QString &subject) const;

    std::unique_ptr<TestServer> server;
    int exitCode = -1; // -1: it has not ended by itself
    QStringList lines;
    QString errors;
};
