// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "core/quillmere.h"
#include "radio/qmrs.h"
#include "tests/fuzz/server/memoryapplication.h"
#include "tests/fuzz/server/script.h"
#include "tests/support/datafolder.h"
#include "tests/support/recordinglog.h"
#include "tests/support/statecomparison.h"
#include "tests/support/testclock.h"

#include <memory>
#include <vector>

// What all lives share, and what outlives them: the process's own things.
class FuzzWorld : public QObject
{
public:
    FuzzWorld();

    bool eventFilter(QObject *object, QEvent *event) override;

    DataFolder folder;
    RecordingLog log;
    TestClock clock;
    std::unique_ptr<StateComparison> comparison; // made with the database
    int minimumPeriod = -1;                      // seconds, in the configuration
    int handled = 0;                             // events
};

// One life of a whole server without sockets, as a script says: datagrams of a few senders, applications'
// streams, the clock, the timers, faults of the database, stop and start. After each step all that the server
// knows, stores, records, tells and sends is compared with the model of it.
class ServerScene
{
public:
    ServerScene(FuzzWorld &world, Script &script);
    ~ServerScene();
    Q_DISABLE_COPY_MOVE(ServerScene)

    void takeStep();
    // Whatever is wrong with the database ends, and nothing may be owed any more.
    void end();

    // Empty while nothing differs.
    QString difference() const { return comparison.difference(); }
    const QStringList &steps() const { return stepTexts; }
    void keepSteps() { keepingSteps = true; }

private:
    void storeRadios();
    QMR::Esn esn();
    MemoryWires::Datagram datagram();
    QByteArray registration();
    QByteArray anyMessage();
    QByteArray forged(QByteArray bytes);

    void radioSends();
    void radiosSendTogether();
    void announce(const MemoryWires::Datagram &datagram);
    void expect(QMR::Qmrs::Opcode opcode, quint32 version, const QMR::Esn &whose, const QHostAddress &address,
                quint16 port);
    void deliver(const MemoryWires::Datagram &datagram);

    void applicationConnects();
    void applicationSends();
    void applicationEnds();
    void applicationWaits();
    void applicationStalls();
    QByteArray report();

    void timePasses();
    void discoveryExpires();
    void deadlineExpires();
    void timeoutCheckExpires();
    void retryExpires();
    void triesAgain();

    void databaseIsLocked();
    void databaseFails();
    void databaseIsWhole();
    void takeOverDebts();
    void sendingIsRefused();
    void restarts();

    // A step, or a part of it: what is expectedToBeSent of it follows.
    void begin(const char *step, const QByteArray &detail = QByteArray());
    void compare();
    void compareRecords();
    void compareNotices();
    void compareSent();
    void drain();
    static void fire(const QTimer &timer);

    FuzzWorld &world;
    Script &script;
    RegistrationModel model;
    std::unique_ptr<QMR::Quillmere> server;
    StateComparison &comparison;
    QObject sockets; // whose owner
    std::vector<std::unique_ptr<MemoryApplication>> applications;
    bool failing = false; // the database, at random: what is written is only known when it is over
    int lastChanges = -1; // of the rows
    QList<MemoryWires::Datagram> expectedToBeSent; // to be sent
    bool keepingSteps = false;
    QStringList stepTexts;
};
