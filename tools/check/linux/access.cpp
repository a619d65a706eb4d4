// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/access.h"

#include "core/configuration.h"

#include <QFileInfo>
#include <QProcess>

#include <optional>

#include <pwd.h>
#include <unistd.h>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

Finding finding(State state, const QString &text)
{
    return {u"account"_s, state, text};
}

// permission: as the shell's test has it, "-r". Nothing: this user cannot tell.
std::optional<bool> may(const passwd &account, const QString &permission, const QString &path)
{
    QStringList command{u"sh"_s, u"-c"_s,    u"test \"$1\" \"$2\" && echo yes || echo no"_s,
                        u"sh"_s, permission, path};
    if (::geteuid() == 0) {
        // As the unit runs it: root, too, without the rights that come before a file's permissions.
        command = QStringList{u"setpriv"_s,
                              u"--reuid=%1"_s.arg(account.pw_uid),
                              u"--regid=%1"_s.arg(account.pw_gid),
                              u"--init-groups"_s,
                              u"--inh-caps=-all"_s,
                              u"--bounding-set=-all"_s,
                              u"--"_s} +
                  command;
    } else if (account.pw_uid != ::geteuid()) {
        return std::nullopt;
    }
    QProcess process;
    process.start(command.first(), command.mid(1));
    process.waitForFinished();
    const QByteArray answer = process.readAllStandardOutput().trimmed();
    return answer == "yes" || answer == "no" ? std::optional(answer == "yes") : std::nullopt;
}

} // namespace

// The unit names /var/lib, whoever the service runs as.
QString serviceFolder()
{
    const QString named = qEnvironmentVariable("QUILLMERE_APPDATA");
    return (named.isEmpty() ? u"/var/lib"_s : named) + u'/' + QLatin1String(QMR::OrganizationName) + u'/' +
           QLatin1String(QMR::ApplicationName);
}

Findings checkAccess(const QString &folder, const QString &account)
{
    if (!QFileInfo::exists(folder)) {
        return {finding(State::Ok, u"no %1 yet: the service makes it"_s.arg(folder))};
    }
    const QString who = account.isEmpty() ? QFileInfo(folder).owner() : account;
    const passwd *const entry = ::getpwnam(who.toLocal8Bit().constData());
    if (!entry) {
        return {finding(State::Critical, u"there is no account '%1'"_s.arg(who))};
    }
    const passwd owner = *entry; // others ask for accounts, too
    struct Need
    {
        QString permission;
        QString path;
        QString otherwise;
    };
    const QString configuration = folder + u'/' + QLatin1String(QMR::ConfigurationFile);
    const QString database = folder + u'/' + QLatin1String(QMR::DatabaseFile);
    const QList<Need> needs{{u"-x"_s, folder, u"enter"_s},
                            {u"-w"_s, folder, u"write in"_s},
                            {u"-r"_s, configuration, u"read"_s},
                            {u"-r"_s, database, u"read"_s},
                            {u"-w"_s, database, u"write"_s}};
    Findings findings;
    for (const auto &[permission, path, otherwise] : needs) {
        if (!QFileInfo::exists(path)) {
            continue;
        }
        const std::optional<bool> granted = may(owner, permission, path);
        if (!granted) {
            return {finding(State::Unknown, u"what %1 may do can be told by root or %1"_s.arg(who))};
        }
        if (!*granted) {
            findings += finding(State::Critical, u"%1 may not %2 %3"_s.arg(who, otherwise, path));
        }
    }
    if (findings.isEmpty()) {
        findings += finding(State::Ok, u"%1 may use %2"_s.arg(who, folder));
    }
    return findings;
}

} // namespace CheckTool
