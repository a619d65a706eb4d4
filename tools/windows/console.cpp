// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/console.h"

#include <QCoreApplication>

#include <cstdio>
#include <io.h>
#include <windows.h>

namespace Console {

namespace {

std::function<void()> interruptHandler;

// Windows runs this on a thread of its own.
BOOL WINAPI wakeEventLoop(DWORD)
{
    return QMetaObject::invokeMethod(QCoreApplication::instance(), interruptHandler, Qt::QueuedConnection);
}

} // namespace

void brokenPipeIsAnError()
{
}

bool isTerminalOutput()
{
    return _isatty(_fileno(stdout)) != 0;
}

bool isTerminalError()
{
    return _isatty(_fileno(stderr)) != 0;
}

void onInterrupt(std::function<void()> handler)
{
    interruptHandler = std::move(handler);
    SetConsoleCtrlHandler(wakeEventLoop, TRUE);
}

} // namespace Console
