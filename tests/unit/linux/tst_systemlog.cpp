// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemlog.h"

#include "tests/unit/linux/logreader.h"

#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace Linux;

class TestSystemLog : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void journalGetsTheFields_data();
    void journalGetsTheFields();
    void lineFeedsDoNotEndAValue();
    void recordOfSeveralMebibytesComesAsASealedFile();
    void recordComesAsAFileWhereTheSystemHasNoRoomForADatagram();
    void recordsWithoutASinkGoToTheMachinesLog();
    void journalThatDoesNotReadCostsOneWait();
    void waitInVainEndsByItself();
    void busyJournalGetsEveryRecord();
    void aFullQueueIsWaitedForAgainAfterARecord();
    void signalsDoNotEndAWait();
    void signalsDoNotProlongAWaitForever();
    void journalMadeAnewIsFound();
    void holdsOneDescriptorThatIsClosedOnExec();
    void withoutADescriptorTheRecordIsLost();
    void writersDoNotMixTheirRecords();

private:
    // A send that waits is counted, and ends as if its time were over.
    void countWaits()
    {
        places.sendMessage = [this](int descriptor, const msghdr *message, int flags) {
            waits += (flags & MSG_DONTWAIT) == 0;
            return ::sendmsg(descriptor, message, flags | MSG_DONTWAIT);
        };
    }

    // A reader on a busy machine may need longer than the wait that users get.
    void waitLonger()
    {
        places.sendMessage = [](int descriptor, const msghdr *message, int flags) {
            ssize_t sent = -1;
            for (int i = 0; sent < 0 && i < 100; ++i) {
                sent = ::sendmsg(descriptor, message, flags);
                if (errno != EAGAIN || (flags & MSG_DONTWAIT) != 0) {
                    break;
                }
            }
            return sent;
        };
    }

    std::unique_ptr<QTemporaryDir> folder;
    LogPlaces places;
    int waits = 0;
};

void TestSystemLog::init()
{
    folder = std::make_unique<QTemporaryDir>();
    places = {};
    places.journal = QFile::encodeName(folder->filePath(u"journal"_s));
    places.syslog = QFile::encodeName(folder->filePath(u"log"_s));
    waits = 0;
}

void TestSystemLog::journalGetsTheFields_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("middle");
    QTest::addColumn<QByteArray>("end");
    QTest::newRow("success") << 0 << QByteArray() << QByteArray("6|success") << QByteArray();
    QTest::newRow("error") << 1 << QByteArray() << QByteArray("3|error") << QByteArray();
    QTest::newRow("warning") << 2 << QByteArray() << QByteArray("4|warning") << QByteArray();
    QTest::newRow("information") << 4 << QByteArray() << QByteArray("6|information") << QByteArray();
    QTest::newRow("data") << 4 << QByteArray("\0\xff\n", 3) << QByteArray("6|information")
                          << QByteArray("EVENT_DATA=AP8K\n");
}

void TestSystemLog::journalGetsTheFields()
{
    QFETCH(int, type);
    QFETCH(QByteArray, data);
    QFETCH(QByteArray, middle);
    QFETCH(QByteArray, end);
    LogReader journal(places.journal);
    SystemLog log(places);
    EventRecord written = record(u"Größe = 3"_s);
    written.type = static_cast<Scm::Word>(type);
    written.category = 9029;
    written.data = data;
    QVERIFY(log.write(written));
    const QByteArrayList priorityAndType = middle.split('|');
    QCOMPARE(journal.next(), "MESSAGE=Gr\xc3\xb6\xc3\x9f"
                             "e = 3\nPRIORITY=" +
                                 priorityAndType[0] +
                                 "\nSYSLOG_IDENTIFIER=Quill Mere\nEVENT_SOURCE=Quill Mere\nEVENT_TYPE=" +
                                 priorityAndType[1] + "\nEVENT_ID=3221225473\nEVENT_CATEGORY=9029\n" + end);
    QCOMPARE(journal.next(), std::nullopt);
}

