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

QString currentAccount()
{
    const passwd *const entry = ::getpwuid(::geteuid());
    return entry ? QString::fromLocal8Bit(entry->pw_name) : QString();
}

// permission: as the shell's test has it, "-r". Nothing: this user cannot tell.
std::optional<bool> may(const QString &account, const QString &permission, const QString &path)
{
    const QStringList test{u"test"_s, permission, path};
    QProcess process;
    if (account == currentAccount()) {
        process.start(test.first(), test.mid(1));
    } else if (::geteuid() == 0) {
        process.start(u"runuser"_s, QStringList{u"-u"_s, account, u"--"_s} + test);
    } else {
        return std::nullopt;
    }
    if (!process.waitForFinished() || process.exitStatus() != QProcess::NormalExit) {
        return std::nullopt;
    }
    return process.exitCode() == 0;
}

} // namespace

// The unit names /var/lib, whoever the service runs as.
QString serviceFolder()
{
    return qEnvironmentVariable("QUILLMERE_APPDATA", u"/var/lib"_s) + u'/' +
           QLatin1String(QMR::OrganizationName) + u'/' + QLatin1String(QMR::ApplicationName);
}

Findings checkAccess(const QString &folder, const QString &account)
{
    if (!QFileInfo::exists(folder)) {
        return {finding(State::Ok, u"no %1 yet: the service makes it"_s.arg(folder))};
    }
    const QString who = account.isEmpty() ? QFileInfo(folder).owner() : account;
    if (who.isEmpty() || !::getpwnam(who.toLocal8Bit().constData())) {
        return {finding(State::Critical, u"there is no account '%1'"_s.arg(who))};
    }
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
        const std::optional<bool> granted = may(who, permission, path);
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
