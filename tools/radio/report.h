// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/qmrs.h"
#include "tools/radio/settings.h"
#include "tools/radio/statistics.h"

namespace RadioTool {

// What a run prints on standard output: a line for each thing that happens, readable or as a JSON object,
// and the summary.
class Report
{
public:
    explicit Report(bool asJson) : json(asJson) {}

    void registrationSent(const Identity &radio, const Console::Endpoint &from,
                          const Console::Endpoint &server) const;
    void deregistrationSent(const QMR::Esn &esn, const Console::Endpoint &from,
                            const Console::Endpoint &server) const;
    void acknowledged(const QMR::Qmrs::ServerMessage &message, const Console::Endpoint &sender,
                      qint64 nanoseconds) const;
    void lost(const QMR::Esn &esn, int timeout) const;
    void listening(const Console::Endpoint &at) const;
    // A discovery request, an acknowledgement that nobody waits for, or neither.
    void received(const QMR::Qmrs::ServerMessage &message, const QByteArray &datagram,
                  const Console::Endpoint &sender) const;
    void summary(const Statistics &statistics) const;

    static QString progress(const Statistics &statistics);

private:
    void write(const QString &line, const QString &event, QJsonObject details) const;

    bool json;
};

} // namespace RadioTool
