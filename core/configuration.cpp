// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/configuration.h"

#include <QSettings>
#include <QVariant>

namespace QMR {

const std::array<Configuration::Key, 3> &Configuration::keys()
{
    static constexpr std::array<Key, 3> All{
        Key{"minimumDiscoveryPeriod", &Configuration::minimumDiscoveryPeriod},
        Key{"radioRegistrationPort", &Configuration::radioRegistrationPort},
        Key{"applicationPort", &Configuration::applicationPort},
    };
    return All;
}

Configuration Configuration::read(const QSettings &settings)
{
    Configuration configuration;
    for (const auto &[name, value] : keys()) {
        configuration.*value = settings.value(QLatin1String(name), configuration.*value).toUInt();
    }
    return configuration;
}

} // namespace QMR
