// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The three event-log functions, and where their records go: the machine's log, or what QUILLMERE_EVENTLOG
// names.
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

const char *typeName(Scm::Word type);

// The record as one JSON object on a line of its own, line feed included.
QByteArray jsonLine(const EventRecord &record);

// Writes all of the bytes, by one write call where it takes them: that keeps the lines of several processes
// apart.
bool writeAll(int descriptor, QByteArray bytes);

// Writes the record out before it returns. QUILLMERE_EVENTLOG is "stderr" or a file's path (the line is
// appended); without it the record goes to the machine's log. False: the record is lost.
bool writeEvent(const EventRecord &record);

Scm::Handle registerEventSource(const Scm::Char *server, const Scm::Char *source);
Scm::Bool reportEvent(Scm::Handle log, Scm::Word type, Scm::Word category, Scm::Dword id, void *userSid,
                      Scm::Word stringCount, Scm::Dword dataSize, const Scm::Char **strings, void *data);
Scm::Bool deregisterEventSource(Scm::Handle log);

} // namespace Linux
