// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/statements.h"

#include <QByteArray>
#include <QList>
#include <QTest>

#include <sqlite3.h>

using QMR::PreparedStatement;

namespace {

// Result codes of what SQLite has reported on its own.
QList<int> logged;

void keepLogged(void *, int resultCode, const char *)
{
    logged.append(resultCode);
}

} // namespace

class TestStatements : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        // NOLINTNEXTLINE(cppcoreguidelines-pro-type-vararg)
        QCOMPARE(sqlite3_config(SQLITE_CONFIG_LOG, keepLogged, nullptr), SQLITE_OK);
    }
    void init() { QCOMPARE(sqlite3_open(":memory:", &connection), SQLITE_OK); }
    void cleanup() { QCOMPARE(sqlite3_close(connection), SQLITE_OK); }
    void valueThatCannotBeBoundIsNotLeftOut();
    void failedPreparationIsTriedAgain();
    void statementThatCannotBePreparedIsNotExecuted();

private:
    sqlite3 *connection = nullptr;
};

// The statement would be executed with null in its place.
void TestStatements::valueThatCannotBeBoundIsNotLeftOut()
{
    sqlite3_limit(connection, SQLITE_LIMIT_LENGTH, 1000);
    const QByteArray tooLong(1001, 'x');
    const QByteArray shorter(900, 'x'); // with a row around it
    PreparedStatement isNull(connection, "SELECT :bytes IS NULL");
    QCOMPARE(isNull.firstValue({QByteArrayView(tooLong)}), std::nullopt);
    QCOMPARE(isNull.firstValue({QByteArrayView(shorter)}), std::optional<qint64>(0));
    QVERIFY(PreparedStatement(connection, "CREATE TABLE kept (bytes)").run());
    PreparedStatement keep(connection, "INSERT INTO kept VALUES (:bytes)");
    QVERIFY(!keep.run({QByteArrayView(tooLong)}));
    QVERIFY(keep.run({QByteArrayView(shorter)}));
    QCOMPARE(PreparedStatement(connection, "SELECT count(*) FROM kept").firstValue({}),
             std::optional<qint64>(1));
}

void TestStatements::failedPreparationIsTriedAgain()
{
    PreparedStatement count(connection, "SELECT count(*) FROM late");
    QCOMPARE(count.firstValue({}), std::nullopt);
    QVERIFY(!count.run());
    QVERIFY(PreparedStatement(connection, "CREATE TABLE late (bytes)").run());
    QCOMPARE(count.firstValue({}), std::optional<qint64>(0));
}

// SQLite reports the use of a statement that is none.
void TestStatements::statementThatCannotBePreparedIsNotExecuted()
{
    logged.clear();
    PreparedStatement remove(connection, "DELETE FROM missing");
    QVERIFY(!remove.run());
    QVERIFY(logged.contains(SQLITE_ERROR));
    QVERIFY(!logged.contains(SQLITE_MISUSE));
}

QTEST_APPLESS_MAIN(TestStatements)
#include "tst_statements.moc"
