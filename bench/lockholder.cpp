// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "bench/lockholder.h"

#include "bench/fail.h"

#include <QCoreApplication>

#include <sqlite3.h>

#include <cstdio>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

constexpr int Patience = 10'000; // ms

QString option()
{
    return u"--hold-lock"_s;
}

} // namespace

LockHolder::LockHolder(const QString &database, std::chrono::milliseconds time)
{
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(QCoreApplication::applicationFilePath(),
                  {option(), database, QString::number(time.count())});
    if (!process.waitForReadyRead(Patience)) {
        fail(u"cannot lock "_s + database);
    }
}

void LockHolder::release()
{
    if (process.state() != QProcess::NotRunning && !process.waitForFinished(Patience)) {
        fail(u"the database is still locked"_s);
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0) {
        fail(u"the database was not held locked"_s);
    }
}

bool LockHolder::isAsked(const QStringList &arguments)
{
    return arguments.size() == 4 && arguments[1] == option();
}

void LockHolder::hold(const QStringList &arguments)
{
    sqlite3 *database = nullptr;
    const auto run = [&database](const char *sql) {
        return sqlite3_exec(database, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
    };
    if (sqlite3_open(arguments[2].toUtf8().constData(), &database) != SQLITE_OK ||
        sqlite3_busy_timeout(database, Patience) != SQLITE_OK || !run("BEGIN EXCLUSIVE")) {
        fail(u"cannot lock the database"_s);
    }
    std::puts("locked");
    std::fflush(stdout);
    std::this_thread::sleep_for(std::chrono::milliseconds(arguments[3].toInt()));
    if (!run("ROLLBACK")) {
        fail(u"cannot unlock the database"_s);
    }
    sqlite3_close(database);
}
