// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/controlprotocol.h"

#include <QList>

#include <algorithm>

namespace Linux {

namespace {

// Digits only: QByteArray::toUInt() would also take signs and blanks.
std::optional<Scm::Dword> number(const QByteArray &text)
{
    const bool digits = std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
    bool fits = false;
    const Scm::Dword value = text.toUInt(&fits);
    return digits && fits ? std::optional(value) : std::nullopt;
}

} // namespace

QByteArray requestLine(Scm::Dword control)
{
    return QByteArray::number(control) + '\n';
}

QByteArray answerLine(const ControlAnswer &answer)
{
    return QByteArray::number(answer.error) + ' ' + QByteArray::number(answer.state) + ' ' +
           QByteArray::number(answer.controlsAccepted) + ' ' + QByteArray::number(answer.exitCode) + '\n';
}

std::optional<Scm::Dword> parseRequest(const QByteArray &line)
{
    return number(line);
}

std::optional<ControlAnswer> parseAnswer(const QByteArray &line)
{
    const QList<QByteArray> fields = line.split(' ');
    if (fields.size() != 4) {
        return std::nullopt;
    }
    const auto error = number(fields[0]);
    const auto state = number(fields[1]);
    const auto accepted = number(fields[2]);
    const auto exitCode = number(fields[3]);
    if (!error || !state || !accepted || !exitCode) {
        return std::nullopt;
    }
    return ControlAnswer{*error, *state, *accepted, *exitCode};
}

} // namespace Linux
