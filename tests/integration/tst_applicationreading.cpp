// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/backgroundapplication.h"
#include "tests/support/connections.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QTest>
#include <QTimer>

#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

const QString BadHeader = u"QMRA Protocol error: invalid message (2)"_s;
const QString BadVersion = u"QMRA protocol version not supported.  Update connected applications"_s;
const QString BadLength = u"QMRA protocol error detected: invalid payload length"_s;
const QString BadType = u"QMRA protocol error detected: invalid message (1)"_s;
const QString Timeout = u"Network error: read timeout"_s;
const QString Connected = u"Application connected from 127.0.0.1"_s;
const QString Disconnected = u"Application disconnected from 127.0.0.1"_s;

const LogRecord BadHeaderRecord = RecordingLog::record(Scm::EventWarning, BadHeader);
const LogRecord BadVersionRecord = RecordingLog::record(Scm::EventError, BadVersion);
const LogRecord BadLengthRecord = RecordingLog::record(Scm::EventWarning, BadLength);
const LogRecord BadTypeRecord = RecordingLog::record(Scm::EventWarning, BadType);
const LogRecord TimeoutRecord = RecordingLog::record(Scm::EventError, Timeout);

// A message that is answered with one record and hinders nothing.
const QByteArray Marker = QByteArray::fromHex("514d5241 04 09 0000");

QByteArray message(quint8 type, qsizetype payloadLength, quint8 version = 4)
{
    return ScriptedApplication::message(type, QByteArray(payloadLength, '\x5A'), version);
}

} // namespace

