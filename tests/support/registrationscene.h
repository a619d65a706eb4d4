// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

// A started server with an application and a witness: a radio whose own registration shows that all that was
// sent before has been dealt with, and that nothing else has come of it. What the server knows, stores and
// tells is given in words, without the witness.
class RegistrationScene
{
public:
    RegistrationScene();

    TestServer server;

    // What the server has done since the last call, in the order in which it did it.
    struct Outcome
    {
        QStringList log;
        QStringList notices; // "01: confirmed 127.0.0.2 suid 123456789ABC01 services 1,3 state 3"
    };
    Outcome settle();

    // The record in the table, "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3", then
    // "pending 127.0.0.3 suid … services 1 for 17 s"; "gone" when there is none.
    QString known(const QMR::Esn &esn) const;

    // Row by row in ESN order, "01: 127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3 heard 60",
    // the time in seconds since the scene began.
    QStringList stored() const;
    // The same as the server itself sees it, in the middle of its work: what is written counts, committed or
    // not.
    QStringList written() const;

    // The application's connection is gone with the server's restart; a new one is made, and its snapshot
    // dropped.
    void restart();

private:
    void connectApplication();
    QStringList textOf(const QList<QVariantList> &rows) const;

    qint64 begin;
    ScriptedRadio witness;
    std::unique_ptr<ScriptedApplication> application;
};

// The records of a radio's coming and going, for the radio of this serial.
QString registeredText(const QString &serial, const QString &suidText, const QString &address);
QString deregisteredText(const QString &serial, const QString &suidText, const QString &address);
