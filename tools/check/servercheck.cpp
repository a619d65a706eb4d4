// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/check/servercheck.h"

#include "tools/check/ports.h"
#include "tools/follow/connection.h"

#include <QEventLoop>
#include <QTimer>

#include <utility>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace CheckTool {

namespace {

constexpr auto Silence = 300ms; // after which a table is taken for whole: its end has no mark

Finding finding(State state, const QString &text)
{
    return {u"server"_s, state, text};
}

// Connects as an application does, stays until it knows all radios, and ends what it sends: a server that is
// alive ends the connection then.
class Application
{
public:
    enum class Outcome : quint8 {
        Unreached,
        Refuted,  // by what it says, or by its end: it is no server
        Deaf,     // it does not take notice of the end
        Answered, // it does
    };

    Application(quint16 port, std::chrono::milliseconds longest)
        : connection({QHostAddress(QHostAddress::LocalHost), port}), patience(longest)
    {
        silence.setSingleShot(true);
        end.setSingleShot(true);
        connection.onConnected = [this] {
            connected = true;
            silence.start(Silence);
        };
        connection.onNotice = [this](const auto &notice) { noticed(notice); };
        connection.onLost = [this](const QString &why, qint64) {
            reason = why;
            loop.quit();
        };
        QObject::connect(&silence, &QTimer::timeout, &loop, [this] { endTable(); });
        QObject::connect(&end, &QTimer::timeout, &loop, [this] {
            seen.isWhole = false;
            endTable();
        });
        end.start(patience);
        connection.open();
        loop.exec();
        connection.stop();
    }
    Q_DISABLE_COPY_MOVE(Application)

    Outcome outcome() const
    {
        if (!connected) {
            return Outcome::Unreached;
        }
        if (!hasEnded) {
            return Outcome::Refuted;
        }
        return reason.isEmpty() ? Outcome::Deaf : Outcome::Answered;
    }
    QString whyLost() const { return reason; }
    Snapshot snapshot() const { return seen; }

private:
    // The table comes in the order of the ESNs; what goes back behind an earlier one is a change that follows
    // it.
    void noticed(const QMR::Qmra::RadioNotice &notice)
    {
        if (hasEnded) {
            return;
        }
        if (last && notice.esn <= *last) {
            endTable();
            return;
        }
        last = notice.esn;
        if (notice.pending || notice.availability != QMR::Deregistered) {
            ++seen.radios;
            seen.pending += notice.pending ? 1 : 0;
        }
        silence.start(Silence);
    }

    void endTable()
    {
        silence.stop();
        end.stop();
        if (!connected || hasEnded) {
            loop.quit();
            return;
        }
        hasEnded = true;
        endSending(connection.descriptor());
        QTimer::singleShot(patience, &loop, &QEventLoop::quit);
    }

    Follow::Connection connection;
    std::chrono::milliseconds patience;
    QEventLoop loop;
    QTimer silence;
    QTimer end;
    Snapshot seen;
    std::optional<QMR::Esn> last;
    QString reason;
    bool connected = false;
    bool hasEnded = false;
};

QString udpText(quint16 port)
{
    return u"UDP port %1"_s.arg(port);
}

QString tcpText(quint16 port)
{
    return u"TCP port %1"_s.arg(port);
}

// Nobody answers at the application port.
Findings checkStopped(quint16 udp, quint16 tcp, bool mayBeStopped)
{
    QStringList taken;
    taken += isListenedAt(Protocol::Udp, udp) ? QStringList(udpText(udp)) : QStringList();
    taken += isListenedAt(Protocol::Tcp, tcp) ? QStringList(tcpText(tcp)) : QStringList();
    if (!taken.isEmpty()) {
        const QString are = taken.size() > 1 ? u"are"_s : u"is"_s;
        return {finding(State::Critical, u"it does not run, and %1 %2 taken by another program"_s.arg(
                                             taken.join(u" and "_s), are))};
    }
    Findings findings{finding(mayBeStopped ? State::Ok : State::Critical,
                              u"it does not run; %1 and %2 are free"_s.arg(udpText(udp), tcpText(tcp)))};
    for (const auto &[port, text] : {std::pair(udp, udpText(udp)), std::pair(tcp, tcpText(tcp))}) {
        if (port < firstPortForAll()) {
            findings +=
                finding(State::Warning,
                        u"%1 is below %2: the service needs a right for it that its unit takes away"_s.arg(
                            text, QString::number(firstPortForAll())));
        }
    }
    return findings;
}

} // namespace

Findings checkServer(const QMR::Configuration &configuration, bool mayBeStopped,
                     std::chrono::milliseconds patience, std::optional<Snapshot> &snapshot)
{
    snapshot.reset();
    const auto udp = static_cast<quint16>(configuration.radioRegistrationPort);
    const auto tcp = static_cast<quint16>(configuration.applicationPort);
    if (tcp == 0 || udp == 0) {
        return {finding(State::Unknown, u"nobody knows its ports"_s)};
    }
    const Application application(tcp, patience);
    switch (application.outcome()) {
    case Application::Outcome::Unreached:
        return checkStopped(udp, tcp, mayBeStopped);
    case Application::Outcome::Refuted:
        return {finding(State::Critical, u"%1 is another program's, or the server has just ended: %2"_s.arg(
                                             tcpText(tcp), application.whyLost()))};
    case Application::Outcome::Deaf:
        return {finding(State::Critical, u"%1 takes connections and does not answer"_s.arg(tcpText(tcp)))};
    case Application::Outcome::Answered:
        break;
    }
    snapshot = application.snapshot();
    if (!isListenedAt(Protocol::Udp, udp)) {
        return {finding(State::Critical,
                        u"nobody listens to radios at %1; %2 is served"_s.arg(udpText(udp), tcpText(tcp)))};
    }
    return {finding(State::Ok,
                    u"it runs, listens at %1, and tells %2 of %3%4 radios, %5 of them pending"_s.arg(
                        udpText(udp), tcpText(tcp), QString::number(snapshot->radios),
                        snapshot->isWhole ? QString() : u" and more"_s, QString::number(snapshot->pending)))};
}

} // namespace CheckTool
