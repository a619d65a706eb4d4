// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"
#include "db/writegroup.h"
#include "tests/fuzz/server/memorywires.h"
#include "tests/support/datafolder.h"
#include "tests/support/recordinglog.h"

#include <QCoreApplication>
#include <QTest>

#include <array>
#include <memory>

namespace {

char programName[] = "quillmere";
char *arguments[] = {programName, nullptr};

constexpr qint64 MiB = 1024LL * 1024;
constexpr qint64 Together = 256 * MiB; // what all applications may leave unsent
constexpr qint64 NoticeSize = 30;      // of a radio without services

} // namespace

// How much applications that do not read may leave unsent, and when they are accepted, by sockets that say
// so.
class TestApplicationBounds : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void aTableStopsWhereNothingIsLeft();
    void whatIsLeftIsLookedAtInEachTurn();
    void whatOneIsToldIsNotLeftForTheNext();
    void aConnectionIsRecordedBehindAnOpenCommit_data();
    void aConnectionIsRecordedBehindAnOpenCommit();

private:
    void radioRegisters(quint8 serial);
    MemorySocket *connects(qint64 unsent);
    static void settle();

    std::unique_ptr<DataFolder> folder;
    std::unique_ptr<RecordingLog> log;
    std::unique_ptr<QMR::Quillmere> server;
    std::unique_ptr<QObject> sockets;
};

void TestApplicationBounds::init()
{
    wires() = MemoryWires();
    folder = std::make_unique<DataFolder>();
    log = std::make_unique<RecordingLog>();
    sockets = std::make_unique<QObject>();
    server = std::make_unique<QMR::Quillmere>(1, arguments);
    server->start();
    for (quint8 serial = 1; serial <= 3; ++serial) {
        radioRegisters(serial);
    }
}

void TestApplicationBounds::cleanup()
{
    server->stop();
    server.reset();
    sockets.reset();
    log.reset();
    folder.reset();
}

void TestApplicationBounds::radioRegisters(quint8 serial)
{
    server->registerRadio({{0, 0, 0, 0, 0, 0, 0, serial}}, 3, {}, QHostAddress(0x7F000000U + serial), 50000,
                          false, {});
    settle();
}

// It reads nothing, and is then said to have left so much unsent.
MemorySocket *TestApplicationBounds::connects(qint64 unsent)
{
    auto *socket = new MemorySocket(sockets.get());
    socket->setStalled(true);
    wires().connecting.push_back(socket);
    wires().applicationConnected();
    settle();
    socket->setUnsent(unsent);
    return socket;
}

void TestApplicationBounds::settle()
{
    for (int i = 0; i < 20; ++i) {
        QCoreApplication::processEvents();
    }
}

// Each may have one notice at a time all the same, so that who reads gets on.
void TestApplicationBounds::aTableStopsWhereNothingIsLeft()
{
    MemorySocket *const greedy = connects(Together);
    QCOMPARE(greedy->takeTold().size(), 3 * NoticeSize);
    MemorySocket *const late = connects(NoticeSize);
    QCOMPARE(late->takeTold().size(), NoticeSize);
    late->setStalled(false);
    settle();
    QCOMPARE(late->takeTold().size(), 2 * NoticeSize);
}

void TestApplicationBounds::whatIsLeftIsLookedAtInEachTurn()
{
    MemorySocket *const greedy = connects(Together);
    QCOMPARE(connects(NoticeSize)->takeTold().size(), NoticeSize);
    greedy->setStalled(false);
    settle();
    QCOMPARE(connects(NoticeSize)->takeTold().size(), 3 * NoticeSize);
}

// Five have almost their share, and there is room for three notices.
void TestApplicationBounds::whatOneIsToldIsNotLeftForTheNext()
{
    constexpr int Count = 5;
    std::array<MemorySocket *, Count> applications{};
    for (MemorySocket *&application : applications) {
        application = connects(Together / Count - 20);
        application->takeTold();
    }
    log->take();
    radioRegisters(4);
    qint64 told = 0;
    for (MemorySocket *application : applications) {
        told += application->takeTold().size();
    }
    QCOMPARE(told, 3 * NoticeSize);
    QCOMPARE(log->count(QStringLiteral("Network error: write message failed")), 2);
}

void TestApplicationBounds::aConnectionIsRecordedBehindAnOpenCommit_data()
{
    QTest::addColumn<bool>("isRadioWaiting");
    QTest::newRow("no radio waits") << false;
    QTest::newRow("a radio waits, which shares the commit") << true;
}

void TestApplicationBounds::aConnectionIsRecordedBehindAnOpenCommit()
{
    QFETCH(bool, isRadioWaiting);
    {
        QMR::WriteTurn turn(server->writeGroup());
        server->setAvailability(server->radios().begin()->second, QMR::Unconfirmed);
        turn.keepOpen();
    }
    if (isRadioWaiting) {
        wires().incoming.push_back({"?", QHostAddress(QHostAddress::LocalHost), 50000});
    }
    QVERIFY(server->holdsBack());
    bool isOpen = !isRadioWaiting;
    log->whenWritten([&](const LogRecord &) { isOpen = server->holdsBack(); });
    wires().connecting.push_back(new MemorySocket(sockets.get()));
    wires().applicationConnected();
    log->whenWritten({});
    QCOMPARE(isOpen, isRadioWaiting);
    wires().incoming.clear();
    settle();
}

QTEST_GUILESS_MAIN(TestApplicationBounds)
#include "tst_applicationbounds.moc"
