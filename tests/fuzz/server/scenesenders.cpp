// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What radios and applications do in a life.
#include "tests/fuzz/server/serverscene.h"

#include <QCoreApplication>
#include <QTimer>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;
using QMR::Esn;
namespace Qmrs = QMR::Qmrs;

namespace {

constexpr size_t MostApplications = 4;

// Few, so that they collide. The first is that of radios that do not tell theirs.
constexpr std::array<Esn, 4> Esns{{{{0, 0, 0, 0, 0, 0, 0, 0}},
                                   {{0, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0x01}},
                                   {{0, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0x02}},
                                   {{0xF1, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x03}}}};
constexpr quint32 FirstAddress = 0x7F000002;
constexpr quint32 AddressCount = 3;

const std::array<QMR::ServiceList, 4> Services{{{}, {1}, {3, 2, 2}, {7, 1, 0, 3}}};

QString rejectionText(Qmrs::Rejection reason)
{
    switch (reason) {
    case Qmrs::Rejection::InvalidHeader:
        return u"QMRS Protocol error: invalid message received (1)"_s;
    case Qmrs::Rejection::InvalidOpcodeForVersion:
        return u"QMRS Protocol error: invalid opcode for protocol version"_s;
    case Qmrs::Rejection::InvalidOpcode:
        return u"QMRS Protocol error: invalid message (2)"_s;
    case Qmrs::Rejection::InvalidDeregistrationLength:
    case Qmrs::Rejection::InvalidRegistrationLength:
        return u"Protocol error: invalid length"_s;
    }
    return {};
}

} // namespace

void ServerScene::storeRadios()
{
    const qint64 now = model.now / 1000; // seconds, as in the rows
    const quint32 stored = script.below(8);
    for (size_t i = 0; i < Esns.size() - 1; ++i) {
        if ((stored >> i & 1) == 0) {
            continue;
        }
        RegistrationModel::Row row;
        row.suid.bytes[6] = static_cast<quint8>(script.below(3));
        row.address = FirstAddress + script.below(AddressCount);
        row.availability = script.below(4);
        row.attempts = static_cast<quint16>(script.below(5));
        row.lastContact = now - std::array<qint64, 4>{0, 43199, 43200, 90000}[script.below(4)];
        row.lastDiscovery = now - std::array<qint64, 4>{0, 250, 1700, 90000}[script.below(4)];
        row.protocolVersion = 1 + script.below(3);
        comparison.run(qPrintable(row.insertion(Esns[i])));
        model.rows[Esns[i]] = row;
    }
}

Esn ServerScene::esn()
{
    return Esns[script.below(Esns.size())];
}

QByteArray ServerScene::registration()
{
    const Esn whose = esn();
    const quint8 form = script.byte();
    const QMR::ServiceList &services = Services[form & 3];
    const auto version = static_cast<quint8>(1 + (form >> 2) % 3);
    if (version == 1 || (form & 0x10) != 0) {
        return Qmrs::encodeBasicRegistration(version, whose, services);
    }
    QMR::Suid suid;
    suid.bytes[6] = static_cast<quint8>(1 + (form >> 5 & 1));
    return Qmrs::encodeExtendedRegistration(version, whose, suid, (form & 0x40) != 0, services);
}

// Changed, cut or longer.
QByteArray ServerScene::forged(QByteArray bytes)
{
    if (!bytes.isEmpty()) {
        bytes[script.byte() % bytes.size()] = static_cast<char>(script.byte());
    }
    const quint32 length = script.byte();
    if (length < 64) {
        bytes.truncate(bytes.size() * length / 64);
    } else if (length >= 192) {
        bytes.append(script.bytes(length - 192));
    }
    return bytes;
}

QByteArray ServerScene::anyMessage()
{
    switch (script.below(16)) {
    default:
        return registration();
    case 9:
    case 10:
    case 11:
        return Qmrs::encodeDeregistration(3, esn());
    case 12:
        return forged(registration());
    case 13:
        return forged(Qmrs::encodeDeregistration(3, esn()));
    case 14:
        return script.bytes(script.byte());
    case 15:
        return QByteArray("QMRS\3", 5) + script.bytes(script.below(32));
    }
}

MemoryWires::Datagram ServerScene::datagram()
{
    const QByteArray bytes = anyMessage();
    const quint32 sender = script.below(AddressCount);
    return {bytes, QHostAddress(FirstAddress + sender), static_cast<quint16>(50000 + sender)};
}

void ServerScene::announce(const MemoryWires::Datagram &datagram)
{
    begin("a radio sends", datagram.bytes + " from " + QByteArray::number(datagram.port));
    const quint32 address = datagram.address.toIPv4Address();
    const auto decoded = Qmrs::decodeRadioMessage(
        QByteArrayView(datagram.bytes)
            .first(std::min<qsizetype>(datagram.bytes.size(), Qmrs::MaximumMessage)));
    if (const auto *registration = std::get_if<Qmrs::Registration>(&decoded)) {
        model.registers({registration->esn, registration->protocolVersion, registration->suid, address,
                         registration->pending, registration->services});
        expect(Qmrs::Opcode::Acknowledgement, registration->protocolVersion, registration->esn,
               datagram.address, datagram.port);
    } else if (const auto *deregistration = std::get_if<Qmrs::Deregistration>(&decoded)) {
        if (deregistration->esn.isZero()) {
            model.deregistersByAddress(address);
        } else {
            model.deregisters(deregistration->esn, address);
        }
    } else {
        const auto reason = std::get<Qmrs::Rejection>(decoded);
        const bool isUnnumbered = reason == Qmrs::Rejection::InvalidRegistrationLength;
        model.records.append(RecordingLog::record(Scm::EventWarning, rejectionText(reason),
                                                  isUnnumbered ? 0 : RecordingLog::Id));
    }
}

