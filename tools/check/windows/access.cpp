// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/access.h"

#include "core/configuration.h"
#include "service/platform.h"

using namespace Qt::StringLiterals;

namespace CheckTool {

QString serviceFolder()
{
    return platform.commonDataFolder().value_or(QString()) + u'/' + QLatin1String(QMR::OrganizationName) +
           u'/' + QLatin1String(QMR::ApplicationName);
}

Findings checkAccess(const QString &, const QString &)
{
    return {};
}

} // namespace CheckTool
