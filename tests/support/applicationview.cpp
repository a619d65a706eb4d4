// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/applicationview.h"

#include <optional>

ApplicationView::ApplicationView(quint16 serverPort)
{
    QObject::connect(&socket, &QTcpSocket::readyRead, &socket, [this] { read(); });
    socket.connectToHost(QHostAddress::LocalHost, serverPort);
}

void ApplicationView::read()
{
    unread += socket.readAll();
    qsizetype offset = 0;
    while (const std::optional<Notice> notice = noticeAt(unread, offset)) {
        offset += 30 + notice->services.size();
        ++received;
        if (!notice->pending && notice->availability == 0) {
            table.erase(notice->esn);
        } else {
            table[notice->esn] = *notice;
        }
    }
    unread.remove(0, offset);
}
