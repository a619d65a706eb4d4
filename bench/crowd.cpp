// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/crowd.h"

#include "bench/crowdmember.h"
#include "bench/fail.h"

#include <QCoreApplication>

#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>

using namespace Qt::StringLiterals;

namespace {

constexpr int Patience = 10'000; // ms
constexpr int LowestPriority = 19;

QString option()
{
    return u"--crowd"_s;
}

void say(const char *line)
{
    std::puts(line);
    std::fflush(stdout);
}

} // namespace

Crowd::Crowd(Kind kind, quint16 port, int count)
{
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.setChildProcessModifier([] {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);
        ::setpriority(PRIO_PROCESS, 0, LowestPriority);
    });
    process.start(QCoreApplication::applicationFilePath(), {option(), QString::number(static_cast<int>(kind)),
                                                            QString::number(port), QString::number(count)});
    if (!process.waitForReadyRead(Patience) || process.readLine() != "connected\n") {
        fail(u"the applications cannot connect"_s);
    }
}

Crowd::~Crowd()
{
    process.kill();
    process.waitForFinished();
}

bool Crowd::hasCounted()
{
    counted = counted || (process.canReadLine() && process.readLine() == "counted\n");
    return counted;
}

bool Crowd::isAsked(const QStringList &arguments)
{
    return arguments.size() == 5 && arguments[1] == option();
}

void Crowd::be(const QStringList &arguments)
{
    const auto kind = static_cast<Kind>(arguments[2].toInt());
    const quint16 port = arguments[3].toUShort();
    const int count = arguments[4].toInt();
    if (kind == Kind::ComeAndGo) {
        say("connected");
        comeAndGo(port, count, [] { say("counted"); });
        return;
    }
    const std::vector<int> members = connectAll(port, count);
    say("connected");
    switch (kind) {
    case Kind::Trickle:
        return trickle(members);
    case Kind::Flood:
        return flood(members, validMessages());
    case Kind::Rubbish:
        return flood(members, QByteArray("rubbish!").repeated(8192));
    case Kind::TakeSlowly:
        return takeSlowly(members);
    case Kind::ComeAndGo:
        break;
    }
}
