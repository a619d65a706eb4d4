// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/backgroundapplication.h"

#include <QHostAddress>
#include <QTcpSocket>

BackgroundApplication::BackgroundApplication(quint16 serverPort, const QList<QByteArray> &segments,
                                             std::chrono::milliseconds pause, Then then)
    : repeating(then == Then::Repeat)
{
    if (then == Then::Close) {
        released.release();
    }
    thread = std::thread([this, serverPort, segments, pause] {
        QTcpSocket socket;
        socket.connectToHost(QHostAddress::LocalHost, serverPort);
        if (!socket.waitForConnected()) {
            qFatal("cannot connect to port %d", serverPort);
        }
        socket.setSocketOption(QAbstractSocket::LowDelayOption, 1); // each segment leaves by itself
        do {
            for (const QByteArray &segment : segments) {
                socket.write(segment);
                socket.flush();
                std::this_thread::sleep_for(pause);
            }
        } while (repeating);
        socket.write(last);
        socket.flush();
        released.acquire();
    });
}

BackgroundApplication::~BackgroundApplication()
{
    repeating = false;
    released.release();
    thread.join();
}

void BackgroundApplication::endWith(const QByteArray &segment)
{
    last = segment;
    repeating = false;
}