void ServerScene::expect(Qmrs::Opcode opcode, quint32 version, const Esn &whose, const QHostAddress &address,
                         quint16 port)
{
    const quint16 payload = opcode == Qmrs::Opcode::Acknowledgement ? 1 : 0; // of zeros
    Qmrs::Buffer message{};
    Qmrs::writeHeader(message, static_cast<quint8>(version), whose, opcode, payload);
    expectedToBeSent.append(
        {QByteArray(reinterpret_cast<const char *>(message.data()), Qmrs::HeaderSize + payload), address,
         port});
}

void ServerScene::deliver(const MemoryWires::Datagram &datagram)
{
    wires().incoming.push_back(datagram);
}

void ServerScene::radioSends()
{
    const MemoryWires::Datagram sent = datagram();
    announce(sent);
    deliver(sent);
    wires().datagramArrived();
}

// The server finds all of them waiting, and has a turn of its loop between them; now and then a timer.
void ServerScene::radiosSendTogether()
{
    const quint32 count = 2 + script.below(4);
    const quint32 expiry = script.below(8);
    std::vector<MemoryWires::Datagram> sent;
    for (quint32 i = 0; i < count; ++i) {
        sent.push_back(datagram());
        deliver(sent.back());
    }
    for (quint32 i = 0; i < count; ++i) {
        announce(sent[i]);
        wires().datagramArrived();
        QCoreApplication::sendPostedEvents();
        if (i == expiry) {
            discoveryExpires();
        } else if (i + 4 == expiry) {
            deadlineExpires();
        }
    }
}

void ServerScene::applicationConnects()
{
    if (applications.size() < MostApplications) {
        begin("an application connects");
        applications.push_back(std::make_unique<MemoryApplication>(model, &sockets));
    }
}

QByteArray ServerScene::report()
{
    return QMR::Qmra::encodeReport({esn(), FirstAddress + script.below(AddressCount)});
}

void ServerScene::applicationSends()
{
    if (applications.empty()) {
        return;
    }
    MemoryApplication &application = *applications[script.below(applications.size())];
    QByteArray bytes;
    switch (script.below(8)) {
    case 0:
    case 1:
    case 2:
        bytes = report();
        break;
    case 3:
        bytes = report() + report() + report();
        break;
    case 4:
        bytes = report().first(script.below(20));
        break;
    case 5:
        bytes = report().sliced(script.below(20));
        break;
    case 6:
        bytes = forged(report()) + report();
        break;
    default:
        bytes = script.bytes(script.byte());
        break;
    }
    begin("an application sends", bytes);
    application.announce(bytes);
    application.socket().receives(bytes);
}

// At its end some of what it sent may still be unread.
void ServerScene::applicationEnds()
{
    if (applications.empty()) {
        return;
    }
    const auto application = applications.begin() + script.below(applications.size());
    const quint32 way = script.below(4);
    if (way >= 2) {
        const QByteArray last = forged(report());
        begin("an application sends at last", last);
        (*application)->announce(last);
        (*application)->socket().receives(last);
    }
    constexpr std::array Errors{QAbstractSocket::RemoteHostClosedError, QAbstractSocket::NetworkError,
                                QAbstractSocket::RemoteHostClosedError, QAbstractSocket::SocketTimeoutError};
    const auto error = Errors[way];
    begin("an application ends");
    (*application)->announceEnd(error);
    (*application)->socket().ends(error);
    drain();
    applications.erase(application);
}

// The rest of a message has not come for 500 ms, or comes in the last moment, or the connection breaks in it.
void ServerScene::applicationWaits()
{
    if (applications.empty()) {
        return;
    }
    const auto found = applications.begin() + script.below(applications.size());
    MemoryApplication &application = **found;
    if (!application.isAwaited()) {
        return;
    }
    const quint32 way = script.below(4);
    if (way % 2 == 0) {
        begin("an application's rest does not come");
        application.announceTimeout();
    } else if (way == 3) {
        begin("an application ends while its rest is looked for");
        application.announceEnd(QAbstractSocket::NetworkError);
        application.socket().endsLate();
    } else {
        const QByteArray late = report().sliced(script.below(20));
        begin("an application's rest comes late", late);
        application.announce(late);
        application.socket().comesLate(late);
    }
    fire(*application.waitTimer());
    if (way == 3) {
        drain();
        applications.erase(found);
    }
}

void ServerScene::applicationStalls()
{
    if (!applications.empty()) {
        MemoryApplication &application = *applications[script.below(applications.size())];
        begin("an application reads, or does not");
        application.socket().setStalled(script.below(2) == 0);
    }
}
