// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/sqlite.h"
#include "db/writegroup.h"
#include "tests/support/databaselock.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/testserver.h"

#include <QTest>

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <limits>
#include <list>
#include <optional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using Debt = QMR::OwedWrites::Debt;

namespace {

constexpr quint16 Port = 9; // nobody hears the acknowledgements

const QMR::Esn First{{0, 0, 0, 0, 0, 0, 0, 1}};
const QMR::Esn Second{{0, 0, 0, 0, 0, 0, 0, 2}};
const QHostAddress Address(u"127.0.0.2"_s);

void registers(const TestServer &server, quint32 service)
{
    server->registerRadio(First, 3, {}, Address, Port, false, {service});
}

// The services of each row.
QStringList rows(const TestServer &server)
{
    QStringList texts;
    for (const QVariantList &row :
         server.query(u"SELECT group_concat(service) FROM subscribers LEFT OUTER JOIN "
                      "supported_services ON subscribers.id = subscriber_id GROUP BY id"_s)) {
        texts.append(row[0].toString());
    }
    return texts;
}

int callsBefore = 0; // that succeed
bool hasFailed = false;
bool failsForGood = false;
int readError = EIO;

bool isTheOne()
{
    const bool isIt = callsBefore-- == 0;
    hasFailed = hasFailed || isIt;
    return isIt;
}

ssize_t failingRead(int file, void *bytes, size_t count, off_t offset)
{
    if (isTheOne()) {
        errno = readError;
        return -1;
    }
    return ::pread(file, bytes, count, offset);
}

ssize_t failingWrite(int file, const void *bytes, size_t count, off_t offset)
{
    if (failsForGood) {
        errno = EIO;
        return -1;
    }
    return ::pwrite(file, bytes, count, offset);
}

int failingOpen(const char *path, int flags, int mode)
{
    if (std::strstr(path, "qmr.db") && isTheOne()) {
        errno = EMFILE;
        return -1;
    }
    return ::open(path, flags, mode); // NOLINT(cppcoreguidelines-pro-type-vararg)
}

bool isWritable = true;
int refusals = 0; // of opening the database for writing

int openingForReadingOnly(const char *path, int flags, int mode)
{
    if (QByteArrayView(path).endsWith("qmr.db") && (flags & O_ACCMODE) != O_RDONLY) {
        ++refusals;
        errno = EACCES;
        return -1;
    }
    return ::open(path, flags, mode); // NOLINT(cppcoreguidelines-pro-type-vararg)
}

// While it lives, one system call of SQLite's fails once, after a number that do not. A server that starts
// afterwards tells faults of its reads from damage; for one that runs already the test has to see to that.
class FailingCall
{
public:
    template<typename Function>
    FailingCall(const char *callName, Function *replacement, int before) : name(callName)
    {
        callsBefore = before;
        hasFailed = false;
        replace(reinterpret_cast<sqlite3_syscall_ptr>(replacement));
    }
    ~FailingCall()
    {
        replace(nullptr);
        QMR::Sqlite::tellFaultsFromDamage();
    }
    Q_DISABLE_COPY_MOVE(FailingCall)

private:
    void replace(sqlite3_syscall_ptr call) const
    {
        sqlite3_vfs *system = sqlite3_vfs_find(nullptr);
        system->xSetSystemCall(system, name, call);
    }

    const char *name;
};

// While it lives, commits of the server's own connection fail, a number of times: as they begin, or behind
// the step that makes them good: the journal is void by then, and only the disk's word for it is missing.
class FailingCommit
{
public:
    enum Step : bool { AsItBegins, AtItsEnd };

    FailingCommit(Step failingStep, int failures) : isLast(failingStep == AtItsEnd), left(failures)
    {
        sqlite3_commit_hook(serverDatabase(), prepare, this);
        only = this;
    }
    ~FailingCommit()
    {
        sqlite3_commit_hook(serverDatabase(), nullptr, nullptr);
        only = nullptr;
    }
    Q_DISABLE_COPY_MOVE(FailingCommit)

private:
    static int prepare(void *self)
    {
        auto *failing = static_cast<FailingCommit *>(self);
        sqlite3_file *journal = nullptr;
        sqlite3_file_control(serverDatabase(), "main", SQLITE_FCNTL_JOURNAL_POINTER, &journal);
        if (journal && journal->pMethods && journal->pMethods != &failing->methods) {
            failing->real = journal->pMethods;
            failing->methods = *journal->pMethods;
            failing->methods.xWrite = write;
            failing->methods.xSync = sync;
            journal->pMethods = &failing->methods;
        }
        failing->isVoid = false;
        return 0;
    }
    static int write(sqlite3_file *file, const void *data, int size, sqlite3_int64 offset)
    {
        only->isVoid = offset == 0 && *static_cast<const char *>(data) == 0;
        return only->real->xWrite(file, data, size, offset);
    }
    static int sync(sqlite3_file *file, int flags)
    {
        if (only->isVoid == only->isLast && only->left > 0) {
            --only->left;
            return SQLITE_IOERR_FSYNC;
        }
        return only->real->xSync(file, flags);
    }

