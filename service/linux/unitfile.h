// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The systemd unit file of an installed service: its name and its text.
#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

namespace Linux {

struct UnitSettings
{
    QString name;
    QString displayName; // also the service's folder below the vendor's, in /var/lib
    QString description;
    QString binaryPath; // absolute
    QString account;    // local user name; empty: root
};

// unit.service.in, made a part of the program by sources.cmake.
extern const char *const UnitTemplate;

// "Quill Mere" is "quill-mere". Lower case, runs of other characters than ASCII letters and digits made one
// "-", none of it at either end: a unit name must never look like an option. Empty when nothing is left or
// the name is too long for a unit.
QString unitName(const QString &serviceName);

// Whether a unit can lead systemd to the program: an absolute path, without characters that are none to
// systemd, that stand for bytes which are not UTF-8, or, where the sandbox has to let the program in by name,
// that control a terminal.
bool canBeStarted(const QString &path);

// The template with its placeholders filled in.
QByteArray unitText(const UnitSettings &settings);

// The text with another description; everything else is left as it stands.
QByteArray withDescription(const QByteArray &text, const QString &description);

// The User= of a unit for an account as the service-control functions name it: ".\name" is a local user,
// "DOMAIN\name" one that the machine's name service knows under that name. Nothing when there is no such
// user.
std::optional<QString> unitUser(const QString &account);

// One word of a unit file's list or command line, quoted, so that spaces, quotes, backslashes, specifiers and
// control characters stand for themselves.
QByteArray quotedWord(const QString &text);

} // namespace Linux
