// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/check.h"

#include "tools/check/access.h"
#include "tools/check/configurationcheck.h"
#include "tools/check/databasecheck.h"

#include <QFileInfo>

using namespace Qt::StringLiterals;

namespace CheckTool {

namespace {

constexpr int Looks = 3; // radios come and go between the two counts

// A radio has a row as long as it has a confirmed registration; of a pending one both are possible.
bool agree(const Snapshot &snapshot, qint64 rows)
{
    return rows <= snapshot.radios && rows >= snapshot.radios - snapshot.pending;
}

} // namespace

Report check(const Settings &settings)
{
    const QString folder = settings.folder.isEmpty() ? serviceFolder() : settings.folder;
    const QString database = folder + u'/' + QLatin1String(QMR::DatabaseFile);
    QMR::Configuration configuration;
    Report report;
    // Everything in it would seem not to be there.
    const QFileInfo whole(folder);
    if (whole.exists() && !whole.isExecutable()) {
        report.findings = {
            {u"folder"_s, State::Unknown, u"%1: this user may not look into it"_s.arg(folder)}};
        return report;
    }
    const Findings before =
        checkConfiguration(folder + u'/' + QLatin1String(QMR::ConfigurationFile), configuration) +
        checkAccess(folder, settings.account) + checkDriver();
    for (int look = 0; look < Looks; ++look) {
        const Findings server =
            checkServer(configuration, settings.mayBeStopped, settings.timeout, report.snapshot);
        report.findings = before + checkDatabase(database, settings.timeout, report.rows) + server;
        if (!report.snapshot || !report.rows || agree(*report.snapshot, *report.rows)) {
            return report;
        }
    }
    report.findings += {u"rows"_s, State::Warning,
                        u"the server knows %1 radios, %2 of them pending, and the database has %3"_s.arg(
                            QString::number(report.snapshot->radios),
                            QString::number(report.snapshot->pending), QString::number(*report.rows))};
    return report;
}

} // namespace CheckTool