    static inline FailingCommit *only = nullptr;
    sqlite3_io_methods methods{};
    const sqlite3_io_methods *real = nullptr;
    bool isVoid = false;
    bool isLast;
    int left;
};

} // namespace

// Takes the place of the system's for the whole process, which may be one of a user who may write anything.
extern "C" int access(const char *path, int mode)
{
    if (!isWritable && mode == W_OK) {
        errno = EACCES;
        return -1;
    }
    return ::faccessat(AT_FDCWD, path, mode, 0);
}

// Calls of the operating system that fail for a time.
class TestSystemFaults : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { readError = EIO; }

    // What SQLite takes for damage.
    void startThatCannotReadLosesNoRadio_data()
    {
        QTest::addColumn<int>("error");
        QTest::newRow("input/output error") << EIO;
        QTest::newRow("no such device") << ENXIO;
        QTest::newRow("out of range") << ERANGE;
    }

    void startThatCannotReadLosesNoRadio()
    {
        QFETCH(const int, error);
        readError = error;
        // More than a start reads.
        bool isOver = false;
        int before = 0;
        for (; !isOver; ++before) {
            TestServer server;
            server.startWithoutDiscovery();
            registers(server, 1);
            server.stop();
            {
                const FailingCall reading("pread64", failingRead, before);
                server.restart();
                isOver = !hasFailed;
            }
            const bool isServed = server->writeGroup();
            QCOMPARE(isServed, server->findRadio(First) != nullptr);
            server.restart();
            QVERIFY2(server->findRadio(First), qPrintable(u"read %1"_s.arg(before)));
            QVERIFY2(before < 100, "the start reads on and on");
        }
        QVERIFY2(before > 1, "no read has failed");
    }

    void interruptedReadIsMadeAgain()
    {
        readError = EINTR;
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, 1);
        server.stop();
        {
            const FailingCall reading("pread64", failingRead, 0);
            server.restart();
        }
        QVERIFY(hasFailed);
        QVERIFY(server->findRadio(First));
    }

    // However much has been read by then.
    void loadThatCannotBeFinishedIsEmpty()
    {
        constexpr size_t Radios = 2000; // far more than a page
        TestServer server;
        server.startWithoutDiscovery();
        server.query(
            u"WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < %1) "
            "INSERT INTO subscribers (esn, suid, ip_address, availability, last_contact_time, "
            "num_discovery_attempts, last_discovery_attempt, protocol_version) "
            "SELECT CAST(printf('%08d', i) AS BLOB), zeroblob(7), i, 3, 0, 0, 0, 3 FROM n"_s.arg(Radios));
        std::list<QMR::RadioPointer> radios;
        server->loadSubscribers(radios, 0ms);
        QCOMPARE(radios.size(), Radios);
        bool isOver = false;
        int before = 0;
        for (; !isOver; ++before) {
            server.query(u"UPDATE subscribers SET suid = zeroblob(7)"_s); // empties the server's cache
            const FailingCall reading("pread64", failingRead, before);
            QMR::Sqlite::tellFaultsFromDamage();
            server->loadSubscribers(radios, 0ms);
            isOver = !hasFailed;
            QCOMPARE(radios.size(), isOver ? Radios : 0);
        }
        QVERIFY2(before > 10, "few reads have failed");
    }

    void writeThatCouldNotReadIsOwed()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, 1);
        server.log.take();
        {
            const FailingCall reading("pread64", failingRead, 0);
            QMR::Sqlite::tellFaultsFromDamage();
            registers(server, 2);
        }
        QVERIFY(hasFailed);
        QCOMPARE(server.log.count(u"Database write error"_s), 1);
        server.expireRetry();
        QCOMPARE(rows(server), QStringList{u"2"_s});
    }

    void fileThatCouldNotBeOpenedForWritingAtFirstIsWritten()
    {
        TestServer server;
        server.startWithoutDiscovery();
        server.stop();
        {
            const FailingCall opening("open", failingOpen, 0);
            server.restart();
        }
        QVERIFY(hasFailed);
        server.log.take();
        registers(server, 1);
        QCOMPARE(server.log.count(u"Database insert error (1)"_s), 0);
        QCOMPARE(rows(server), QStringList{u"1"_s});
    }

    void fileThatIsForReadingOnlyIsOpenedOnce()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, 1);
        server.stop();
        {
            const FailingCall opening("open", openingForReadingOnly, 0);
            refusals = 0;
            isWritable = false;
            server.restart();
            isWritable = true;
        }
        QCOMPARE(refusals, 1);
        QVERIFY(server->findRadio(First));
    }

    void rowOfAFailedCommitIsNotRefused()
    {
        TestServer server;
        server.startWithoutDiscovery();
        const FailingCommit commits(FailingCommit::AtItsEnd, 1);
        server.log.take();
        registers(server, 1);
        QCOMPARE(server.log.count(u"Database insert error (1)"_s), 0);
        QCOMPARE(rows(server), QStringList{u"1"_s});
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void rowOfAFailedCommitIsDeletedWhenItsRadioHasLeft()
    {
        TestServer server;
        server.startWithoutDiscovery();
        {
            // That of the group, that of the insert by itself, and that of the update.
            const FailingCommit commits(FailingCommit::AtItsEnd, 3);
            registers(server, 1);
        }
        {
            const FailingCall writing("pwrite64", failingWrite, 0);
            failsForGood = true;
            server->deregisterRadio(First, Address);
            failsForGood = false;
        }
        QCOMPARE(server.log.count(u"Database delete error"_s), 1);
        QCOMPARE(rows(server), QStringList{u"1"_s});
        server.expireRetry();
        QCOMPARE(rows(server), QStringList());
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void failedInsertKnowsWhetherItsRowIsThere()
    {
        TestServer server;
        server.startWithoutDiscovery();
        QMR::RadioEntry radio;
        radio.esn = First;
        {
            const FailingCommit commits(FailingCommit::AsItBegins, 1);
            server->insertSubscriber(radio);
        }
        QCOMPARE(server->writeGroup()->owed().of(First), Debt::Insert);
        {
            const FailingCommit commits(FailingCommit::AtItsEnd, 1);
            server->insertSubscriber(radio);
        }
        QCOMPARE(server->writeGroup()->owed().of(First), Debt::Unknown);
        radio.esn = Second; // of which nothing is owed before
        {
            const FailingCommit commits(FailingCommit::AtItsEnd, 1);
            server->insertSubscriber(radio);
        }
        QCOMPARE(server->writeGroup()->owed().of(Second), Debt::Unknown);
    }

    void failedUpdateKnowsThatItsRowIsThere()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, 1);
        const FailingCommit commits(FailingCommit::AtItsEnd, 1);
        server->updateSubscriber(*server->findRadio(First));
        QCOMPARE(server->writeGroup()->owed().of(First), Debt::Change);
    }

    // Whichever read fails from the commit on: a row that is there is not taken for absent.
    void failedInsertThatCannotLookForItsRowKnowsNothing()
    {
        bool isOver = false;
        int before = 0;
        for (; !isOver; ++before) {
            TestServer server;
            server.startWithoutDiscovery();
            QMR::RadioEntry radio;
            radio.esn = First;
            {
                const FailingCommit commits(FailingCommit::AtItsEnd, 1);
                const FailingCall reading("pread64", failingRead, std::numeric_limits<int>::max());
                const StatementTrace trace([before](const QString &statement) {
                    if (statement == u"COMMIT") {
                        callsBefore = before;
                    }
                });
                server->insertSubscriber(radio);
                isOver = !hasFailed;
            }
            QVERIFY2(rows(server).isEmpty() || server->writeGroup()->owed().of(First) == Debt::Unknown,
                     qPrintable(u"read %1"_s.arg(before)));
            QVERIFY2(before < 100, "a write reads on and on");
        }
        QVERIFY2(before > 1, "no read has failed");
    }

    // The group's own commit has stored the row all the same.
    void lockThatFollowsAFailedCommitDoesNotHideItsRow()
    {
        TestServer server;
        server.startWithoutDiscovery();
        setBusyTimeout(0);
        QMR::RadioEntry radio;
        radio.esn = First;
        std::optional<DatabaseLock> lock;
        {
            const FailingCommit commits(FailingCommit::AtItsEnd, 1);
            int begun = 0;
            const StatementTrace trace([&](const QString &statement) {
                if (statement == u"BEGIN IMMEDIATE" && ++begun == 2) {
                    lock.emplace(server.folder.databaseFile(), DatabaseLock::Shared);
                }
            });
            const QMR::WriteTurn turn(server->writeGroup());
            server->insertSubscriber(radio);
        }
        QVERIFY(lock);
        QCOMPARE(rows(server).size(), 1);
        QCOMPARE(server->writeGroup()->owed().of(First), Debt::Unknown);
    }

    // An owed insert is retried as an update, which inserts.
    void failedRetryOfAnInsertKnowsWhetherItsRowIsThere()
    {
        TestServer server;
        server.startWithoutDiscovery();
        QMR::RadioEntry radio;
        radio.esn = First;
        for (const auto step : {FailingCommit::AsItBegins, FailingCommit::AtItsEnd}) {
            const FailingCommit commits(FailingCommit::AsItBegins, 1);
            server->insertSubscriber(radio);
            QCOMPARE(server->writeGroup()->owed().of(First), Debt::Insert);
            const FailingCommit again(step, 1);
            server->writeGroup()->retry(QMR::RowWrite::Update, QMR::SubscriberRow(radio));
            const bool isStored = step == FailingCommit::AtItsEnd;
            QCOMPARE(rows(server).size(), isStored ? 1 : 0);
            QCOMPARE(server->writeGroup()->owed().of(First), isStored ? Debt::Unknown : Debt::Insert);
        }
    }

    // Both are stored, but for the disk's word: what is written again then finds its row gone.
    void changeOfARadioThatLeavesInAFailedCommitIsNoError()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, 1);
        server.log.take();
        {
            const FailingCommit commits(FailingCommit::AtItsEnd, 1);
            const QMR::WriteTurn turn(server->writeGroup());
            registers(server, 2);
            server->deregisterRadio(First, Address);
        }
        QCOMPARE(server.log.takeErrors(), QStringList());
        QCOMPARE(rows(server), QStringList());
        QVERIFY(server->writeGroup()->owed().isEmpty());
    }

    void stopTriesTwice()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registers(server, 1);
        {
            const FailingCall writing("pwrite64", failingWrite, 0);
            failsForGood = true;
            registers(server, 2);
            QVERIFY(!server->writeGroup()->owed().isEmpty());
            // The first try is a group, and then the write by itself.
            int begun = 0;
            const StatementTrace trace([&begun](const QString &statement) {
                begun += statement.startsWith(u"BEGIN") ? 1 : 0;
                failsForGood = begun < 3;
            });
            server->stop();
        }
        QCOMPARE(rows(server), QStringList{u"2"_s});
    }

    void stopTriesThoseTwiceTooWhoseTurnIsOver()
    {
        constexpr quint32 Many = 3;
        TestServer server;
        server.startWithoutDiscovery();
        const auto registersAs = [&server](quint32 radio, quint32 service) {
            const QMR::Esn esn{
                {0, 0, 0, 0, 0, 0, static_cast<quint8>(radio >> 8), static_cast<quint8>(radio)}};
            server->registerRadio(esn, 3, {}, QHostAddress(0x7F010000U + radio), Port, false, {service});
        };
        const auto allRegister = [&] {
            const QMR::WriteTurn turn(server->writeGroup());
            for (quint32 radio = 0; radio < Many; ++radio) {
                registersAs(radio, 1);
            }
        };
        const FailingCall writing("pwrite64", failingWrite, 0);
        failsForGood = true;
        allRegister();
        failsForGood = false;
        {
            // One retry takes longer than the round may: it ends behind the first.
            const StatementTrace slow([&server](const QString &) { server.clock.workPauses(20ms); });
            server.expireRetry();
        }
        QVERIFY(!server->writeGroup()->owed().isEmpty());
        allRegister();
        QVERIFY(server->writeGroup()->owed().isEmpty());

        failsForGood = true;
        registersAs(0, 2);
        registersAs(Many - 1, 2);
        // The first round of the stop fails for both.
        int begun = 0;
        const StatementTrace trace([&begun](const QString &statement) {
            begun += statement.startsWith(u"BEGIN") ? 1 : 0;
            failsForGood = begun < 5;
        });
        server->stop();
        QCOMPARE(server.query(u"SELECT count(*) FROM supported_services WHERE service = 2"_s),
                 QList<QVariantList>{{2LL}});
    }
};

QTEST_GUILESS_MAIN(TestSystemFaults)
#include "tst_systemfaults.moc"
