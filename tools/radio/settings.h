// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What a command line of quillmere-radio asks for.
#pragma once

#include "tools/console.h"

#include <optional>

namespace RadioTool {

enum class Command { Register, Deregister, Listen, Fleet };

// A radio's share of the settings; of a fleet: the first radio's.
struct Identity
{
    QMR::Esn esn; // all zero: none
    QMR::Suid suid;
    QMR::ServiceList services;
    quint8 protocolVersion = 3;
    bool basic = false;
    bool pending = false;
};

struct FleetSettings
{
    quint32 count = 0;          // radios; 0 never leaves the command line
    double rate = 1000;         // registrations a second
    qint64 duration = 0;        // ms; 0: until all rounds are done
    quint64 rounds = 1;         // registrations a radio; 0: until the duration is over
    quint32 firstAddress = 0;   // IPv4
    quint32 addressCount = 0;   // 0: one, as the system chooses
    quint32 window = 1000;      // registrations that wait for their acknowledgement at once
    quint32 pendingPercent = 0; // of the radios
    bool deregister = false;    // all of them, at the end
};

struct Settings
{
    Command command = Command::Register;
    bool json = false;
    Console::Endpoint server{QHostAddress(QHostAddress::LocalHost), Console::DefaultPort};
    Identity radio;
    std::optional<QHostAddress> from;
    std::optional<quint16> listenPort;
    int timeout = 2000; // ms
    quint32 retries = 0;
    bool stay = false;
    qint64 stayTime = 0;  // ms; 0: until interrupted
    quint64 messages = 0; // to listen for; 0: any number
    FleetSettings fleet;
};

constexpr int ExitNotAcknowledged = 3;

} // namespace RadioTool
