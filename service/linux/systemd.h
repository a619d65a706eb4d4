// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// systemd as this program speaks to it: over its bus, about one unit at a time.
#pragma once

#include "service/scm.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QString>

class QDeadlineTimer;
struct sd_bus;

namespace Linux {

// Where the service manager's things lie on this machine; a test names others.
struct Places
{
    QByteArrayList unitFolders = {"/etc/systemd/system", "/run/systemd/system",
                                  "/usr/local/lib/systemd/system", "/usr/lib/systemd/system",
                                  "/lib/systemd/system"}; // the first one is ours
    QByteArray runtimeFolder = "/run";
    QByteArray managerSocket = "/run/systemd/private"; // for root, with or without a bus daemon
    QByteArray busSocket = "/run/dbus/system_bus_socket";
    int timeoutMilliseconds = 60000; // for each call of systemd, and for a service to begin
};
Places &places();

// Where a unit's service finds its start parameters and listens for controls while it runs.
QByteArray runtimeDirectory(const QString &unit);

struct UnitState
{
    Scm::State state = Scm::StateStopped;
    bool isLoaded = false;        // there is a unit file
    bool isMasked = false;        // the administrator forbids starting it
    bool waitsForRestart = false; // it failed, and systemd will start it again
    bool hasReported = false;     // its process has told a status since it was started
    Scm::Dword exitCode = 0;
    QByteArray invocation; // another one for each start
};

// A connection to systemd. Where an operation fails the last error tells why: access denied, service does not
// exist, service disabled (masked), request time-out, service manager unavailable.
class Systemd
{
public:
    explicit Systemd(const QString &unitName); // without ".service"
    ~Systemd();
    Q_DISABLE_COPY_MOVE(Systemd)

    bool isReached() const { return bus != nullptr; }

    // A unit that systemd does not know is stopped and not loaded.
    bool query(UnitState &state);

    // Asked for, not waited for.
    bool start();
    bool stop();

    bool enable();
    bool disable();
    bool forgetFailure();
    // Makes systemd read all unit files.
    bool reload();

private:
    void connectTo(const QByteArray &socket, bool isBus, const QDeadlineTimer &deadline);
    template<typename... Arguments>
    bool callManager(const char *method, const char *types, Arguments... arguments);

    const QByteArray unit;
    sd_bus *bus = nullptr; // null: systemd cannot be reached
};

// The status text by which a service tells its state; systemd itself knows nothing of pausing.
QByteArray statusText(Scm::Dword state);

} // namespace Linux
