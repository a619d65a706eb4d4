// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/connections.h"
#include "tests/support/eventloop.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QRegularExpression>
#include <QTest>
#include <QTimer>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

using QMR::RadioPointer;

namespace {

const QString Connected = u"Application connected from 127.0.0.1"_s;
const QString Disconnected = u"Application disconnected from 127.0.0.1"_s;
const QString Lost = u"Network error: write message failed"_s;

// Matches every text but Disconnected.
const QRegularExpression NotTheEnd(u"^(?!Application disconnected from )"_s);

constexpr qint64 MaximumUnsent = 64LL * 1024 * 1024;
constexpr qint64 LargestNotice = 8 + 277;

} // namespace

// Applications that vanish, that never read, or that send rubbish without end: the others do not notice.
class TestApplicationFaults : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        radio = std::make_unique<ScriptedRadio>(server->registrationPort(), 1);
        radio->registers();
        QVERIFY(radio->isAcknowledged());
    }

    void cleanup()
    {
        applications.clear();
        radio.reset();
        server.reset();
    }

    void resetConnectionIsDroppedOnce()
    {
        connectApplications(2);
        reset(applications[0]->connection());
        QCOMPARE(server->log.takeMessagesOnce(1), QStringList{Disconnected});
        radio->registers();
        QVERIFY(applications[1]->sees(*radio, QMR::Registered));
        QCOMPARE(server->log.takeMessages(), QStringList{radio->registeredText()});
    }

    void otherErrorIsLoggedWithItsPeerAndThenTheDrop()
    {
        connectApplications(2);
        const quint16 port = applications[0]->connection().localPort();
        breakConnection(applications[0]->connection());
        (*server)->notifyApplications((*server)->findRadio(radio->esn));
        QVERIFY(applications[1]->sees(*radio, QMR::Registered));
        const QString error = u"Network error 7 on connection to 127.0.0.1:%1"_s.arg(port);
        QCOMPARE(server->log.takeOnce(2), (QList{RecordingLog::record(Scm::EventWarning, error),
                                                 RecordingLog::record(Scm::EventInformation, Disconnected)}));
        radio->registers();
        QVERIFY(applications[1]->sees(*radio, QMR::Registered));
        QCOMPARE(server->log.takeMessages(), QStringList{radio->registeredText()});
    }

    void connectionResetBeforeItIsAcceptedIsDropped()
    {
        QTcpSocket brief;
        brief.connectToHost(QHostAddress::LocalHost, server->applicationPort());
        QVERIFY(brief.waitForConnected());
        server->log.take();
        reset(brief);
        if (isEndOfConnectionLost()) {
            QSKIP("this system does not tell of a connection that ended before it was accepted");
        }
        const QStringList records = server->log.takeMessagesOnce(2);
        QCOMPARE(records.size(), 2);
        QVERIFY(records[0].startsWith(u"Application connected from"_s));
        QVERIFY(records[1].startsWith(u"Application disconnected from"_s));
    }

    void vanishInTheMiddleOfANotice_data()
    {
        QTest::addColumn<bool>("byReset");
        QTest::newRow("closed") << false;
        QTest::newRow("reset") << true;
    }

    // The server has not heard of it yet when it writes to them: they drop out of the set as it walks it.
    void vanishInTheMiddleOfANotice()
    {
        QFETCH(bool, byReset);
        constexpr size_t Count = 40;
        connectApplications(Count);
        for (size_t i = 0; i < Count; i += 2) {
            if (byReset) {
                reset(applications[i]->connection());
            } else {
                applications[i]->connection().abort();
            }
        }
        const RadioPointer entry = (*server)->findRadio(radio->esn);
        for (int i = 0; i < 3; ++i) {
            (*server)->notifyApplications(entry);
        }
        for (size_t i = 1; i < Count; i += 2) {
            QCOMPARE(applications[i]->receives(3).size(), 3);
        }
        QTRY_COMPARE(server->log.count(Disconnected), qsizetype{Count / 2});
        const QStringList others = server->log.takeMessages().filter(NotTheEnd);
        QCOMPARE(others.size(), isWriteAfterResetANetworkError() ? qsizetype{Count / 2} : 0);
        QCOMPARE(others.filter(u"Network error 7 on connection to 127.0.0.1:"_s), others);
        (*server)->notifyApplications(entry);
        for (size_t i = 1; i < Count; i += 2) {
            QCOMPARE(applications[i]->receives(1).size(), 1);
        }
        QVERIFY(server->log.take().isEmpty());
    }

    void reporterThatVanishesIsToldNothing()
    {
        connectApplications(2);
        applications[0]->reports(radio->esn, radio->address());
        applications[0]->connection().flush();
        reset(applications[0]->connection());
        QTRY_COMPARE(server->log.count(Disconnected), 1);
        radio->registers();
        QVERIFY(radio->isAcknowledged());
        QVERIFY(!applications[1]->receives(1).isEmpty());
    }

    // A write meets the end of the connection while messages that came before are still to be read: some are
    // with the reader, some with the socket.
    void whatHasArrivedOutlivesAFailedWrite()
    {
        constexpr int Messages = 3000;
        const QString invalid = u"QMRA protocol error detected: invalid message (1)"_s;
        connectApplications(2);
        QTcpSocket &connection = applications[0]->connection();
        const quint16 port = connection.localPort();
        applications[0]->sends(ScriptedApplication::message(9, QByteArray()).repeated(Messages));
        server->log.whenWritten([&](const LogRecord &) {
            const qsizetype records = server->log.records().size();
            if (records < 4) {
                server->clock.workPauses(5ms); // ends the application's turn, so that the socket has its own
            } else if (records == 4) {
                reset(connection);
                (*server)->notifyApplications((*server)->findRadio(radio->esn));
            }
        });
        QVERIFY(applications[1]->sees(*radio, QMR::Registered));
        QTRY_COMPARE(server->log.count(Disconnected), 1);
        server->log.whenWritten({});
        QStringList expected(Messages, invalid);
        if (isWriteAfterResetANetworkError()) {
            expected.append(u"Network error 7 on connection to 127.0.0.1:%1"_s.arg(port));
        }
        QCOMPARE(server->log.takeMessages(), expected + QStringList{Disconnected});
    }

    // It has met an error, and is still being read when the server stops.
    void errorIsLoggedBeforeAStop()
    {
        connectApplications(1);
        QTcpSocket &connection = applications[0]->connection();
        const QString error = u"Network error 7 on connection to 127.0.0.1:%1"_s.arg(connection.localPort());
        applications[0]->sends(ScriptedApplication::message(9, QByteArray()).repeated(1500));
        server->clock.workTakes(1ms);
        QVERIFY(runsUntil([this] { return !server->log.records().isEmpty(); }));
        breakConnection(connection);
        (*server)->notifyApplications((*server)->findRadio(radio->esn));
        for (int i = 0; i < 10; ++i) {
            QCoreApplication::processEvents(); // the server hears of the error
        }
        QCOMPARE(server->log.count(Disconnected), 0);
        server->stop();
        QCOMPARE(server->log.takeMessages().last(3),
                 (QStringList{error, Disconnected, u"Service stopped"_s}));
    }

    void applicationThatNeverReadsCostsABoundedMemory()
    {
        connectApplications(1);
        const RadioPointer entry = (*server)->findRadio(radio->esn);
        entry->supportedServices = QMR::ServiceList(255, 1);
        QTcpSocket stuck;
        stuck.setReadBufferSize(1);
        stuck.connectToHost(QHostAddress::LocalHost, server->applicationPort());
        QTRY_COMPARE(server->log.count(Connected), 1);
        server->log.take();

        // The other reads all the while. Each round stays far below what its connection takes at once.
        constexpr int Round = 500;
        constexpr int Rounds = static_cast<int>(MaximumUnsent / LargestNotice / Round) + 400;
        for (int round = 0; round < Rounds && server->log.records().size() < Round; ++round) {
            for (int i = 0; i < Round; ++i) {
                (*server)->notifyApplications(entry);
            }
            QCOMPARE(applications[0]->receives(Round).size(), Round);
        }
        const QList<LogRecord> records = server->log.take();
        QVERIFY(records.size() >= Round);
        for (const LogRecord &record : records) {
            QCOMPARE(record, RecordingLog::record(Scm::EventError, Lost));
        }
        // One record for each notice that is lost, and the connection stands.
        for (int i = 0; i < 10; ++i) {
            (*server)->notifyApplications(entry);
        }
        QCOMPARE(applications[0]->receives(10).size(), 10);
        QCOMPARE(server->log.takeMessages(), QStringList(10, Lost));

        // What it did not lose comes when it reads: at most the bound, and what lay on the way.
        qint64 held = 0;
        stuck.setReadBufferSize(0);
        connect(&stuck, &QTcpSocket::readyRead, this, [&] { held += stuck.readAll().size(); });
        held += stuck.readAll().size();
        QTRY_VERIFY_WITH_TIMEOUT(held > MaximumUnsent - LargestNotice, 30000);
        (*server)->notifyApplications(entry);
        QCOMPARE(applications[0]->receives(1).size(), 1);
        QVERIFY(server->log.take().isEmpty());
        stuck.disconnect(this);
    }

    void floodOfRubbishIsHeldBackByTcp()
    {
        connectApplications(1);
        server->clock.workTakes(1ms);
        QTcpSocket flood;
        flood.connectToHost(QHostAddress::LocalHost, server->applicationPort());
        QTRY_COMPARE(server->log.count(Connected), 1);
        server->log.take();
        const QByteArray rubbish(32LL * 1024 * 1024, 'x');
        flood.write(rubbish);
        constexpr qsizetype Signals = 2000;
        QVERIFY(runsUntil([this] { return server->log.records().size() >= Signals; }));
        // What else waits in the event loop has its turn: timers, and controls of the service manager.
        bool isTimed = false;
        bool isPosted = false;
        QTimer::singleShot(100, this, [&isTimed] { isTimed = true; });
        QMetaObject::invokeMethod(
            this, [&isPosted] { isPosted = true; }, Qt::QueuedConnection);
        QVERIFY(runsUntil([&] { return isTimed && isPosted; }));
        // Eight bytes go with each signal. What the server holds beyond those, and what lies in the
        // system's buffers, has left the sender; the rest waits with it.
        QVERIFY2(flood.bytesToWrite() > rubbish.size() / 2,
                 qPrintable(QString::number(flood.bytesToWrite())));
        // Others are served in the middle of it.
        radio->registers();
        QVERIFY(radio->isAcknowledged());
        QVERIFY(applications[0]->sees(*radio, QMR::Registered));
        applications[0]->reports(radio->esn, radio->address());
        QVERIFY(applications[0]->sees(*radio, QMR::Unconfirmed));
        reset(flood);
        if (isEndOfConnectionLost()) {
            QSKIP("this system does not tell of an end behind unread bytes");
        }
        QVERIFY(runsUntil([this] { return server->log.count(Disconnected) == 1; }));
    }

    // The bound on what is read ahead is no bound on what is read.
    void reportBehindMoreThanTheReadBufferIsReached()
    {
        connectApplications(1);
        const QByteArray ignored = ScriptedApplication::message(3, QByteArray(277, '\0'));
        applications[0]->sends(ignored.repeated(5000)); // 1.4 MB
        applications[0]->reports(radio->esn, radio->address());
        QVERIFY(applications[0]->sees(*radio, QMR::Unconfirmed));
        QVERIFY(server->log.take().isEmpty());
    }

    void rubbishBehindMoreThanTheReadBufferIsReadToItsEnd()
    {
        connectApplications(1);
        constexpr int Headers = 20000; // 160 kB
        applications[0]->sends(QByteArray(8LL * Headers, 'x'));
        // At least as long as more comes in than the server reads ahead, every 8 bytes are read.
        constexpr int ReadAhead = 64 * 1024 / 8;
        QVERIFY(runsUntil([this] { return server->log.records().size() >= Headers - ReadAhead; }));
        applications[0]->connection().disconnectFromHost();
        QTRY_COMPARE(server->log.count(Disconnected), 1);
    }

private:
    void connectApplications(size_t count)
    {
        for (size_t i = 0; i < count; ++i) {
            applications.push_back(std::make_unique<ScriptedApplication>(server->applicationPort()));
            QVERIFY(applications.back()->sees(*radio, QMR::Registered));
        }
        server->log.take();
    }

    std::unique_ptr<TestServer> server;
    std::unique_ptr<ScriptedRadio> radio;
    std::vector<std::unique_ptr<ScriptedApplication>> applications;
};

QTEST_GUILESS_MAIN(TestApplicationFaults)
#include "tst_applicationfaults.moc"
