// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/unitfile.h"

#include <QList>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace Linux {

namespace {

constexpr qsizetype MaximumUnitName = 255 - 8; // a file name, less ".service"

// The server keeps its data in this folder of the common data folder, then one of its own name.
constexpr auto VendorFolder = "Brackwater/"_L1;

// What the server never needs is taken from it. It needs: UDP and TCP sockets, the journal's and its own Unix
// socket, and its data folder.
constexpr auto Sandbox = R"(UMask=0077
NoNewPrivileges=yes
CapabilityBoundingSet=
AmbientCapabilities=
PrivateDevices=yes
DevicePolicy=closed
PrivateTmp=yes
PrivateUsers=yes
ProtectSystem=strict
ProtectProc=invisible
ProcSubset=pid
ProtectClock=yes
ProtectControlGroups=yes
ProtectHostname=yes
ProtectKernelLogs=yes
ProtectKernelModules=yes
ProtectKernelTunables=yes
RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX
RestrictNamespaces=yes
RestrictRealtime=yes
RestrictSUIDSGID=yes
LockPersonality=yes
MemoryDenyWriteExecute=yes
RemoveIPC=yes
KeyringMode=private
SystemCallArchitectures=native
SystemCallFilter=@system-service
SystemCallFilter=~@privileged @resources
SystemCallErrorNumber=EPERM
)";

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

QByteArray unitText(const UnitSettings &settings)
{
    const QByteArray unit = unitName(settings.name).toLatin1();
    QByteArray text = "# Written by \"" + settings.name.toUtf8().simplified() +
                      "\" when it was installed; removed when it is uninstalled.\n"
                      "# Changes belong in a drop-in: systemctl edit " +
                      unit + ".service\n\n";
    text += "[Unit]\nDescription=" + descriptionValue(settings.description) +
            "\nAfter=network.target time-set.target\n"
            // A server that nobody watches is started again for as long as it takes.
            "StartLimitIntervalSec=0\n\n";
    text += "[Service]\nType=notify\nNotifyAccess=main\nExecStart=" + commandLine(settings.binaryPath) + '\n';
    if (!settings.account.isEmpty()) {
        text += "User=" + settings.account.toUtf8().replace("%", "%%") + '\n';
    }
    text += "Environment=QUILLMERE_APPDATA=/var/lib LC_ALL=C.UTF-8\n"
            "Restart=on-failure\nRestartSec=2s\nTimeoutStartSec=infinity\nTimeoutStopSec=90s\n"
            "LimitNOFILE=16384\n"
            // A flood of bad datagrams is a record each, and none of the others may get lost in it. A burst
            // of 0 would not lift the limit.
            "LogRateLimitIntervalSec=30s\nLogRateLimitBurst=1000000\n";
    text +=
        "StateDirectory=" + quotedWord(VendorFolder + settings.displayName) + "\nStateDirectoryMode=0700\n";
    text += "RuntimeDirectory=" + unit + "\nRuntimeDirectoryMode=0700\n";
    text += Sandbox;
    if (isHiddenBySandbox(settings.binaryPath)) {
        text += "ProtectHome=tmpfs\nBindReadOnlyPaths=" + quotedWord(settings.binaryPath) + '\n';
    } else {
        text += "ProtectHome=yes\n";
    }
    text += "\n[Install]\nWantedBy=multi-user.target\n";
    return text;
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

} // namespace Linux
