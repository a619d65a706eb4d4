// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationconnection.h"

#include <QHostAddress>
#include <QTcpSocket>

#include <algorithm>
#include <chrono>
#include <utility>

using namespace std::chrono_literals;

namespace QMR {

namespace {

constexpr auto LongestWait = 500ms; // for the rest of a message, anew with each arrival

} // namespace

ApplicationConnection::ApplicationConnection(QTcpSocket *socket)
    : QObject(socket), stream(socket), address(socket->peerAddress().toString()), port(socket->peerPort())
{
    waitTimer.setSingleShot(true);
    waitTimer.setTimerType(Qt::PreciseTimer);
    waitTimer.setInterval(LongestWait);
    connect(&waitTimer, &QTimer::timeout, this, &ApplicationConnection::endWait);
}

// What arrives while an earlier arrival is still being read stays in the socket until that has been read: it
// begins a round of its own.
bool ApplicationConnection::hasMessage()
{
    if (!reader.isReady()) {
        takeArrival();
    }
    return reader.isReady();
}

void ApplicationConnection::takeArrival()
{
    const qint64 count = std::min<qint64>(reader.room(), ended ? rest.size() : stream->bytesAvailable());
    if (count <= 0) {
        return;
    }
    if (ended) {
        reader.arrived(QByteArrayView(rest).first(count));
        rest.remove(0, count);
    } else {
        reader.arrived(stream->read(count));
    }
    superviseWait();
}

ApplicationReader::Reading ApplicationConnection::readMessage()
{
    const auto reading = reader.read();
    superviseWait();
    return reading;
}

void ApplicationConnection::superviseWait()
{
    if (reader.isAwaiting() && !ended) {
        waitTimer.start();
    } else {
        waitTimer.stop();
    }
}

// When the event loop was held up, the timer can fire before the socket has signalled what has arrived.
void ApplicationConnection::endWait()
{
    lookingAgain = true;
    const bool arrived = stream->waitForReadyRead(0);
    lookingAgain = false;
    if (!arrived) {
        emit waitEnded();
    }
}

void ApplicationConnection::tellOfTable(const Esn &esn, QByteArrayView notice)
{
    lastOfTable = esn;
    accept(notice);
}

void ApplicationConnection::completeTable()
{
    tableSent = true;
    accept(std::exchange(afterTable, QByteArray()));
}

qsizetype ApplicationConnection::tell(QByteArrayView notices, qint64 allowance)
{
    if (tableSent && notices.size() <= allowance && accept(notices)) {
        return 0;
    }
    qsizetype lost = 0;
    for (; !notices.isEmpty() && !ended; notices = notices.sliced(Qmra::messageSize(notices))) {
        lost += tellOne(notices.first(Qmra::messageSize(notices)), allowance) ? 0 : 1;
    }
    return lost;
}

bool ApplicationConnection::tellOne(QByteArrayView notice, qint64 &allowance)
{
    // Before the first of the table has been sent there is no last one, which compares as less than every
    // ESN.
    if (!tableSent && Qmra::noticeEsn(notice) > lastOfTable) {
        return true; // the table will show it
    }
    if (notice.size() > allowance) {
        return false;
    }
    allowance -= notice.size();
    if (!tableSent) {
        afterTable.append(notice);
        return true;
    }
    return accept(notice);
}

bool ApplicationConnection::accept(QByteArrayView notices)
{
    return stream->write(notices.data(), notices.size()) == notices.size();
}

void ApplicationConnection::flush()
{
    stream->flush();
}

qint64 ApplicationConnection::unsent() const
{
    return stream->bytesToWrite() + afterTable.size();
}

void ApplicationConnection::end(const QString &warning)
{
    rest = stream->readAll();
    ended = true;
    lastWarning = warning;
    waitTimer.stop();
}

} // namespace QMR
