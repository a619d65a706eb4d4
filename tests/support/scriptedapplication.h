// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "radio/identity.h"
#include "tests/support/scriptedradio.h"

#include <QTcpSocket>

#include <optional>

// What a notice says of a radio.
struct Notice
{
    QMR::Esn esn;
    QMR::Suid suid;
    bool pending = false;
    quint32 address = 0; // IPv4
    int availability = 0;
    QByteArray services;

    bool operator==(const Notice &) const = default;
};

char *toString(const Notice &notice); // what QCOMPARE prints

// The notice whose header begins there; nothing when it is not there whole. Fails the process when it is no
// notice.
std::optional<Notice> noticeAt(const QByteArray &bytes, qsizetype offset);

// One application, reading its bytes one by one, so that a scenario does not rest on the codec it tests.
class ScriptedApplication
{
public:
    // Connects, and waits until it is.
    explicit ScriptedApplication(quint16 serverPort);

    QTcpSocket &connection() { return socket; }

    // Waits for count more notices and returns them in order; fewer when they did not come in time.
    QList<Notice> receives(qsizetype count);
    // Waits for the next notice; it shows this radio confirmed in this availability, or pending.
    bool sees(const ScriptedRadio &radio, int availability, const QByteArray &services = QByteArray());
    bool seesPending(const ScriptedRadio &radio, const QByteArray &services = QByteArray());
    // The radio is gone: availability 0, address 0.
    bool seesGone(const ScriptedRadio &radio);

    void reports(const QMR::Esn &esn, const QHostAddress &address);
    void sends(const QByteArray &bytes);
    // The 8 header bytes and the payload, with the length that is true.
    static QByteArray message(quint8 type, const QByteArray &payload, quint8 version = 4);

private:
    std::optional<Notice> nextNotice();

    QTcpSocket socket;
};
