// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/unitfile.h"

#include <QByteArrayList>
#include <QList>
#include <QRegularExpression>

#include <pwd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace Linux {

namespace {

constexpr qsizetype MaximumUnitName = 255 - 8; // a file name, less ".service"

// The server keeps its data in this folder of the common data folder, then one of its own name.
constexpr auto VendorFolder = "Brackwater/"_L1;

bool liesBelow(const QString &path, QLatin1StringView folder)
{
    return path.startsWith(folder);
}

// Folders that the sandbox hides, so that a program in one of them must be let in by name.
bool isHiddenBySandbox(const QString &path)
{
    constexpr std::array<QLatin1StringView, 5> hidden = {"/home/"_L1, "/root/"_L1, "/run/user/"_L1,
                                                         "/tmp/"_L1, "/var/tmp/"_L1};
    return std::any_of(hidden.begin(), hidden.end(),
                       [&path](QLatin1StringView folder) { return liesBelow(path, folder); });
}

// systemd refuses quotes, backslashes and control characters in the program of a command line, though not in
// its arguments.
bool isPlainProgram(const QString &path)
{
    return std::none_of(path.begin(), path.end(), [](QChar c) {
        return c < u' ' || c == u'\x7f' || c == u'"' || c == u'\'' || c == u'\\';
    });
}

// The colon keeps "$" from being taken as a variable's.
QByteArray commandLine(const QString &path)
{
    if (isPlainProgram(path)) {
        return ":" + quotedWord(path);
    }
    return ":/bin/sh -c " + quotedWord(u"exec \"$0\""_s) + ' ' + quotedWord(path);
}

// A description is the rest of its line: it cannot hold a line's end, nor end in what would join the next
// line.
QByteArray descriptionValue(const QString &description)
{
    QString line = description;
    for (QChar &c : line) {
        if (c < u' ' || c == u'\x7f') {
            c = u' ';
        }
    }
    line.replace(u'%', u"%%"_s);
    QByteArray value = line.toUtf8();
    if (value.endsWith('\\')) {
        value += ' ';
    }
    return value;
}

} // namespace

QString unitName(const QString &serviceName)
{
    QString unit;
    for (const QChar c : serviceName.toLower()) {
        const bool kept = (c >= u'a' && c <= u'z') || (c >= u'0' && c <= u'9');
        if (kept) {
            unit += c;
        } else if (!unit.isEmpty() && !unit.endsWith(u'-')) {
            unit += u'-';
        }
    }
    if (unit.endsWith(u'-')) {
        unit.chop(1);
    }
    return unit.size() > MaximumUnitName ? QString() : unit;
}

QByteArray quotedWord(const QString &text)
{
    QByteArray word = "\"";
    const QByteArray bytes = text.toUtf8();
    for (const char c : bytes) {
        if (c == '"' || c == '\\') {
            word += '\\';
            word += c;
        } else if (c == '%') {
            word += "%%";
        } else if (static_cast<unsigned char>(c) < ' ' || c == '\x7f') {
            word += "\\x" + QByteArray(1, c).toHex();
        } else {
            word += c;
        }
    }
    return word + '"';
}

bool canBeStarted(const QString &path)
{
    const bool isHidden = isHiddenBySandbox(path);
    const QList<uint> characters = path.toUcs4(); // half of a pair becomes U+FFFD
    return path.startsWith(u'/') && std::ranges::none_of(characters, [isHidden](char32_t c) {
               return c == QChar::ReplacementCharacter || QChar::isNonCharacter(c) ||
                      (isHidden && (c < U' ' || c == U'\x7f')); // BindReadOnlyPaths= knows no escapes
           });
}

QByteArray unitText(const UnitSettings &settings)
{
    const bool isHidden = isHiddenBySandbox(settings.binaryPath);
    const std::array<std::pair<QByteArray, QByteArray>, 8> values = {{
        {"@NAME@", settings.name.toUtf8().simplified()},
        {"@UNIT@", unitName(settings.name).toLatin1()},
        {"@DESCRIPTION@", descriptionValue(settings.description)},
        {"@COMMAND@", commandLine(settings.binaryPath)},
        {"@USER@", settings.account.toUtf8().replace("%", "%%")},
        {"@STATE_DIRECTORY@", quotedWord(VendorFolder + settings.displayName)},
        {"@PROTECT_HOME@", isHidden ? "tmpfs" : "yes"},
        {"@VISIBLE_PROGRAM@", isHidden ? quotedWord(settings.binaryPath) : QByteArray()},
    }};
    QByteArrayList text;
    const QByteArrayList lines = QByteArray(UnitTemplate).split('\n');
    for (QByteArray line : lines) {
        // One to a line, and each looked for in the template alone: a value may hold anything.
        const auto *const found =
            std::ranges::find_if(values, [&line](const auto &value) { return line.contains(value.first); });
        if (found != values.end()) {
            line.replace(found->first, found->second);
        }
        // A setting without a value is left out.
        if (found == values.end() || !found->second.isEmpty()) {
            text.append(line);
        }
    }
    return text.join('\n');
}

QByteArray withDescription(const QByteArray &text, const QString &description)
{
    QList<QByteArray> lines = text.split('\n');
    for (QByteArray &line : lines) {
        if (line.startsWith("Description=")) {
            line = "Description=" + descriptionValue(description);
            break;
        }
    }
    return lines.join('\n');
}

std::optional<QString> unitUser(const QString &account)
{
    const QByteArray name = (account.startsWith(u".\\"_s) ? account.sliced(2) : account).toLocal8Bit();
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd *found = nullptr;
    while (::getpwnam_r(name.constData(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (!found) {
        return std::nullopt;
    }
    // systemd takes plain names only; the number is as good for the others.
    static const QRegularExpression plain(u"\\A[A-Za-z_][A-Za-z0-9_-]*\\z"_s);
    const QString user = QString::fromLocal8Bit(found->pw_name);
    return plain.match(user).hasMatch() ? user : QString::number(found->pw_uid);
}

} // namespace Linux