void TestSystemLog::lineFeedsDoNotEndAValue()
{
    LogReader journal(places.journal);
    SystemLog log(places);
    EventRecord written = record(u"one\nPRIORITY=0\n\n"_s + QString(600, u'x'));
    written.source = u"Quill\nMere"_s;
    QVERIFY(log.write(written));
    const QByteArray bytes = journal.next().value_or(QByteArray());
    // 616 bytes, the lowest byte of the size first
    QVERIFY(bytes.startsWith(QByteArray("MESSAGE\n\x68\x02\0\0\0\0\0\0one\n", 20)));
    const Fields expected = {{"MESSAGE", "one\nPRIORITY=0\n\n" + QByteArray(600, 'x')},
                             {"PRIORITY", "4"},
                             {"SYSLOG_IDENTIFIER", "Quill\nMere"},
                             {"EVENT_SOURCE", "Quill\nMere"},
                             {"EVENT_TYPE", "warning"},
                             {"EVENT_ID", "3221225473"},
                             {"EVENT_CATEGORY", "0"}};
    QCOMPARE(parsedFields(bytes), expected);
}

void TestSystemLog::recordOfSeveralMebibytesComesAsASealedFile()
{
    LogReader journal(places.journal);
    SystemLog log(places);
    const QString large(5 * 1024 * 1024, u'x');
    const QString fitting(300000, u'x'); // into the send buffer that the log asks for
    QVERIFY(log.write(record(fitting)));
    QVERIFY(log.write(record(large)));
    QVERIFY(log.write(record(u"after"_s)));
    QVERIFY(messageOf(journal.awaited()) == fitting.toLatin1());
    QCOMPARE(journal.filesRead(), 0);
    const std::optional<Fields> fields = parsedFields(journal.awaited());
    QCOMPARE(journal.filesRead(), 1);
    QVERIFY(fields && fields->size() == 7);
    QVERIFY(fields->first().second == large.toLatin1());
    QCOMPARE(messageOf(journal.awaited()), QByteArray("after"));
}

void TestSystemLog::recordComesAsAFileWhereTheSystemHasNoRoomForADatagram()
{
    LogReader journal(places.journal);
    places.sendMessage = [](int descriptor, const msghdr *message, int flags) -> ssize_t {
        if (message->msg_iovlen > 0) {
            errno = ENOBUFS;
            return -1;
        }
        return ::sendmsg(descriptor, message, flags);
    };
    SystemLog log(places);
    QVERIFY(log.write(record(u"text"_s)));
    QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
    QCOMPARE(journal.filesRead(), 1);
}

void TestSystemLog::recordsWithoutASinkGoToTheMachinesLog()
{
    QVERIFY(!qEnvironmentVariableIsSet("QUILLMERE_EVENTLOG"));
    LogReader journal(places.journal);
    logPlaces() = places;
    const bool isWritten = writeEvent(record(u"text"_s));
    logPlaces() = {};
    QVERIFY(isWritten);
    QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
}

void TestSystemLog::journalThatDoesNotReadCostsOneWait()
{
    LogReader journal(places.journal);
    LogReader syslog(places.syslog);
    countWaits();
    SystemLog log(places);
    const int taken = fill(log);
    QVERIFY(taken > 0);
    QCOMPARE(waits, 1);
    for (int i = 0; i < 1000; ++i) {
        QVERIFY(!log.write(record(u"lost"_s)));
    }
    QCOMPARE(waits, 1);
    for (int i = 0; i < taken; ++i) {
        QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray::number(i));
    }
    QCOMPARE(journal.next(), std::nullopt);
    QVERIFY(log.write(record(u"again"_s)));
    QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("again"));
    QCOMPARE(waits, 1);
    QCOMPARE(syslog.next(), std::nullopt);
}