// What the server makes of what an application sends: what each message consumes, what each failure leaves
// for the next data signal, what it waits for.
class TestApplicationReading : public QObject
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
        application = std::make_unique<ScriptedApplication>(server->applicationPort());
        QVERIFY(application->sees(*radio, QMR::Registered));
        server->log.take();
    }

    void cleanup()
    {
        application.reset();
        radio.reset();
        server.reset();
    }

    void oneMessage_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QList<LogRecord>>("records");
        QTest::addColumn<bool>("goesOn"); // what follows in the same segment is read at once

        const QList<LogRecord> none;
        QTest::newRow("type 3, empty") << message(3, 0) << none << true;
        QTest::newRow("type 3, 1 byte") << message(3, 1) << none << true;
        QTest::newRow("type 3, 277 bytes") << message(3, 277) << none << true;
        QTest::newRow("type 3, 278 bytes") << message(3, 278).first(8) << QList{BadHeaderRecord} << false;
        QTest::newRow("type 3, 65535 bytes")
            << QByteArray::fromHex("514d5241 04 03 ffff") << QList{BadHeaderRecord} << false;
        for (const int length : {0, 1, 11, 13, 277}) {
            QTest::addRow("report, %d bytes", length) << message(2, length) << QList{BadLengthRecord} << true;
        }
        QTest::newRow("report, 278 bytes") << message(2, 278).first(8) << QList{BadHeaderRecord} << false;
        for (const quint8 type : QList<quint8>{0, 1, 4, 5, 127, 128, 255}) {
            QTest::addRow("type %d, empty", type) << message(type, 0) << QList{BadTypeRecord} << true;
            QTest::addRow("type %d, 12 bytes", type) << message(type, 12) << QList{BadTypeRecord} << true;
            QTest::addRow("type %d, 277 bytes", type) << message(type, 277) << QList{BadTypeRecord} << true;
        }
        for (const quint8 version : QList<quint8>{0, 1, 2, 3}) {
            for (const quint8 type : QList<quint8>{1, 2, 3, 200}) {
                QTest::addRow("version %d, type %d, 12 bytes", version, type)
                    << message(type, 12, version) << QList{BadVersionRecord} << false;
            }
            QTest::addRow("version %d, 277 bytes", version)
                << message(2, 277, version) << QList{BadVersionRecord} << false;
            QTest::addRow("version %d, empty", version)
                << message(3, 0, version) << QList{BadVersionRecord} << false;
            QTest::addRow("version %d, 278 bytes", version)
                << message(3, 278, version).first(8) << QList{BadHeaderRecord} << false;
        }
        for (const quint8 version : QList<quint8>{5, 6, 127, 128, 255}) {
            QTest::addRow("version %d", version) << message(3, 0, version) << QList{BadHeaderRecord} << false;
        }
        for (const char *magic : {"qMRA", "QmRA", "QMrA", "QMRa", "QMRS", "ARMQ"}) {
            QTest::addRow("magic %s", magic)
                << magic + message(3, 0).sliced(4) << QList{BadHeaderRecord} << false;
        }
        QTest::newRow("zeros") << QByteArray(8, '\0') << QList{BadHeaderRecord} << false;
    }

    // Each is followed by the marker in the same segment: read at once, or with the next data signal.
    void oneMessage()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QList<LogRecord>, records);
        QFETCH(bool, goesOn);

        application->sends(sent + Marker);
        if (goesOn) {
            records.append(BadTypeRecord);
        }
        QTRY_VERIFY(server->log.records().size() >= records.size());
        serverIsIdle();
        QCOMPARE(takeRecords(), records);

        application->sends(Marker);
        records = goesOn ? QList{BadTypeRecord} : QList{BadTypeRecord, BadTypeRecord};
        QTRY_VERIFY(server->log.records().size() >= records.size());
        QCOMPARE(server->log.take(), records);
        radioIsUntouched();
    }

    void refusedHeaderLeavesItsPayloadToBeReadAsHeaders()
    {
        // The payload of the refused message happens to be a whole report.
        const QByteArray report = reportOfRadio();
        application->sends(ScriptedApplication::message(2, report, 5));
        QTRY_COMPARE(server->log.records().size(), 1);
        serverIsIdle();
        QCOMPARE(takeRecords(), QList{BadHeaderRecord});
        radioIsUntouched();

        application->sends(Marker);
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QCOMPARE(takeRecords(), QList{BadTypeRecord});
    }

    void noSearchForTheNextMessage()
    {
        // One byte too many: from here on every header is read one byte early.
        application->sends("x" + Marker);
        QCOMPARE(server->log.takeOnce(1), QList{BadHeaderRecord});
        application->sends(Marker);
        // One byte of the first marker was left, and seven of the second join it.
        QCOMPARE(server->log.takeOnce(1), QList{BadHeaderRecord});
        application->sends(Marker.first(7)); // with the one that is left: 8
        QCOMPARE(server->log.takeOnce(1), QList{BadHeaderRecord});
        application->sends(Marker);
        QCOMPARE(server->log.takeOnce(1), QList{BadTypeRecord});
    }

    void oneSignalRefusesOneHeader()
    {
        application->sends(QByteArray(80, 'x'));
        QTRY_COMPARE(server->log.records().size(), 1);
        serverIsIdle();
        QCOMPARE(takeRecords(), QList{BadHeaderRecord});
    }

    void manyMessagesInOneSegmentAreReadInOrder()
    {
        application->sends(message(3, 277) + message(2, 11) + message(7, 5) + reportOfRadio() +
                           message(2, 13) + message(3, 0));
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QCOMPARE(server->log.take(), (QList{BadLengthRecord, BadTypeRecord, BadLengthRecord}));
    }

    // It never pauses for as long as half a second, and is at it until everybody has been served.
    void nobodyWaitsForAnApplicationThatTrickles()
    {
        QList<QByteArray> segments;
        for (const char byte : message(3, 277)) {
            segments.append(QByteArray(1, byte));
        }
        BackgroundApplication slow(server->applicationPort(), segments, std::chrono::milliseconds(10),
                                   BackgroundApplication::Then::Repeat);
        QTRY_COMPARE(server->log.count(Connected), 1);
        bool isTimed = false;
        QTimer::singleShot(50, this, [&isTimed] { isTimed = true; });
        for (quint8 serial = 2; serial < 12; ++serial) {
            ScriptedRadio other(server->registrationPort(), serial, u"127.0.0.3"_s);
            other.registers();
            QVERIFY(other.isAcknowledged());
        }
        application->reports(radio->esn, radio->address());
        QTRY_COMPARE((*server)->findRadio(radio->esn)->availability, QMR::Unconfirmed);
        QTRY_VERIFY(isTimed);
        slow.endWith(Marker);
        QTRY_COMPARE_WITH_TIMEOUT(server->log.count(BadType), 1, 30'000);
        QCOMPARE(server->log.count(BadHeader), 0);
        QCOMPARE(server->log.count(Timeout), 0);
    }

    void stopWaitsForNoRestOfAMessage()
    {
        application->sends(message(2, 12).first(9));
        serverIsIdle();
        server->log.take();
        server->stop();
        QCOMPARE(server->log.takeMessages(), (QStringList{Disconnected, u"Service stopped"_s}));
    }

    // Each has its own half second.
    void partsOfSeveralApplicationsAreAwaitedTogether()
    {
        constexpr int Count = 5;
        std::vector<std::unique_ptr<ScriptedApplication>> others;
        for (int i = 0; i < Count; ++i) {
            others.push_back(std::make_unique<ScriptedApplication>(server->applicationPort()));
            QVERIFY(others.back()->sees(*radio, QMR::Registered));
        }
        server->log.take();
        for (const auto &other : others) {
            other->sends(message(3, 4).first(5));
        }
        QTRY_COMPARE(server->log.count(Timeout), Count);
        for (const auto &other : others) {
            other->sends(message(3, 4).sliced(5) + Marker);
        }
        QTRY_COMPARE(server->log.count(BadType), Count);
        QCOMPARE(server->log.takeMessages(), QStringList(Count, Timeout) + QStringList(Count, BadType));
    }

    // The rest has come, and then nothing: the other's half second ends later.
    void restThatComesEndsTheWait()
    {
        ScriptedApplication other(server->applicationPort());
        QVERIFY(other.sees(*radio, QMR::Registered));
        server->log.take();
        // No radio in between, whose row a slow disk can keep for half a second.
        application->sends(message(3, 4).first(5));
        other.sends(Marker);
        QCOMPARE(server->log.takeOnce(1), QList{BadTypeRecord});
        application->sends(message(3, 4).sliced(5));
        other.sends(Marker);
        QCOMPARE(server->log.takeOnce(1), QList{BadTypeRecord});
        other.sends(message(3, 4).first(8));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
        other.sends(QByteArray(8, 'x')); // shows that it was the other's wait that has ended
        QCOMPARE(server->log.takeOnce(1), QList{BadHeaderRecord});
    }

    // All of it is there when the server has looked a few times, and the first has far more of it.
    void applicationsTakeTurns()
    {
        constexpr int Many = 1500;
        server->clock.workTakes(1ms);
        ScriptedApplication other(server->applicationPort());
        QVERIFY(other.sees(*radio, QMR::Registered));
        server->log.take();
        application->connection().write(Marker.repeated(Many));
        application->connection().flush();
        other.connection().write(message(2, 11));
        other.connection().flush();
        QTRY_COMPARE(server->log.records().size(), Many + 1);
        const QList<LogRecord> records = server->log.take();
        QVERIFY2(records.indexOf(BadLengthRecord) <= 200,
                 qPrintable(QString::number(records.indexOf(BadLengthRecord))));
        QCOMPARE(records.count(BadTypeRecord), Many);
    }

    // What comes while much is still to be read takes up again what a fault in that has stopped, as it does
    // when it comes afterwards.
    void arrivalInTheMiddleOfReadingIsOneOfItsOwn()
    {
        constexpr int Many = 1500;
        application->sends(Marker.repeated(Many) + QByteArray(8, 'x') + Marker);
        server->log.whenWritten([this](const LogRecord &) {
            const qsizetype records = server->log.records().size();
            if (records == 1) {
                application->sends(Marker);
            }
            if (records < 4) {
                server->clock.workPauses(5ms); // ends the application's turn, so that the socket has its own
            }
        });
        QTRY_COMPARE(server->log.records().size(), Many + 3);
        server->log.whenWritten({});
        QCOMPARE(server->log.takeMessages(),
                 (QStringList(Many, BadType) + QStringList{BadHeader, BadType, BadType}));
    }

    // More than a turn of reading, and then the end of the connection.
    void allThatHasArrivedIsReadBeforeTheEnd()
    {
        constexpr int Many = 1500;
        auto leaving = std::make_unique<ScriptedApplication>(server->applicationPort());
        QVERIFY(leaving->sees(*radio, QMR::Registered));
        server->log.take();
        leaving->connection().write(Marker.repeated(Many) + Marker.first(3));
        leaving->connection().flush();
        leaving.reset();
        if (isEndOfConnectionLost()) {
            QSKIP("this system does not tell of an end behind unread bytes");
        }
        QTRY_COMPARE(server->log.records().size(), Many + 2);
        QCOMPARE(server->log.takeMessages(),
                 (QStringList(Many, BadType) + QStringList{Disconnected, Timeout}));
    }

    void oneMessageInManySegmentsIsReadWhole()
    {
        // Longer in all than the wait for one arrival, which starts again with each.
        QList<QByteArray> segments;
        const QByteArray sent = reportOfRadio() + message(2, 11);
        for (const char byte : sent) {
            segments.append(QByteArray(1, byte));
        }
        const BackgroundApplication slow(server->applicationPort(), segments, std::chrono::milliseconds(40));
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QTRY_VERIFY(server->log.count(BadLength) == 1);
        QCOMPARE(server->log.count(Timeout), 0);
    }

    void headerAndPayloadInTwoSegmentsAreReadWhole()
    {
        const QByteArray report = reportOfRadio();
        const BackgroundApplication slow(server->applicationPort(), {report.first(8), report.sliced(8)},
                                         std::chrono::milliseconds(40));
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QCOMPARE(server->log.count(Timeout), 0);
    }

    void partOfAHeaderIsKept_data()
    {
        QTest::addColumn<int>("size");
        for (int size = 1; size < 8; ++size) {
            QTest::addRow("%d bytes", size) << size;
        }
    }

    void partOfAHeaderIsKept()
    {
        QFETCH(int, size);
        const QByteArray report = reportOfRadio();
        application->sends(report.first(size));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
        application->sends(report.sliced(size));
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QVERIFY(server->log.take().isEmpty());
    }

    void partOfAHeaderMayTimeOutAgain()
    {
        const QByteArray report = reportOfRadio();
        application->sends(report.first(2));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
        application->sends(report.sliced(2, 3));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
        application->sends(report.sliced(5));
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QVERIFY(server->log.take().isEmpty());
    }

    void headerWithoutItsPayloadIsGone()
    {
        const QByteArray report = reportOfRadio();
        application->sends(report.first(8));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
        // What comes now is read as a header, so the late payload is none.
        application->sends(report.sliced(8));
        QCOMPARE(server->log.takeOnce(1), QList{BadHeaderRecord});
        radioIsUntouched();
        application->sends(QByteArray(4, 'x')); // with the four bytes that are left: one header
        QCOMPARE(server->log.takeOnce(1), QList{BadHeaderRecord});
        application->sends(report);
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
    }

    void partOfAPayloadIsKeptAndReadAsAHeader()
    {
        application->sends(message(2, 12).first(8) + Marker); // 8 of the 12 bytes announced
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
        application->sends(Marker);
        QTRY_COMPARE(server->log.records().size(), 2);
        QCOMPARE(server->log.take(), (QList{BadTypeRecord, BadTypeRecord}));
    }

    void messageBeforeAPartOfAnotherIsDone()
    {
        application->sends(reportOfRadio() + message(3, 4).first(5));
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
    }

    void lowVersionWaitsForItsPayloadFirst()
    {
        application->sends(message(2, 12, 3).first(10));
        QCOMPARE(server->log.takeOnce(1), QList{TimeoutRecord});
    }

    void closeInTheMiddleOfAMessage_data()
    {
        QTest::addColumn<int>("size");
        QTest::newRow("in the header") << 5;
        QTest::newRow("before the payload") << 8;
        QTest::newRow("in the payload") << 19;
    }

    void closeInTheMiddleOfAMessage()
    {
        QFETCH(int, size);
        {
            const BackgroundApplication leaving(server->applicationPort(), {reportOfRadio().first(size)},
                                                std::chrono::milliseconds(20),
                                                BackgroundApplication::Then::Close);
            QTRY_COMPARE(server->log.count(Disconnected), 1);
        }
        serverIsIdle();
        QCOMPARE(takeRecords(),
                 (QList{RecordingLog::record(Scm::EventInformation, Connected),
                        RecordingLog::record(Scm::EventInformation, Disconnected), TimeoutRecord}));
        radioIsUntouched();
    }

    void messagesBeforeACloseAreStillRead()
    {
        ScriptedApplication leaving(server->applicationPort());
        QVERIFY(leaving.sees(*radio, QMR::Registered));
        leaving.sends(message(9, 0) + reportOfRadio());
        leaving.connection().disconnectFromHost();
        QVERIFY(application->sees(*radio, QMR::Unconfirmed));
        QCOMPARE(server->log.count(BadType), 1);
        if (isEndOfConnectionLost()) {
            QSKIP("this system does not tell of an end behind unread bytes; they were read");
        }
        QTRY_COMPARE(server->log.count(Disconnected), 1);
    }

private:
    QByteArray reportOfRadio() const
    {
        QByteArray payload(reinterpret_cast<const char *>(radio->esn.bytes.data()), 8);
        payload.append(QByteArray::fromHex("0200007f")); // 127.0.0.2
        return ScriptedApplication::message(2, payload);
    }

    // Proves that the server has come back to its event loop, with nothing more to do for the application.
    void serverIsIdle()
    {
        ScriptedRadio other(server->registrationPort(), 0xEE, u"127.0.0.9"_s);
        other.registers();
        QVERIFY(other.isAcknowledged());
        other.deregisters();
        QVERIFY(application->sees(other, QMR::Registered));
        QVERIFY(application->seesGone(other));
    }

    // What the log has but the radios' own records.
    QList<LogRecord> takeRecords()
    {
        QList<LogRecord> records = server->log.take();
        records.removeIf([](const LogRecord &record) { return record.message.startsWith(u"Radio "_s); });
        return records;
    }

    void radioIsUntouched() { QCOMPARE((*server)->findRadio(radio->esn)->availability, QMR::Registered); }

    std::unique_ptr<TestServer> server;
    std::unique_ptr<ScriptedRadio> radio;
    std::unique_ptr<ScriptedApplication> application;
};

QTEST_GUILESS_MAIN(TestApplicationReading)
#include "tst_applicationreading.moc"
