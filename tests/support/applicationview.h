// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/scriptedapplication.h"

#include <QByteArray>
#include <QTcpSocket>

#include <map>

// An application that keeps its own table of the radios, made of the notices it gets and nothing else.
class ApplicationView
{
public:
    using Table = std::map<QMR::Esn, Notice>;

    explicit ApplicationView(quint16 serverPort); // connects in the background
    Q_DISABLE_COPY_MOVE(ApplicationView)

    QTcpSocket &connection() { return socket; }
    const Table &radios() const { return table; }
    qsizetype notices() const { return received; }

private:
    void read();

    QTcpSocket socket;
    QByteArray unread;
    Table table;
    qsizetype received = 0;
};
