// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/modelcomparison.h"

#include <QCoreApplication>
#include <QDeadlineTimer>

using namespace Qt::StringLiterals;

namespace {

constexpr int Patience = 5000; // ms

// A request to a loopback address comes to the server's own socket, which rejects it with the first; the
// second is the answer to a datagram that is sent to know that all before it have been handled.
const LogRecord RequestCameBack =
    RecordingLog::record(Scm::EventWarning, u"QMRS Protocol error: invalid message (2)"_s);
const LogRecord GarbageArrived =
    RecordingLog::record(Scm::EventWarning, u"QMRS Protocol error: invalid message received (1)"_s);

} // namespace

ModelComparison::ModelComparison(TestServer &testServer, const RegistrationModel &registrationModel)
    : server(testServer), model(registrationModel), state(server.folder.databaseFile())
{
}

void ModelComparison::connectApplication()
{
    application = std::make_unique<ScriptedApplication>(server.applicationPort());
    const QString connected = u"Application connected from 127.0.0.1"_s;
    if (!happens([&] { return server.log.count(connected) > 0; })) {
        differs(u"the application"_s, u"nothing"_s, connected);
    }
    server.log.take();
}

void ModelComparison::waitForDatagramsOf(ScriptedRadio &radio)
{
    radio.sends("?");
    if (!happens([&] { return server.log.records().contains(GarbageArrived); })) {
        differs(u"datagrams"_s, u"not handled"_s, u"handled"_s);
    }
}

void ModelComparison::compare()
{
    if (!difference().isEmpty()) {
        return;
    }
    state.compareTable(server.object(), model);
    state.compareRows(server.object(), model);
    compareNotices();
    compareRecords();
}

void ModelComparison::compareNotices()
{
    qint64 size = 0;
    for (const Notice &notice : std::as_const(model.notices)) {
        size += 8 + 22 + notice.services.size();
    }
    QTcpSocket &connection = application->connection();
    if (!happens([&] { return connection.bytesAvailable() >= size; })) {
        return differs(u"notices"_s, u"%1 bytes"_s.arg(connection.bytesAvailable()), linesOf(model.notices));
    }
    const QList<Notice> received = application->receives(model.notices.size());
    if (received != model.notices) {
        differs(u"notices"_s, linesOf(received), linesOf(model.notices));
    }
}

void ModelComparison::compareRecords()
{
    happens([&] { return server.log.count(RequestCameBack.message) >= model.requests.size(); });
    QList<LogRecord> written = server.log.take();
    written.removeAll(GarbageArrived);
    QList<LogRecord> expected = model.records;
    expected.append(QList<LogRecord>(model.requests.size(), RequestCameBack));
    if (written != expected) {
        differs(u"records"_s, linesOf(written), linesOf(expected));
    }
}

bool ModelComparison::happens(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(Patience);
    while (!condition() && !deadline.hasExpired()) {
        QCoreApplication::processEvents();
    }
    return condition();
}
