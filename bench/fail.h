// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QString>

#include <stdexcept>

// Something does not work: the run ends with the text, and everything that it has made goes with it.
[[noreturn]] inline void fail(const QString &text)
{
    throw std::runtime_error(text.toStdString());
}
