// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/servercheck.h"

#include "radio/qmrs.h"
#include "tools/watch/connection.h"

#include <QEventLoop>
#include <QTimer>
#include <QUdpSocket>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace CheckTool {

namespace {

constexpr auto Silence = 300ms; // of a port, after which nothing more is expected

// No radio has this address: what it says changes nothing and is not recorded.
const QHostAddress Nobody(0x7F5A5A5A);

Finding finding(State state, const QString &text)
{
    return {u"server"_s, state, text};
}

// Where nobody listens the system answers in the server's place.
bool isRegistrationPortTaken(quint16 port)
{
    QUdpSocket socket;
    socket.bind(Nobody);
    socket.connectToHost(QHostAddress::LocalHost, port);
    socket.write(QMR::Qmrs::encodeDeregistration(3, QMR::Esn{}));
    char answer = 0;
    const bool isRefused =
        socket.waitForReadyRead(static_cast<int>(Silence.count())) && socket.read(&answer, 1) < 0;
    return !isRefused;
}

// Connects as an application does, and stays until it knows all radios.
class Application
{
public:
    Application(quint16 port, std::chrono::milliseconds patience)
        : connection({QHostAddress(QHostAddress::LocalHost), port})
    {
        silence.setSingleShot(true);
        connection.onConnected = [this] {
            connected = true;
            silence.start(Silence);
        };
        connection.onNotice = [this](const auto &notice) { noticed(notice); };
        connection.onLost = [this](const QString &why, qint64) {
            reason = why;
            loop.quit();
        };
        QObject::connect(&silence, &QTimer::timeout, &loop, &QEventLoop::quit);
        silence.start(patience);
        connection.open();
        loop.exec();
        connection.stop();
    }
    Q_DISABLE_COPY_MOVE(Application)

    bool isConnected() const { return connected; }
    // Of what became of the connection; empty while it stands.
    QString whyLost() const { return reason; }
    Snapshot snapshot() const { return seen; }

private:
    // The table comes in the order of the ESNs; what goes back behind an earlier one is a change that follows
    // it.
    void noticed(const QMR::Qmra::RadioNotice &notice)
    {
        isWhole = isWhole || (last && notice.esn <= *last);
        if (isWhole) {
            loop.quit();
            return;
        }
        last = notice.esn;
        if (notice.pending || notice.availability != QMR::Deregistered) {
            ++seen.radios;
            seen.pending += notice.pending ? 1 : 0;
        }
        silence.start(Silence);
    }

    WatchTool::Connection connection;
    QEventLoop loop;
    QTimer silence;
    Snapshot seen;
    std::optional<QMR::Esn> last;
    QString reason;
    bool connected = false;
    bool isWhole = false;
};

Findings checkPorts(bool isServed, bool isTaken, bool mayBeStopped, const QMR::Configuration &configuration)
{
    const QString udp = u"UDP port %1"_s.arg(static_cast<quint16>(configuration.radioRegistrationPort));
    const QString tcp = u"TCP port %1"_s.arg(static_cast<quint16>(configuration.applicationPort));
    if (isServed && !isTaken) {
        return {finding(State::Critical, u"nobody listens to radios at %1; %2 is served"_s.arg(udp, tcp))};
    }
    if (!isServed && isTaken) {
        return {
            finding(State::Critical, u"%1 is taken, and nobody serves applications at %2"_s.arg(udp, tcp))};
    }
    if (!isServed) {
        return {finding(mayBeStopped ? State::Ok : State::Critical,
                        u"it does not run; %1 and %2 are free"_s.arg(udp, tcp))};
    }
    return {};
}

} // namespace

Findings checkServer(const QMR::Configuration &configuration, bool mayBeStopped,
                     std::chrono::milliseconds patience, std::optional<Snapshot> &snapshot)
{
    snapshot.reset();
    const auto applicationPort = static_cast<quint16>(configuration.applicationPort);
    const auto registrationPort = static_cast<quint16>(configuration.radioRegistrationPort);
    if (applicationPort == 0 || registrationPort == 0) {
        return {finding(State::Unknown, u"nobody knows its ports"_s)};
    }
    const Application application(applicationPort, patience);
    const Findings ports = checkPorts(application.isConnected(), isRegistrationPortTaken(registrationPort),
                                      mayBeStopped, configuration);
    if (!ports.isEmpty()) {
        return ports;
    }
    if (!application.whyLost().isEmpty()) {
        return {finding(State::Critical,
                        u"TCP port %1 is another program's, or the server has just ended: %2"_s.arg(
                            QString::number(applicationPort), application.whyLost()))};
    }
    snapshot = application.snapshot();
    return {finding(
        State::Ok,
        u"it runs, listens at UDP port %1, and tells TCP port %2 of %3 radios, %4 of them pending"_s.arg(
            QString::number(registrationPort), QString::number(applicationPort),
            QString::number(snapshot->radios), QString::number(snapshot->pending)))};
}

} // namespace CheckTool
