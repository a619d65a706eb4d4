// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationmanager.h"
#include "core/quillmere.h"
#include "db/writegroup.h"
#include "tests/fuzz/server/memorywires.h"
#include "tests/support/datafolder.h"
#include "tests/support/recordinglog.h"

#include <QCoreApplication>
#include <QTest>

#include <array>
#include <memory>

using namespace Qt::StringLiterals;

namespace {

char programName[] = "quillmere";
char *arguments[] = {programName, nullptr};

constexpr qint64 MiB = 1024LL * 1024;
constexpr qint64 Together = 256 * MiB; // what all applications may leave unsent
constexpr qint64 NoticeSize = 30;      // of a radio without services

// Counts what is queued for the manager of the applications while it lives.
class PostedCalls : public QObject
{
public:
    PostedCalls() { QCoreApplication::instance()->installEventFilter(this); }

    int count() const { return posted; }

    bool eventFilter(QObject *object, QEvent *event) override
    {
        const bool isOne =
            event->type() == QEvent::MetaCall && qobject_cast<QMR::ApplicationManager *>(object);
        posted += isOne ? 1 : 0;
        return false;
    }

private:
    int posted = 0;
};

} // namespace

// How much applications that do not read may leave unsent, and when they are accepted, by sockets that say
// so.
class TestApplicationBounds : public QObject
{
    Q_OBJECT

private slots:
    void init()
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

    void cleanup()
    {
        server->stop();
        server.reset();
        sockets.reset();
        log.reset();
        folder.reset();
    }

    // Each may have one notice at a time all the same, so that who reads gets on.
    void aTableStopsWhereNothingIsLeft()
    {
        MemorySocket *const greedy = connects(Together);
        QCOMPARE(greedy->takeTold().size(), 3 * NoticeSize);
        MemorySocket *const late = connects(NoticeSize);
        QCOMPARE(late->takeTold().size(), NoticeSize);
        late->setStalled(false);
        settle();
        QCOMPARE(late->takeTold().size(), 2 * NoticeSize);
    }

    void whatIsLeftIsLookedAtInEachTurn()
    {
        MemorySocket *const greedy = connects(Together);
        QCOMPARE(connects(NoticeSize)->takeTold().size(), NoticeSize);
        greedy->setStalled(false);
        settle();
        QCOMPARE(connects(NoticeSize)->takeTold().size(), 3 * NoticeSize);
    }

    // Five have almost their share, and there is room for three notices.
    void whatOneIsToldIsNotLeftForTheNext()
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
        QCOMPARE(log->count(u"Network error: write message failed"_s), 2);
    }

    void aTableIsNoMoreThanAMebibyteAhead_data()
    {
        QTest::addColumn<qint64>("unsent");
        QTest::addColumn<qint64>("told");
        QTest::newRow("as much as it may be") << MiB << NoticeSize;
        QTest::newRow("a byte more") << MiB + 1 << qint64(0);
    }

    void aTableIsNoMoreThanAMebibyteAhead()
    {
        QFETCH(qint64, unsent);
        QFETCH(qint64, told);
        // The table begins in a turn then, instead of at once.
        QVERIFY(keepsGroupOpen());
        auto *socket = new MemorySocket(sockets.get());
        wires().connecting.push_back(socket);
        wires().incoming.push_back({"?", QHostAddress(QHostAddress::LocalHost), 50000});
        wires().applicationConnected();
        socket->setUnsent(unsent);
        wires().incoming.clear();
        settle();
        QCOMPARE(socket->takeTold().size(), told);
    }

    // The rest of what it sends stays with the system.
    void sixteenKibibytesAreReadAhead() { QCOMPARE(connects(0)->readBufferSize(), 16 * 1024); }

    // The socket says so when something is.
    void nothingIsToldToOneThatHasEnded()
    {
        connects(Together);
        MemorySocket *const late = connects(0);
        QCOMPARE(late->takeTold().size(), NoticeSize);
        late->ends(QAbstractSocket::RemoteHostClosedError);
        settle();
        QCOMPARE(log->count(u"Application disconnected from 127.0.0.1"_s), 1);
    }

    void whoeverComesTogetherSharesATurn()
    {
        constexpr int Count = 5;
        std::array<MemorySocket *, Count> applications{};
        for (MemorySocket *&application : applications) {
            application = connects(0);
        }
        const PostedCalls turns;
        for (MemorySocket *application : applications) {
            application->receives(QByteArray::fromHex("514d524104020000"));
        }
        settle();
        QCOMPARE(turns.count(), 1);
    }

    void aConnectionIsRecordedBehindAnOpenCommit_data()
    {
        QTest::addColumn<bool>("isRadioWaiting");
        QTest::newRow("no radio waits") << false;
        QTest::newRow("a radio waits, which shares the commit") << true;
    }

    void aConnectionIsRecordedBehindAnOpenCommit()
    {
        QFETCH(bool, isRadioWaiting);
        QVERIFY(keepsGroupOpen());
        if (isRadioWaiting) {
            wires().incoming.push_back({"?", QHostAddress(QHostAddress::LocalHost), 50000});
        }
        bool isOpen = !isRadioWaiting;
        log->whenWritten([&](const LogRecord &) { isOpen = server->holdsBack(); });
        wires().connecting.push_back(new MemorySocket(sockets.get()));
        wires().applicationConnected();
        log->whenWritten({});
        QCOMPARE(isOpen, isRadioWaiting);
        wires().incoming.clear();
        settle();
    }

private:
    void radioRegisters(quint8 serial);
    MemorySocket *connects(qint64 unsent);
    bool keepsGroupOpen();
    static void settle();

    std::unique_ptr<DataFolder> folder;
    std::unique_ptr<RecordingLog> log;
    std::unique_ptr<QMR::Quillmere> server;
    std::unique_ptr<QObject> sockets;
};

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

// A turn in which the machine paused is too old to be kept.
bool TestApplicationBounds::keepsGroupOpen()
{
    for (int tries = 0; tries < 50 && !server->holdsBack(); ++tries) {
        QMR::WriteTurn turn(server->writeGroup());
        turn.keepOpen();
    }
    return server->holdsBack();
}

QTEST_GUILESS_MAIN(TestApplicationBounds)
#include "tst_applicationbounds.moc"
