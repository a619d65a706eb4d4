// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/check.h"

#include "tools/check/access.h"
#include "tools/check/configurationcheck.h"
#include "tools/check/databasecheck.h"

#include <QFileInfo>
#include <QThread>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

// What the server owes to the database it stores within a second of the cause's end.
constexpr int Looks = 3;
constexpr unsigned long Pause = 500; // ms

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

// A radio has a row as long as it has a confirmed registration; of a pending one both are possible.
bool agree(const Snapshot &snapshot, qint64 rows)
{
    return rows <= snapshot.radios && rows >= snapshot.radios - snapshot.pending;
}

// The server, and its radios beside the rows. Where rows have changed meanwhile a difference says nothing.
void lookAtServer(const Settings &settings, const QString &database, const QMR::Configuration &configuration,
                  Report &report)
{
    Findings server;
    const RowCounter rows(database, settings.timeout);
    for (int look = 1; look <= Looks; ++look) {
        if (look > 1) {
            QThread::msleep(Pause);
        }
        const qint64 before = rows.state();
        report.rows = rows.count();
        server = checkServer(configuration, settings.mayBeStopped, settings.timeout, report.snapshot);
        const bool canTell = report.snapshot && report.snapshot->isWhole && report.rows;
        if (!canTell || agree(*report.snapshot, *report.rows)) {
            break;
        }
        if (look == Looks && rows.state() == before) {
            server += {u"rows"_s, State::Warning,
                       u"the server knows %1 radios, %2 of them pending, and the database has %3"_s.arg(
                           QString::number(report.snapshot->radios),
                           QString::number(report.snapshot->pending), QString::number(*report.rows))};
        }
    }
    report.findings += server;
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
