// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "db/writegroup.h"
#include "tests/support/databaselock.h"
#include "tests/support/serverdatabase.h"
#include "tests/support/storedradio.h"

#include <QTest>

#include <optional>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

constexpr quint16 Port = 9; // nobody hears the acknowledgements
constexpr QMR::Esn Radio{{0, 0, 0, 0, 0, 0, 0, 1}};

// When a lock ends that the server is not to wait for: if it does, it is found out here.
constexpr auto TooLate = 10s;

void registers(const TestServer &server, quint32 service)
{
    server->registerRadio(Radio, 3, {}, QHostAddress(u"127.0.0.2"_s), Port, false, {service});
}

const QString WriteError = u"Database write error"_s;

// A server that has stored a radio.
class PatientServer : public TestServer
{
public:
    PatientServer()
    {
        startWithoutDiscovery();
        registers(*this, 1);
        log.take();
    }

    // What fails of a registration that meets a lock, which ends after a while.
    QStringList failuresDuringALock(std::chrono::milliseconds duration)
    {
        DatabaseLock lock(folder.databaseFile(), DatabaseLock::Reserved);
        const StatementTrace trace([&](const QString &) { lock.releaseAfter(duration); });
        registers(*this, 2);
        return log.takeErrors();
    }

    // On a slow machine a lock may outlast the patience though it is meant to be shorter.
    bool outwaits(std::chrono::milliseconds duration)
    {
        for (int tries = 0; tries < 20; ++tries) {
            if (failuresDuringALock(duration).isEmpty()) {
                return true;
            }
            expireRetry(); // locks are waited for again
        }
        return false;
    }

    QList<QVariantList> storedServices() const { return query(u"SELECT service FROM supported_services"_s); }
};

} // namespace

// How long the server's writes wait for somebody else's lock.
class TestLockPatience : public QObject
{
    Q_OBJECT

private slots:
    void shortLockIsWaitedFor()
    {
        PatientServer server;
        QVERIFY(server.outwaits(20ms));
        QCOMPARE(server.storedServices(), (QList<QVariantList>{{2LL}}));
    }

    void waitIsAsLongAsThePatience()
    {
        PatientServer server;
        server->writeGroup()->setLockPatience(1min);
        QCOMPARE(server.failuresDuringALock(1s), QStringList());
        QCOMPARE(server.storedServices(), (QList<QVariantList>{{2LL}}));
    }

    void lockThatOutlastsThePatienceFailsTheWrite()
    {
        PatientServer server;
        QCOMPARE(server.failuresDuringALock(TooLate), QStringList{WriteError});
        QVERIFY(server->writeGroup()->isLockedOut());
        QCOMPARE(server.storedServices(), (QList<QVariantList>{{1LL}}));
    }

    void lockThatHasOutlastedThePatienceIsNotWaitedForAgain()
    {
        PatientServer server;
        QCOMPARE(server.failuresDuringALock(TooLate), QStringList{WriteError});
        server->writeGroup()->setLockPatience(1h);
        QCOMPARE(server.failuresDuringALock(TooLate), QStringList{WriteError});
    }

    void eachGroupHasThePatienceAnew()
    {
        PatientServer server;
        server->writeGroup()->setLockPatience(1min);
        QCOMPARE(server.failuresDuringALock(1s), QStringList());
        server->writeGroup()->setLockPatience(900ms);
        QVERIFY(server.outwaits(1ms));
    }

    void startWaitsLonger()
    {
        PatientServer server;
        server.stop();
        std::optional<DatabaseLock> lock;
        {
            // The check of the schema is over, and the radios are read.
            const StatementTrace trace([&](const QString &statement) {
                if (statement.startsWith(u"SELECT subscribers.esn"_s)) {
                    lock.emplace(server.folder.databaseFile(), DatabaseLock::Reserved);
                } else if (lock) {
                    lock->releaseAfter(1s);
                }
            });
            server->start();
        }
        QVERIFY(lock);
        lock.reset();
        QCOMPARE(server.log.takeErrors(), QStringList());
        QCOMPARE(server.query(u"SELECT availability FROM subscribers"_s), (QList<QVariantList>{{2LL}}));
    }
};

QTEST_GUILESS_MAIN(TestLockPatience)
#include "tst_lockpatience.moc"
