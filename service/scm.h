// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The service-control and event-log functions of the operating system: the only door through which the
// service host speaks to a service manager. The signatures, types and constants are those of Windows; on
// another platform the same functions are provided over what that platform has. The table of the process is
// in platform.h.
#pragma once

#include <QString>

namespace Scm {

using Handle = void *;
using Bool = int;
using Word = quint16;
using Dword = quint32;
using Char = char16_t; // zero-terminated UTF-16, as the platform's wide character strings are

struct Status
{
    Dword serviceType;
    Dword currentState;
    Dword controlsAccepted;
    Dword win32ExitCode;
    Dword serviceSpecificExitCode;
    Dword checkPoint;
    Dword waitHint;
};

using ServiceMain = void (*)(Dword argc, Char **argv);
using ControlHandler = void (*)(Dword control);

struct TableEntry
{
    Char *name; // null ends the table
    ServiceMain main;
};

struct Description
{
    Char *text;
};

// The seventeen functions, in the order in which they are looked up. A function that the platform lacks is
// null.
struct Functions
{
    Handle (*registerServiceCtrlHandler)(const Char *name, ControlHandler handler);
    Bool (*setServiceStatus)(Handle statusHandle, Status *status);
    Bool (*changeServiceConfig2)(Handle service, Dword infoLevel, void *info);
    Bool (*closeServiceHandle)(Handle handle);
    Handle (*createService)(Handle manager, const Char *name, const Char *displayName, Dword access,
                            Dword type, Dword startType, Dword errorControl, const Char *binaryPath,
                            const Char *loadOrderGroup, Dword *tagId, const Char *dependencies,
                            const Char *account, const Char *password);
    Handle (*openScManager)(const Char *machine, const Char *database, Dword access);
    Bool (*deleteService)(Handle service);
    Handle (*openService)(Handle manager, const Char *name, Dword access);
    Bool (*queryServiceStatus)(Handle service, Status *status);
    Bool (*startServiceCtrlDispatcher)(const TableEntry *table);
    Bool (*startService)(Handle service, Dword argc, const Char **argv);
    Bool (*controlService)(Handle service, Dword control, Status *status);
    Bool (*deregisterEventSource)(Handle log);
    Bool (*reportEvent)(Handle log, Word type, Word category, Dword id, void *userSid, Word stringCount,
                        Dword dataSize, const Char **strings, void *data);
    Handle (*registerEventSource)(const Char *server, const Char *source);
    Bool (*queryServiceConfig)(Handle service, void *config, Dword size, Dword *needed);
    Bool (*queryServiceConfig2)(Handle service, Dword infoLevel, quint8 *buffer, Dword size, Dword *needed);
};

// Text for a function that takes zero-terminated characters: it ends at the first U+0000. Valid until the
// string is changed or destroyed.
inline const Char *text(const QString &string)
{
    return reinterpret_cast<const Char *>(string.utf16());
}

// The text that a function was given or gives; a null pointer is an empty one.
inline QString toString(const Char *text)
{
    return text ? QString::fromUtf16(text) : QString();
}

// Error codes of the functions, as lastError() gives them.
enum Error : Dword {
    ErrorAccessDenied = 5,
    ErrorServiceNotAcceptingControl = 1052,
    ErrorServiceAlreadyRunning = 1056,
    ErrorServiceDoesNotExist = 1060,
    ErrorServiceNotActive = 1062,
    ErrorFailedControllerConnect = 1063,
    ErrorServiceExists = 1073,
};

enum State : Dword {
    StateStopped = 1,
    StateStartPending = 2,
    StateStopPending = 3,
    StateRunning = 4,
    StateContinuePending = 5,
    StatePausePending = 6,
    StatePaused = 7,
};

// One control a code; ControlStartUp is the service host's own, no service manager sends it.
enum Control : Dword {
    ControlStop = 1,
    ControlPause = 2,
    ControlContinue = 3,
    ControlInterrogate = 4,
    ControlShutdown = 5,
    ControlUserFirst = 128,
    ControlUserLast = 255,
    ControlStartUp = 256,
};

enum Accept : Dword {
    AcceptStop = 0x1,
    AcceptPauseContinue = 0x2,
    AcceptShutdown = 0x4,
};

enum ServiceType : Dword {
    OwnProcess = 0x10,
    InteractiveProcess = 0x100,
};

enum StartType : Dword {
    AutoStart = 2,
    DemandStart = 3,
};

enum Access : Dword {
    ManagerConnect = 0x1,
    ManagerAllAccess = 0xF003F,
    ServiceQueryConfig = 0x1,
    ServiceQueryStatus = 0x4,
    ServiceStart = 0x10,
    ServiceStop = 0x20,
    ServicePauseContinue = 0x40,
    ServiceUserDefinedControl = 0x100,
    ServiceAllAccess = 0xF01FF,
    Delete = 0x10000,
};

enum EventType : Word {
    EventSuccess = 0x0,
    EventError = 0x1,
    EventWarning = 0x2,
    EventInformation = 0x4,
};

constexpr Dword ErrorControlNormal = 1;
constexpr Dword ConfigDescription = 1;

} // namespace Scm
