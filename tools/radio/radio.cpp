// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/radio.h"

#include <QCoreApplication>

#include <algorithm>
#include <limits>

using namespace Qt::StringLiterals;

namespace RadioTool {

using Kind = QMR::Qmrs::ServerMessage::Kind;

QByteArray registrationOf(const Identity &radio)
{
    if (radio.basic) {
        return QMR::Qmrs::encodeBasicRegistration(radio.protocolVersion, radio.esn, radio.services);
    }
    return QMR::Qmrs::encodeExtendedRegistration(radio.protocolVersion, radio.esn, radio.suid, radio.pending,
                                                 radio.services);
}

QMR::Esn registeredEsn(const Identity &radio)
{
    // Asked of the codec, which makes an ESN from the SUID for a radio that gives none.
    const auto message = QMR::Qmrs::decodeRadioMessage(registrationOf(radio));
    return std::get<QMR::Qmrs::Registration>(message).esn;
}

// NOLINTNEXTLINE(modernize-pass-by-value): copied once in a run
Radio::Radio(const Settings &newSettings)
    : settings(newSettings),
      report(settings.json),
      socket(
          [this](const QByteArray &datagram, const Console::Endpoint &sender) { handle(datagram, sender); }),
      listener(
          [this](const QByteArray &datagram, const Console::Endpoint &sender) { handle(datagram, sender); }),
      staying(settings.stay)
{
    timeoutTimer.setSingleShot(true);
    stayTimer.setSingleShot(true);
    QObject::connect(&timeoutTimer, &QTimer::timeout, &timeoutTimer, [this] { timeoutExpired(); });
    QObject::connect(&stayTimer, &QTimer::timeout, &stayTimer, [this] { interrupt(); });
}

void Radio::start()
{
    sinceStart.start();
    if (!openSockets()) {
        return;
    }
    if (staying && settings.stayTime > 0) {
        stayTimer.start(
            static_cast<int>(std::min<qint64>(settings.stayTime, std::numeric_limits<int>::max())));
    }
    if (settings.command == Command::Register) {
        registerAgain();
    } else if (settings.command == Command::Deregister) {
        deregister();
    }
}

bool Radio::openSockets()
{
    if (settings.command == Command::Listen) {
        return openListener(settings.from.value_or(QHostAddress(QHostAddress::AnyIPv4)));
    }
    const auto own = settings.from ? Console::Parsed<QHostAddress>::of(*settings.from)
                                   : RadioSocket::addressTowards(settings.server);
    if (!own) {
        fail(own.error);
        return false;
    }
    const QHostAddress &address = *own;
    if (!socket.open(address, 0)) {
        fail(u"cannot open a socket at %1: %2"_s.arg(address.toString(), socket.errorText()));
        return false;
    }
    return !staying || openListener(address);
}

bool Radio::openListener(const QHostAddress &address)
{
    // A server on this host has the port at every address, so only what was asked for must work.
    if (!settings.listenPort && address == settings.server.address) {
        return true;
    }
    const Console::Endpoint at{address, settings.listenPort.value_or(settings.server.port)};
    if (listener.open(at.address, at.port)) {
        report.listening(at);
        return true;
    }
    const QString error =
        u"cannot listen for discovery requests at %1: %2"_s.arg(at.text(), listener.errorText());
    if (settings.listenPort) {
        fail(error);
        return false;
    }
    Console::writeError(error);
    return true;
}

void Radio::registerAgain()
{
    if (!transmit(registrationOf(settings.radio))) {
        return;
    }
    ++statistics.sent;
    repeats = 0;
    waiting = true;
    sinceSent.start();
    report.registrationSent(settings.radio, socket.local(), settings.server);
    timeoutTimer.start(settings.timeout);
}

bool Radio::transmit(const QByteArray &datagram)
{
    if (socket.send(datagram, settings.server) == RadioSocket::Outcome::Sent) {
        return true;
    }
    fail(u"cannot send to %1: %2"_s.arg(settings.server.text(), socket.errorText()));
    return false;
}

void Radio::deregister()
{
    if (transmit(QMR::Qmrs::encodeDeregistration(settings.radio.protocolVersion, settings.radio.esn))) {
        ++statistics.deregistered;
        report.deregistrationSent(settings.radio.esn, socket.local(), settings.server);
        finish();
    }
}

void Radio::handle(const QByteArray &datagram, const Console::Endpoint &sender)
{
    const QMR::Qmrs::ServerMessage message = QMR::Qmrs::decodeServerMessage(datagram);
    const bool isOurs = settings.command == Command::Register && message.esn == registeredEsn(settings.radio);
    if (message.kind == Kind::Acknowledgement && isOurs) {
        handleAcknowledgement(message, datagram, sender);
        return;
    }
    report.received(message, datagram, sender);
    if (message.kind != Kind::DiscoveryRequest) {
        ++statistics.unexpected;
    } else {
        ++statistics.discoveries;
        if (isOurs && staying && !waiting) {
            registerAgain();
        }
    }
    if (settings.messages > 0 && statistics.discoveries + statistics.unexpected >= settings.messages) {
        finish();
    }
}

void Radio::handleAcknowledgement(const QMR::Qmrs::ServerMessage &message, const QByteArray &datagram,
                                  const Console::Endpoint &sender)
{
    if (!waiting) {
        ++statistics.late;
        report.received(message, datagram, sender);
        return;
    }
    const qint64 latency = sinceSent.nsecsElapsed();
    statistics.addLatency(latency);
    report.acknowledged(message, sender, latency);
    timeoutTimer.stop();
    waiting = false;
    finishIfDone();
}

void Radio::timeoutExpired()
{
    if (repeats < settings.retries) {
        if (transmit(registrationOf(settings.radio))) {
            ++repeats;
            ++statistics.repeated;
            timeoutTimer.start(settings.timeout);
        }
        return;
    }
    ++statistics.lost;
    waiting = false;
    report.lost(registeredEsn(settings.radio), settings.timeout);
    finishIfDone();
}

void Radio::interrupt()
{
    const bool again = !staying;
    staying = false;
    if (again && waiting) {
        timeoutTimer.stop();
        repeats = settings.retries;
        timeoutExpired();
    } else {
        finishIfDone();
    }
}

void Radio::finishIfDone()
{
    if (!waiting && !staying) {
        finish();
    }
}

void Radio::finish()
{
    statistics.elapsed = sinceStart.elapsed();
    report.summary(statistics);
    const bool missing =
        statistics.lost > 0 || statistics.discoveries + statistics.unexpected < settings.messages;
    QCoreApplication::exit(missing ? ExitNotAcknowledged : Console::ExitSuccess);
}

void Radio::fail(const QString &error)
{
    Console::writeError(error);
    QCoreApplication::exit(Console::ExitError);
}

} // namespace RadioTool
