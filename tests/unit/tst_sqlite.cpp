// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/sqlite.h"

#include <QTest>

using namespace std::chrono_literals;

class TestSqlite : public QObject
{
    Q_OBJECT

private slots:
    // The pauses are 1, 2, 4, 8, 16, 32, 64 and then 100 ms, and may be longer: 12 attempts fit between them.
    void attemptsBecomeRareWhileTheyAreHindered()
    {
        int attempts = 0;
        QMR::Sqlite::whileHindered(QDeadlineTimer(500ms), [&attempts] {
            ++attempts;
            return true;
        });
        QVERIFY2(attempts < 25, qPrintable(QString::number(attempts)));
    }

    void attemptThatSucceedsIsTheLast()
    {
        int attempts = 0;
        QMR::Sqlite::whileHindered(QDeadlineTimer(QDeadlineTimer::Forever),
                                   [&attempts] { return ++attempts < 3; });
        QCOMPARE(attempts, 3);
    }
};

QTEST_APPLESS_MAIN(TestSqlite)
#include "tst_sqlite.moc"
