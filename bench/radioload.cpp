// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/radioload.h"

#include "bench/barestatements.h"
#include "bench/fail.h"

#include <QCoreApplication>
#include <QFile>

#include <limits>

namespace {

constexpr qint64 NotWaiting = -1;
constexpr size_t Batch = 32;               // datagrams a system call
constexpr qint64 Silence = 100'000'000;    // ns, then the system is asked what it has dropped
constexpr qint64 Patience = 5'000'000'000; // ns, then what is under way counts as lost

} // namespace

using namespace Qt::StringLiterals;

RadioLoad::RadioLoad(quint16 serverPort)
    : port(serverPort),
      socket(RadioTool::FleetSocket::create(
          {QHostAddress(QHostAddress::LocalHost), port},
          {[this](QByteArrayView datagram, quint32 receiver) { acknowledged(datagram, receiver); }, [] {}})),
      batch(Batch),
      suid{BareStatements::Suid},
      services(BareStatements::Services.begin(), BareStatements::Services.end())
{
    if (const QString error = socket->open(BareStatements::FirstAddress, 1); !error.isNull()) {
        fail(error);
    }
    wakeUp.start(Silence / 1'000'000);
}

RadioLoad::Result RadioLoad::keepUnderWay(RadioOrder &radios, uint32_t window, std::chrono::milliseconds time)
{
    return run(radios, window, UINT32_MAX, std::chrono::nanoseconds(time).count());
}

RadioLoad::Result RadioLoad::registerEach(RadioOrder &radios, uint32_t window)
{
    return run(radios, window, radios.participants(), std::numeric_limits<qint64>::max());
}

RadioLoad::Result RadioLoad::run(RadioOrder &radios, uint32_t window, uint32_t registrations,
                                 qint64 nanoseconds)
{
    begin();
    do {
        while (result.lost() < window && result.sent < registrations && clock.nsecsElapsed() < nanoseconds) {
            add(radios.next());
        }
        send();
    } while (awaitMore());
    return result;
}

RadioLoad::Result RadioLoad::atOnce(uint32_t first, uint32_t count)
{
    begin();
    for (uint32_t radio = first; radio < first + count; ++radio) {
        add(radio);
    }
    do {
        send();
    } while (awaitMore());
    return result;
}

RadioLoad::Result RadioLoad::steady(RadioOrder &radios, uint32_t perSecond,
                                    const std::function<bool()> &goesOn)
{
    begin();
    QTimer pace;
    pace.setTimerType(Qt::PreciseTimer);
    pace.start(1);
    while (goesOn()) {
        const double due = static_cast<double>(clock.nsecsElapsed()) / 1e9 * perSecond;
        while (result.sent < due) {
            add(radios.next());
        }
        send();
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    pace.stop();
    while (awaitMore()) {
    }
    return result;
}

void RadioLoad::begin()
{
    // A late acknowledgement of what has counted as lost is none of this time's.
    socket->receive();
    std::ranges::fill(sentAt, NotWaiting);
    result = {};
    droppedBefore = dropped();
    lastHeard = 0;
    clock.start();
}

void RadioLoad::add(uint32_t radio)
{
    RadioTool::FleetDatagram &datagram = batch[batched++];
    datagram.size = QMR::Qmrs::writeExtendedRegistration(
        datagram.bytes, 3, QMR::Esn{BareStatements::esn(radio)}, suid, false, services);
    datagram.source = BareStatements::address(radio);
    if (radio >= sentAt.size()) {
        sentAt.resize(radio + 1, NotWaiting);
    }
    sentAt[radio] = clock.nsecsElapsed();
    ++result.sent;
    if (batched == Batch) {
        send();
    }
}

void RadioLoad::send()
{
    size_t done = 0;
    while (done < batched) {
        const auto sending = socket->send(std::span(batch).subspan(done, batched - done));
        if (!sending.error.isNull()) {
            fail(sending.error);
        }
        done += sending.count;
        if (done < batched) {
            socket->receive();
        }
    }
    batched = 0;
}

void RadioLoad::acknowledged(QByteArrayView datagram, uint32_t address)
{
    const uint32_t radio = BareStatements::radioAt(address);
    if (QMR::Qmrs::decodeServerMessage(datagram).kind != QMR::Qmrs::ServerMessage::Kind::Acknowledgement ||
        radio >= sentAt.size() || sentAt[radio] == NotWaiting) {
        return;
    }
    lastHeard = clock.nsecsElapsed();
    result.milliseconds.push_back(static_cast<double>(lastHeard - sentAt[radio]) / 1e6);
    result.worstMilliseconds = std::max(result.worstMilliseconds, result.milliseconds.back());
    result.seconds = static_cast<double>(lastHeard) / 1e9;
    ++result.acknowledged;
    sentAt[radio] = NotWaiting;
}

// Takes in what has arrived. False: nothing is under way that could still be acknowledged.
bool RadioLoad::awaitMore()
{
    const uint32_t before = result.acknowledged;
    socket->receive();
    while (result.lost() > 0 && result.acknowledged == before) {
        // Asleep: to look without a pause takes the processor from the server where there are few.
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        const qint64 silent = clock.nsecsElapsed() - lastHeard;
        if (silent > Patience || (silent > Silence && dropped() - droppedBefore >= result.lost())) {
            break;
        }
    }
    return result.acknowledged != before;
}

// What the system has dropped at the server's socket so far, its receive buffer being full.
uint64_t RadioLoad::dropped() const
{
    QFile sockets(u"/proc/net/udp6"_s);
    const QByteArray local = ':' + QByteArray::number(port, 16).rightJustified(4, '0').toUpper();
    if (sockets.open(QIODevice::ReadOnly)) {
        for (const QByteArray &line : sockets.readAll().split('\n')) {
            const QList<QByteArray> fields = line.simplified().split(' ');
            if (fields.value(1).endsWith(local)) {
                return fields.last().toULongLong();
            }
        }
    }
    fail(u"no server at port %1"_s.arg(port));
}
