// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/monitor/requestreader.h"

#include <QTcpSocket>
#include <QTimer>

#include <functional>
#include <memory>

namespace Monitor {

// One connection of a browser's, or whoever it is: takes one request after the other and answers it, or tells
// a stream until it ends. Whoever is too slow loses it, and nobody waits for anybody.
class HttpConnection
{
public:
    // The answer to a request; called at once for each.
    using Answering = std::function<Answer(const Request &)>;

    struct Patience // ms
    {
        int request = 10000; // for a whole request, from its first byte or the connection's begin
        int idle = 60000;    // for the next request, and for the other side to take what is sent
        int closing = 2000;  // for the other side to end, once its request has been refused
    };

    // Takes the socket. onEnd is called once, from the event loop's turn, and the connection may be destroyed
    // then.
    HttpConnection(QTcpSocket *socket, Answering answering, std::function<void()> onEnd, Patience patience);
    ~HttpConnection();
    Q_DISABLE_COPY_MOVE(HttpConnection)

    // For its next request: nobody loses anything that was asked for if it ends.
    bool isWaiting() const { return !stream && !isClosing && socket->bytesToWrite() == 0; }
    bool isEnding() const { return isClosing; }
    qint64 unsent() const { return socket->bytesToWrite(); } // bytes
    bool isStream() const { return stream != nullptr; }
    // Sends what its stream has to tell, as far as the other side has taken what came before.
    void tell();
    // Answers with an error, and ends when that is sent.
    void refuse(int status, const QByteArray &text);

private:
    void read();
    void readNext(); // in the event loop's next turn
    void answer(const Request &request);
    void refuseRequest(int status, const QByteArray &text);
    enum class After { Stay, Close };
    void send(const Answer &answer, bool withBody, bool isLast, After after);
    void written();
    void timeIsOver();
    void end();

    std::unique_ptr<QTcpSocket> socket;
    const Answering answering;
    const std::function<void()> onEnd;
    RequestReader reader;
    std::unique_ptr<Stream> stream;
    const Patience patience;
    QTimer deadline;
    bool isRequestDue = true; // the deadline is that of a request
    bool isClosing = false;   // after what is still to be sent
    bool isRefused = false;   // and what still comes is no longer read for what it is
    bool isReadDue = false;   // readNext() has been called, and its turn has not come
    bool isHeldUp = false;    // the stream has more to tell than the other side has taken
    bool hasEnded = false;
};

} // namespace Monitor
