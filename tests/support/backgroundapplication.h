// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QList>
#include <QSemaphore>

#include <atomic>
#include <chrono>
#include <thread>

// An application on a thread of its own: it goes on sending while the server, on the test's thread, waits for
// the rest of a message. It connects, sends the segments one after another with a pause behind each, once or
// until it is told its last one, and then closes, at once or when the object goes.
class BackgroundApplication
{
public:
    enum class Then { Stay, Close, Repeat };

    BackgroundApplication(quint16 serverPort, const QList<QByteArray> &segments,
                          std::chrono::milliseconds pause, Then then = Then::Stay);
    ~BackgroundApplication();
    Q_DISABLE_COPY_MOVE(BackgroundApplication)

    // Ends the repetition with this segment, behind all the others.
    void endWith(const QByteArray &segment);

private:
    QByteArray last;
    std::atomic<bool> repeating;
    QSemaphore released;
    std::thread thread;
};
