// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/radioentry.h"
#include "tests/support/testserver.h"

#include <QList>
#include <QString>

using namespace Qt::StringLiterals;

// A row of the database as an earlier run of the server may have left it, for the ESN and the SUID that a
// ScriptedRadio of the same serial has. Times in seconds since 1970.
struct SupervisedRadio
{
    quint8 serial = 1;
    quint32 availability = QMR::Unconfirmed;
    qint64 lastContact = 0;
    qint64 lastDiscovery = 0;
    int attempts = 0;
    QString address = u"127.0.0.2"_s;
};

// Starts the server on a database that holds these radios.
void startWith(TestServer &server, const QList<SupervisedRadio> &radios);

// The ESN of the radio with this serial.
QMR::Esn esnOf(quint8 serial);

// What supervision stores of a radio.
struct SupervisionState
{
    quint32 availability = 0;
    int attempts = 0;
    qint64 lastContact = 0;
    qint64 lastDiscovery = 0;

    bool operator==(const SupervisionState &) const = default;
};

char *toString(const SupervisionState &state); // what QCOMPARE prints

// The rows in the order of their ESNs.
QList<SupervisionState> storedStates(const TestServer &server);
// The same of the radios in the table, in whole seconds.
QList<SupervisionState> liveStates(const TestServer &server);
