// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What goes over the control socket of a running service. A connection carries one request and one answer,
// each a line of decimal numbers:
//
//     request   <control>\n
//     answer    <error> <state> <controls accepted> <exit code>\n      error 0: the control was carried out
//
// The stop control is only asked for here, never carried out: a service that accepts it answers 0, and
// systemd then stops it.
#pragma once

#include "service/scm.h"

#include <QByteArray>

#include <optional>

namespace Linux {

constexpr qsizetype MaximumRequest = 16; // bytes, line feed included
constexpr qsizetype MaximumAnswer = 64;

constexpr auto ControlSocketName = "/control"; // below the service's runtime directory

struct ControlAnswer
{
    Scm::Dword error = 0;
    Scm::Dword state = 0;
    Scm::Dword controlsAccepted = 0;
    Scm::Dword exitCode = 0;
};

QByteArray requestLine(Scm::Dword control);
QByteArray answerLine(const ControlAnswer &answer);

// From a whole line without its line feed; nothing when it is not one.
std::optional<Scm::Dword> parseRequest(const QByteArray &line);
std::optional<ControlAnswer> parseAnswer(const QByteArray &line);

} // namespace Linux
