// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the program asks of the operating system other than through Qt and libraries. There is one Platform
// object; the folder of each platform defines it, and no other code depends on the platform. A test replaces
// the members that it fakes, and puts them back.
#pragma once

#include "service/scm.h"

#include <QString>

#include <optional>

class QThread;
class Semaphore;

struct Platform
{
    // The service-control and event-log functions. Empty until scmAvailable() has been called once.
    Scm::Functions scm{};

    // Sets the functions that this platform has; the others stay null.
    void (*provide)(Scm::Functions &functions);

    // Code of the last error of the calling thread, in the service-control functions' own numbers.
    Scm::Dword (*lastError)();

    // The operating system's text for such a code.
    QString (*errorText)(Scm::Dword code);

    // Makes the file, an executable with a message table, the one by which viewers of the event log show the
    // records of this source; and takes that back. Nothing is reported: records are written either way.
    void (*registerMessageFile)(const QString &source, const QString &file);
    void (*removeMessageFile)(const QString &source);

    // Full path of the running executable; empty when the system does not tell.
    QString (*executablePath)();

    // The folder for data of all users of this machine, empty when the system cannot tell; nothing when it
    // cannot be asked.
    std::optional<QString> (*commonDataFolder)();

    // What stands between two folders in a path that is shown to people.
    QChar folderSeparator;

    // Whether a file can be deleted while another program has it open.
    bool canDeleteOpenFiles;

    // How many more files and sockets the process may open; at most what is asked for, which is few.
    int (*freeDescriptors)(int most);

    // To be called at each event of a socket that others can keep busy for as long as they like: what else
    // waits in the calling thread's event loop, a stop of the service for one, then has its turn.
    void (*endEventLoopTurn)();

    // The waits of the service host that end by the clock, the same on every platform. A test's own show what
    // is asked, and spend no time.
    void (*sleep)(unsigned milliseconds) = sleepByClock;
    // False when the semaphore was not released in time.
    bool (*waitForStart)(Semaphore &start, unsigned milliseconds) = acquireByClock;
    // False when the thread had not finished in time.
    bool (*waitForEnd)(QThread &thread, unsigned milliseconds) = joinByClock;

    // Fills the table on first use. The functions count as available exactly when openScManager is there; the
    // other sixteen are deliberately not checked. Takes no lock: threads that come here at once write the
    // same values.
    bool scmAvailable();

private:
    static void sleepByClock(unsigned milliseconds);
    static bool acquireByClock(Semaphore &semaphore, unsigned milliseconds);
    static bool joinByClock(QThread &thread, unsigned milliseconds);
};

extern Platform platform;

// The program's main body. The platform's process entry calls it with the command line in the local 8-bit
// encoding and a null pointer after the last argument, and exits with its result.
int processMain(int argc, char **argv);
