// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/fuzz/server/memoryapplication.h"

#include "apps/applicationconnection.h"

#include <QTimer>

#include <algorithm>

using namespace Qt::StringLiterals;
using QMR::ApplicationReader;

namespace {

QString faultText(ApplicationReader::Fault fault)
{
    switch (fault) {
    case ApplicationReader::Fault::InvalidHeader:
        return u"QMRA Protocol error: invalid message (2)"_s;
    case ApplicationReader::Fault::UnsupportedVersion:
        return u"QMRA protocol version not supported.  Update connected applications"_s;
    case ApplicationReader::Fault::InvalidLength:
        return u"QMRA protocol error detected: invalid payload length"_s;
    case ApplicationReader::Fault::InvalidType:
        return u"QMRA protocol error detected: invalid message (1)"_s;
    case ApplicationReader::Fault::Timeout:
        return u"Network error: read timeout"_s;
    }
    return {};
}

bool isError(ApplicationReader::Fault fault)
{
    return fault == ApplicationReader::Fault::UnsupportedVersion ||
           fault == ApplicationReader::Fault::Timeout;
}

} // namespace

MemoryApplication::MemoryApplication(RegistrationModel &registrationModel, QObject *owner)
    : model(registrationModel), end(new MemorySocket(owner)), snapshot(model.snapshot())
{
    model.records.append(
        RecordingLog::record(Scm::EventInformation, u"Application connected from 127.0.0.1"_s));
    wires().connecting.push_back(end);
    wires().applicationConnected();
}

MemoryApplication::~MemoryApplication()
{
    delete end.data();
}

void MemoryApplication::announce(const QByteArray &bytes)
{
    unread.append(bytes);
    if (!reader.isReady()) {
        takeArrival();
    }
    while (reader.isReady() || (takeArrival() && reader.isReady())) {
        handle(reader.read());
    }
}

bool MemoryApplication::takeArrival()
{
    const qsizetype count = std::min(reader.room(), unread.size());
    if (count == 0) {
        return false;
    }
    reader.arrived(QByteArrayView(unread).first(count));
    unread.remove(0, count);
    return true;
}

void MemoryApplication::handle(const ApplicationReader::Reading &reading)
{
    if (const auto *report = std::get_if<QMR::Qmra::RadioReport>(&reading)) {
        model.isReported(report->esn, report->address);
    } else if (const auto *fault = std::get_if<ApplicationReader::Fault>(&reading)) {
        record(*fault);
    }
}

void MemoryApplication::record(ApplicationReader::Fault fault)
{
    model.records.append(
        RecordingLog::record(isError(fault) ? Scm::EventError : Scm::EventWarning, faultText(fault)));
}

void MemoryApplication::announceEnd(QAbstractSocket::SocketError error)
{
    if (error != QAbstractSocket::RemoteHostClosedError) {
        model.records.append(RecordingLog::record(
            Scm::EventWarning,
            u"Network error %1 on connection to 127.0.0.1:%2"_s.arg(error).arg(socket().peerPort())));
    }
    model.records.append(
        RecordingLog::record(Scm::EventInformation, u"Application disconnected from 127.0.0.1"_s));
    if (reader.isAwaiting()) {
        announceTimeout();
    }
}

void MemoryApplication::announceTimeout()
{
    record(reader.giveUpWaiting());
}

QTimer *MemoryApplication::waitTimer() const
{
    const auto *connection = end->findChild<QMR::ApplicationConnection *>();
    return connection->findChild<QTimer *>();
}

QList<Notice> MemoryApplication::takeNotices()
{
    const QByteArray told = end->takeTold();
    QList<Notice> notices;
    qsizetype offset = 0;
    while (const auto notice = noticeAt(told, offset)) {
        notices.append(*notice);
        offset += QMR::Qmra::messageSize(QByteArrayView(told).sliced(offset));
    }
    if (offset != told.size()) {
        notices.append(Notice());
    }
    return notices;
}
