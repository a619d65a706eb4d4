// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the server needs from its operating system beside the service-control functions. Each platform folder
// provides every function here; nothing above that folder asks which platform it runs on.
#pragma once

#include "service/scm.h"

#include <QString>

#include <optional>

namespace Platform {

// Sets the functions that this platform has; the others stay null.
void provide(Scm::Functions &functions);

// Code of the last error of the calling thread, in the service-control functions' own numbers.
Scm::Dword lastError();

// The operating system's text for such a code.
QString errorText(Scm::Dword code);

// Full path of the running executable; empty when the system does not tell.
QString executablePath();

void sleepMilliseconds(unsigned milliseconds);

// To be called at each event of a socket that others can keep busy for as long as they like: what else waits
// in the calling thread's event loop, a stop of the service for one, then has its turn.
void endEventLoopTurn();

// The folder for data of all users of this machine, empty when the system cannot tell; nothing when it cannot
// be asked.
std::optional<QString> commonDataFolder();

// How many more files and sockets the process may open; at most what is asked for, which is few.
int freeDescriptors(int most);

// Whether a file can be deleted while another program has it open.
bool canDeleteOpenFiles();

// What stands between two folders in a path that is shown to people.
QChar folderSeparator();

// Makes the file, an executable with a message table, the one by which viewers of the event log show the
// records of this source; and takes that back. Nothing is reported: records are written either way.
void registerMessageFile(const QString &source, const QString &file);
void removeMessageFile(const QString &source);

} // namespace Platform

// The program's main body. The platform's process entry calls it with the command line in the local 8-bit
// encoding and a null pointer after the last argument, and exits with its result.
int processMain(int argc, char **argv);
