// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/qmrs.h"
#include "tools/radio/radiosocket.h"
#include "tools/radio/report.h"

#include <QElapsedTimer>
#include <QTimer>

namespace RadioTool {

// The datagram with which a radio registers, and the ESN that the server knows it by afterwards.
QByteArray registrationOf(const Identity &radio);
QMR::Esn registeredEsn(const Identity &radio);

// One radio: registers or deregisters, or listens only, and ends the event loop with the tool's exit code.
// While it stays it answers discovery requests by registering again.
class Radio
{
public:
    explicit Radio(const Settings &settings);
    Q_DISABLE_COPY_MOVE(Radio)

    void start();
    // Stops staying.
    void interrupt();

private:
    bool openSockets();
    bool openListener(const QHostAddress &address);
    void registerAgain();
    bool transmit(const QByteArray &datagram);
    void deregister();
    void handle(const QByteArray &datagram, const Console::Endpoint &sender);
    void handleAcknowledgement(const QMR::Qmrs::ServerMessage &message, const QByteArray &datagram,
                               const Console::Endpoint &sender);
    void timeoutExpired();
    void finishIfDone();
    void finish();
    void fail(const QString &error);

    const Settings settings;
    const Report report;
    Statistics statistics;
    RadioSocket socket;
    RadioSocket listener; // at the port to which the server sends discovery requests
    QElapsedTimer sinceStart;
    QElapsedTimer sinceSent;
    QTimer timeoutTimer;
    QTimer stayTimer;
    quint32 repeats = 0;
    bool waiting = false; // for an acknowledgement
    bool staying = false;
};

} // namespace RadioTool