void TestSystemLog::waitInVainEndsByItself()
{
    const LogReader journal(places.journal);
    SystemLog log(places);
    QVERIFY(fill(log) > 0);
    QVERIFY(!log.write(record(u"lost"_s)));
}

void TestSystemLog::busyJournalGetsEveryRecord()
{
    constexpr int Records = 20000;
    LogReader journal(places.journal);
    waitLonger();
    SystemLog log(places);
    int disordered = 0;
    std::thread reader([&] {
        for (int i = 0; i < Records; ++i) {
            disordered += messageOf(journal.awaited()) != QByteArray::number(i);
        }
    });
    int taken = 0;
    for (int i = 0; i < Records; ++i) {
        taken += log.write(record(QString::number(i)));
    }
    if (taken == Records) {
        reader.join();
    } else {
        reader.detach(); // it waits for what was lost
    }
    QCOMPARE(taken, Records);
    QCOMPARE(disordered, 0);
}

void TestSystemLog::aFullQueueIsWaitedForAgainAfterARecord()
{
    LogReader journal(places.journal);
    countWaits();
    SystemLog log(places);
    QVERIFY(fill(log) > 0);
    QCOMPARE(waits, 1);
    QVERIFY(journal.next());
    QVERIFY(fill(log) > 0);
    QCOMPARE(waits, 2);
    // This time the reader reads while it is waited for.
    QVERIFY(journal.next());
    QVERIFY(log.write(record(u"again"_s)));
    places.sendMessage = [&](int descriptor, const msghdr *message, int flags) {
        if ((flags & MSG_DONTWAIT) == 0) {
            ++waits;
            journal.next();
        }
        return ::sendmsg(descriptor, message, flags | MSG_DONTWAIT);
    };
    QVERIFY(log.write(record(u"waited for"_s)));
    QCOMPARE(waits, 3);
    QByteArray last;
    while (const std::optional<QByteArray> next = journal.next()) {
        last = messageOf(*next);
    }
    QCOMPARE(last, QByteArray("waited for"));
}

void TestSystemLog::signalsDoNotEndAWait()
{
    LogReader journal(places.journal);
    SystemLog log(places);
    places.sendMessage = [this](int descriptor, const msghdr *message, int flags) -> ssize_t {
        if ((flags & MSG_DONTWAIT) != 0 || ++waits < 3) {
            errno = flags & MSG_DONTWAIT ? EAGAIN : EINTR;
            return -1;
        }
        return ::sendmsg(descriptor, message, flags | MSG_DONTWAIT);
    };
    QVERIFY(log.write(record(u"text"_s)));
    QCOMPARE(waits, 3);
    QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
}

void TestSystemLog::signalsDoNotProlongAWaitForever()
{
    LogReader syslog(places.syslog);
    SystemLog log(places);
    places.sendMessage = [this](int, const msghdr *, int flags) -> ssize_t {
        waits += (flags & MSG_DONTWAIT) == 0;
        errno = flags & MSG_DONTWAIT ? EAGAIN : EINTR;
        return -1;
    };
    QVERIFY(!log.write(record(u"text"_s)));
    const int first = waits;
    QVERIFY(!log.write(record(u"text"_s)));
    QCOMPARE(waits, first);
    QCOMPARE(syslog.next(), std::nullopt);
}

void TestSystemLog::journalMadeAnewIsFound()
{
    countWaits();
    SystemLog log(places);
    auto journal = std::make_unique<LogReader>(places.journal);
    QVERIFY(log.write(record(u"one"_s)));
    journal.reset();
    QVERIFY(!log.write(record(u"lost"_s)));
    journal = std::make_unique<LogReader>(places.journal);
    QVERIFY(log.write(record(u"two"_s)));
    QCOMPARE(messageOf(journal->next().value_or(QByteArray())), QByteArray("two"));

    // The old one lives on and does not read.
    QVERIFY(fill(log) > 0);
    LogReader other(places.journal);
    QVERIFY(log.write(record(u"three"_s)));
    QCOMPARE(messageOf(other.next().value_or(QByteArray())), QByteArray("three"));
    QCOMPARE(waits, 1);
}

