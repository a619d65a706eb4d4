// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/check.h"

#include "tools/check/access.h"
#include "tools/check/configurationcheck.h"
#include "tools/check/databasecheck.h"

#include <QFileInfo>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

constexpr int Looks = 3; // what is owed to the database is stored within a second

// What keeps everything in it from being seen.
Findings checkFolder(const QString &folder)
{
    const QFileInfo info(folder);
    if (info.exists() && !info.isDir()) {
        return {{u"folder"_s, State::Critical, u"%1 is not a folder"_s.arg(folder)}};
    }
    if (info.exists() && !info.isExecutable()) {
        return {{u"folder"_s, State::Unknown, u"%1: this user may not look into it"_s.arg(folder)}};
    }
    return {};
}

// A radio has a row as long as it has a confirmed registration; of a pending one both are possible. The rows
// have been counted before and after the snapshot.
bool agree(const Snapshot &snapshot, qint64 before, qint64 after)
{
    const auto [least, most] = std::minmax(before, after);
    return least <= snapshot.radios && most >= snapshot.radios - snapshot.pending;
}

// The server, and its radios beside the rows.
void lookAtServer(const Settings &settings, const QString &database, const QMR::Configuration &configuration,
                  Report &report)
{
    for (int look = 1;; ++look) {
        const std::optional<qint64> before = countRows(database, settings.timeout);
        const Findings server =
            checkServer(configuration, settings.mayBeStopped, settings.timeout, report.snapshot);
        report.rows = countRows(database, settings.timeout);
        const bool canTell = report.snapshot && report.snapshot->isWhole && before && report.rows;
        const bool isRight = !canTell || agree(*report.snapshot, *before, *report.rows);
        if (!isRight && look < Looks) {
            continue;
        }
        report.findings += server;
        if (!isRight) {
            report.findings +=
                {u"rows"_s, State::Warning,
                 u"the server knows %1 radios, %2 of them pending, and the database has %3"_s.arg(
                     QString::number(report.snapshot->radios), QString::number(report.snapshot->pending),
                     QString::number(*report.rows))};
        }
        return;
    }
}

} // namespace

Report check(const Settings &settings)
{
    const QString folder = settings.folder.isEmpty() ? serviceFolder() : settings.folder;
    const QString database = folder + u'/' + QLatin1String(QMR::DatabaseFile);
    Report report;
    report.findings = checkFolder(folder);
    if (!report.findings.isEmpty()) {
        return report;
    }
    QMR::Configuration configuration;
    const Findings configured =
        checkConfiguration(folder + u'/' + QLatin1String(QMR::ConfigurationFile), configuration);
    report.findings = configured + checkAccess(folder, settings.account) + checkDriver() +
                      checkDatabase(database, settings.timeout);
    if (configured.constFirst().state == State::Unknown) {
        report.findings += {u"server"_s, State::Unknown, u"this user does not know its ports"_s};
    } else {
        lookAtServer(settings, database, configuration, report);
    }
    return report;
}

} // namespace CheckTool
