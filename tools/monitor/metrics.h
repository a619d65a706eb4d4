// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/observed.h"

#include <QByteArray>

namespace Monitor {

// What Prometheus reads: the text format 0.0.4.
QByteArray metricsText(const Observed &observed, const QString &version, size_t streams, qint64 now);

} // namespace Monitor
