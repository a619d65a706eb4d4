// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QList>
#include <QSemaphore>

#include <chrono>
#include <thread>

// An application on a thread of its own: it goes on sending while the server, on the test's thread, waits for
// the rest of a message. It connects, sends the segments one after another with a pause behind each, and
// then closes, at once or when the object goes.
class BackgroundApplication
{
public:
    enum class Then { Stay, Close };

    BackgroundApplication(quint16 serverPort, const QList<QByteArray> &segments,
                          std::chrono::milliseconds pause, Then then = Then::Stay);
    ~BackgroundApplication();
    Q_DISABLE_COPY_MOVE(BackgroundApplication)

private:
    QSemaphore released;
    std::thread thread;
};
