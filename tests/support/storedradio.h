// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/testserver.h"

using namespace Qt::StringLiterals;

// A row of the table subscribers, written past the server. Texts are SQL expressions.
struct StoredRadio
{
    int id = 1;
    QString esn = u"x'0011AABB22CC33DD'"_s;
    QString suid = u"x'123456789ABCDE'"_s;
    qint64 address = 2130706437; // 127.0.0.5
    qint64 availability = 3;
    qint64 contact = 0; // seconds since 1970, as the next but one
    qint64 attempts = 0;
    qint64 discovery = 0;
    qint64 protocolVersion = 3;
    QList<int> services = {};

    // The database has the current schema already.
    void store(const TestServer &server) const
    {
        QStringList values{QString::number(id), esn, suid};
        for (const qint64 value : {address, availability, contact, attempts, discovery, protocolVersion}) {
            values.append(QString::number(value));
        }
        server.query(u"INSERT INTO subscribers (id, esn, suid, ip_address, availability, "
                     "last_contact_time, num_discovery_attempts, last_discovery_attempt, "
                     "protocol_version) VALUES (%1)"_s.arg(values.join(u", "_s)));
        for (const int service : services) {
            server.query(u"INSERT INTO supported_services VALUES (%1, %2)"_s.arg(id).arg(service));
        }
    }
};
