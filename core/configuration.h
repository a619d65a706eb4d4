// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the administrator sets, and where it lies.
#pragma once

#include <QtGlobal>

#include <array>

class QSettings;

namespace QMR {

// The folders below that for data of all users, the second in the first, and the files in it.
inline constexpr auto OrganizationName = "Brackwater";
inline constexpr auto ApplicationName = "Quill Mere";
inline constexpr auto ConfigurationFile = "qmr.cfg"; // in QSettings' INI format
inline constexpr auto DatabaseFile = "qmr.db";

struct Configuration
{
    quint32 minimumDiscoveryPeriod = 30; // seconds
    // A port beyond 16 bits is shown as it was read, and loses its upper bits at the socket.
    quint32 radioRegistrationPort = 9361;
    quint32 applicationPort = 9361; // the same number on purpose: one is UDP, the other TCP

    struct Key
    {
        const char *name;
        quint32 Configuration::*value;
    };
    static const std::array<Key, 3> &keys();

    // What is missing has its default, what is no number counts as 0.
    static Configuration read(const QSettings &settings);
};

} // namespace QMR
