// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QByteArrayList>
#include <QMap>
#include <QTemporaryDir>

#include <atomic>
#include <mutex>
#include <thread>

struct sd_bus;
struct sd_bus_message;

// Stands in for systemd while it lives: folders of its own, and a bus on which it writes down how it was
// called and answers as it was told.
class FakeSystemd
{
public:
    FakeSystemd();
    ~FakeSystemd();
    Q_DISABLE_COPY_MOVE(FakeSystemd)

    // A unit's properties from now on ("Name=value" lines; "true" is no text but a truth value; "nothing": an
    // answer without any), and those after it has been asked for them once.
    void shows(const QByteArray &properties);
    void thenShows(const QByteArray &properties);
    // The method is answered with this D-Bus error.
    void fails(const QByteArray &method, const QByteArray &error);
    // The connection ends in place of the answer when properties are asked for this many times from now on.
    void breaksAtQuery(int number);
    // It takes calls from here on and answers none, as long as it lives.
    void fallsSilent() { isSilent = true; }
    // Nobody listens at the manager's socket, and at the bus a bus daemon stands between.
    void listensAtTheBusOnly();

    // The calls so far, each the method and its arguments; those for properties left out.
    QByteArrayList calls() const;
    int connections() const { return accepted; }

    QString unitFolder() const { return folder.path() + u"/units"; }
    QString vendorFolder() const { return folder.path() + u"/vendor"; }
    QString runtimeFolder() const { return folder.path() + u"/run"; }
    void writeFile(const QString &path, const QByteArray &content) const;
    QByteArray readFile(const QString &path) const;

private:
    void serve();
    void serveConnection(int descriptor);
    int answer(sd_bus_message *call);
    int answerProperties(sd_bus_message *call);

    QTemporaryDir folder;
    int listener = -1;
    int ending = -1; // an eventfd
    std::atomic<bool> isSilent{false};
    std::atomic<int> accepted{0};
    mutable std::mutex mutex;
    QByteArray shown;
    QByteArray shownNext;
    int queriesToBreak = 0;
    bool isBroken = false; // the connection that is served
    QMap<QByteArray, QByteArray> failures;
    QByteArrayList received;
    std::thread thread;
};

namespace Shown {

const QByteArray Absent = "LoadState=not-found\nActiveState=inactive\nSubState=dead\n";
const QByteArray Stopped = "LoadState=loaded\nActiveState=inactive\nSubState=dead\nInvocationID=1\n";
const QByteArray Starting =
    "LoadState=loaded\nActiveState=activating\nSubState=start\nStatusText=Starting\nInvocationID=2\n";
const QByteArray Running =
    "LoadState=loaded\nActiveState=active\nSubState=running\nStatusText=Running\nInvocationID=2\n";

} // namespace Shown
