// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/screen.h"

#include "tools/console.h"

#include <cstdio>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

void put(const QString &text)
{
    const QByteArray bytes = text.toUtf8();
    std::fwrite(bytes.constData(), 1, static_cast<size_t>(bytes.size()), stdout);
    std::fflush(stdout);
}

} // namespace

Screen::Screen()
{
    prepare();
    put(u"\033[?1049h\033[?25l"_s); // the alternate screen, no cursor
}

Screen::~Screen()
{
    put(u"\033[?25h\033[?1049l"_s);
}

bool Screen::isUsable()
{
    return Console::isTerminalOutput() && qgetenv("TERM") != "dumb";
}

bool Screen::hasColours()
{
    return qEnvironmentVariableIsEmpty("NO_COLOR");
}

void Screen::show(const QStringList &lines)
{
    put(u"\033[H"_s + lines.join(u"\033[K\r\n"_s) + u"\033[K\033[J"_s);
}

} // namespace WatchTool
