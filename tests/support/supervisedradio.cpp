// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/supervisedradio.h"

#include <QHostAddress>

using namespace Qt::StringLiterals;

void startWith(TestServer &server, const QList<SupervisedRadio> &radios)
{
    server.start(); // makes the database
    for (const SupervisedRadio &radio : radios) {
        const QString serial = QString::number(radio.serial, 16).rightJustified(2, u'0');
        server.query(u"INSERT INTO subscribers (esn, suid, ip_address, availability, "
                     "last_contact_time, num_discovery_attempts, last_discovery_attempt, "
                     "protocol_version) VALUES (x'0011AABB22CC33%1', x'123456789ABC%1', %2, "
                     "%3, %4, %5, %6, 3)"_s.arg(serial)
                         .arg(QHostAddress(radio.address).toIPv4Address())
                         .arg(radio.availability)
                         .arg(radio.lastContact)
                         .arg(radio.attempts)
                         .arg(radio.lastDiscovery));
    }
    server.restart();
}

QMR::Esn esnOf(quint8 serial)
{
    return {{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, serial}};
}

char *toString(const SupervisionState &state)
{
    return qstrdup(
        u"availability %1, attempts %2, last contact %3, last discovery %4"_s.arg(state.availability)
            .arg(state.attempts)
            .arg(state.lastContact)
            .arg(state.lastDiscovery)
            .toUtf8()
            .constData());
}

QList<SupervisionState> storedStates(const TestServer &server)
{
    QList<SupervisionState> states;
    for (const QVariantList &row :
         server.query(u"SELECT availability, num_discovery_attempts, last_contact_time, "
                      "last_discovery_attempt FROM subscribers ORDER BY esn"_s)) {
        states.append({row[0].toUInt(), row[1].toInt(), row[2].toLongLong(), row[3].toLongLong()});
    }
    return states;
}

QList<SupervisionState> liveStates(const TestServer &server)
{
    QList<SupervisionState> states;
    for (const auto &[esn, radio] : server->radios()) {
        states.append({radio->availability, radio->discoveryAttempts,
                       radio->lastContactTime.toSecsSinceEpoch(),
                       radio->lastDiscoveryAttempt.toSecsSinceEpoch()});
    }
    return states;
}
