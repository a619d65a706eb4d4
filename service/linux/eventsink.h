// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Where event records go: the journal, syslog where there is none, or what QUILLMERE_EVENTLOG names.
#pragma once

#include "service/scm.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

namespace Linux {

struct EventRecord
{
    QDateTime time; // UTC
    QString source;
    Scm::Word type = Scm::EventSuccess;
    Scm::Dword id = 0;
    Scm::Word category = 0;
    QString message;
    QByteArray data;
};

// The record as one JSON object on a line of its own, line feed included.
QByteArray jsonLine(const EventRecord &record);

// Writes the record out before it returns. QUILLMERE_EVENTLOG is "stderr" or a file's path (the line is
// appended); without it the record goes to the journal or else to syslog. False: the record is lost.
bool writeEvent(const EventRecord &record);

} // namespace Linux