void TestSystemLog::holdsOneDescriptorThatIsClosedOnExec()
{
    LogReader journal(places.journal);
    const QList<int> before = openDescriptors();
    {
        SystemLog log(places);
        QCOMPARE(openDescriptors(), before);
        for (int i = 0; i < 100; ++i) {
            QVERIFY(log.write(record(QString(i % 10 ? 10 : 5 * 1024 * 1024, u'x'))));
            QVERIFY(journal.next());
        }
        QCOMPARE(journal.filesRead(), 10);
        QList<int> held = openDescriptors();
        held.removeIf([&before](int descriptor) { return before.contains(descriptor); });
        QCOMPARE(held.size(), 1);
        QVERIFY(::fcntl(held[0], F_GETFD) & FD_CLOEXEC);
    }
    QCOMPARE(openDescriptors(), before);
}

void TestSystemLog::withoutADescriptorTheRecordIsLost()
{
    LogReader journal(places.journal);
    SystemLog log(places);
    rlimit limit = {};
    QCOMPARE(::getrlimit(RLIMIT_NOFILE, &limit), 0);
    const rlimit few = {100, limit.rlim_max};
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &few), 0);
    std::vector<int> taken;
    for (int next = ::dup(STDERR_FILENO); next >= 0; next = ::dup(STDERR_FILENO)) {
        taken.push_back(next);
    }
    const bool isWritten = log.write(record(u"lost"_s));
    ::close(taken.back());
    taken.pop_back();
    const bool isWrittenThen = log.write(record(u"text"_s));
    const bool isLargeWritten = log.write(record(QString(5 * 1024 * 1024, u'x')));
    std::ranges::for_each(taken, ::close);
    QCOMPARE(::setrlimit(RLIMIT_NOFILE, &limit), 0);
    QVERIFY(!isWritten);
    QVERIFY(isWrittenThen);
    QVERIFY(!isLargeWritten);
    QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
    QCOMPARE(journal.next(), std::nullopt);
}

void TestSystemLog::writersDoNotMixTheirRecords()
{
    constexpr int Writers = 4;
    constexpr int Records = 500;
    LogReader journal(places.journal);
    SystemLog log(places);
    waitLonger();
    std::atomic<int> inside = 0;
    std::atomic<int> overlaps = 0;
    places.sendMessage = [&, send = places.sendMessage](int descriptor, const msghdr *message, int flags) {
        overlaps += inside++ != 0;
        std::this_thread::yield();
        const ssize_t sent = send(descriptor, message, flags);
        const int error = errno;
        --inside;
        errno = error;
        return sent;
    };
    const QList<int> before = openDescriptors();
    std::vector<std::thread> writers;
    writers.reserve(Writers);
    for (int writer = 0; writer < Writers; ++writer) {
        writers.emplace_back([&log, writer] {
            for (int i = 0; i < Records; ++i) {
                log.write(record(QString::number(writer) + u' ' + QString::number(i)));
            }
        });
    }
    std::array<int, Writers> next{};
    for (int i = 0; i < Writers * Records; ++i) {
        const QByteArrayList words = messageOf(journal.awaited()).split(' ');
        if (words.size() == 2 && words[1].toInt() == next.at(words[0].toUInt())) {
            ++next.at(words[0].toUInt());
        }
    }
    for (std::thread &writer : writers) {
        writer.join();
    }
    QCOMPARE(openDescriptors().size(), before.size() + 1);
    QCOMPARE(overlaps.load(), 0);
    // each writer's records in its order
    QVERIFY(std::ranges::all_of(next, [](int count) { return count == Records; }));
}

QTEST_GUILESS_MAIN(TestSystemLog)
#include "tst_systemlog.moc"
