// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemlog.h"

#include "tests/unit/linux/logreader.h"

#include <QTest>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

using namespace Qt::StringLiterals;
using namespace Linux;

class TestSystemLog : public QObject
{
    Q_OBJECT

private slots:
    void init() { logs = std::make_unique<LogFolder>(); }

    void journalGetsTheFields_data()
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

    void journalGetsTheFields()
    {
        QFETCH(int, type);
        QFETCH(QByteArray, data);
        QFETCH(QByteArray, middle);
        QFETCH(QByteArray, end);
        LogReader journal(logs->places.journal);
        SystemLog log(logs->places);
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
                                     priorityAndType[1] + "\nEVENT_ID=3221225473\nEVENT_CATEGORY=9029\n" +
                                     end);
        QCOMPARE(journal.next(), std::nullopt);
    }

    void lineFeedsDoNotEndAValue()
    {
        LogReader journal(logs->places.journal);
        SystemLog log(logs->places);
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

    void recordOfSeveralMebibytesComesAsASealedFile()
    {
        LogReader journal(logs->places.journal);
        SystemLog log(logs->places);
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

    void recordComesAsAFileWhereTheSystemHasNoRoomForADatagram()
    {
        LogReader journal(logs->places.journal);
        logs->places.sendMessage = [](int descriptor, const msghdr *message, int flags) -> ssize_t {
            if (message->msg_iovlen > 0) {
                errno = ENOBUFS;
                return -1;
            }
            return ::sendmsg(descriptor, message, flags);
        };
        SystemLog log(logs->places);
        QVERIFY(log.write(record(u"text"_s)));
        QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
        QCOMPARE(journal.filesRead(), 1);
    }

    void recordsWithoutASinkGoToTheMachinesLog()
    {
        QVERIFY(!qEnvironmentVariableIsSet("QUILLMERE_EVENTLOG"));
        LogReader journal(logs->places.journal);
        logPlaces() = logs->places;
        const bool isWritten = writeEvent(record(u"text"_s));
        logPlaces() = {};
        QVERIFY(isWritten);
        QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
    }

    void journalThatDoesNotReadCostsOneWait()
    {
        LogReader journal(logs->places.journal);
        LogReader syslog(logs->places.syslog);
        logs->countWaits();
        SystemLog log(logs->places);
        const int taken = fill(log);
        QVERIFY(taken > 0);
        QCOMPARE(logs->waits, 1);
        for (int i = 0; i < 1000; ++i) {
            QVERIFY(!log.write(record(u"lost"_s)));
        }
        QCOMPARE(logs->waits, 1);
        for (int i = 0; i < taken; ++i) {
            QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray::number(i));
        }
        QCOMPARE(journal.next(), std::nullopt);
        QVERIFY(log.write(record(u"again"_s)));
        QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("again"));
        QCOMPARE(logs->waits, 1);
        QCOMPARE(syslog.next(), std::nullopt);
    }

    void waitInVainEndsByItself()
    {
        const LogReader journal(logs->places.journal);
        SystemLog log(logs->places);
        QVERIFY(fill(log) > 0);
        QVERIFY(!log.write(record(u"lost"_s)));
    }

    void aFullQueueIsWaitedForAgainAfterARecord()
    {
        LogReader journal(logs->places.journal);
        logs->countWaits();
        SystemLog log(logs->places);
        QVERIFY(fill(log) > 0);
        QCOMPARE(logs->waits, 1);
        QVERIFY(journal.next());
        QVERIFY(fill(log) > 0);
        QCOMPARE(logs->waits, 2);
        // This time the reader reads while it is waited for.
        QVERIFY(journal.next());
        QVERIFY(log.write(record(u"again"_s)));
        logs->places.sendMessage = [&](int descriptor, const msghdr *message, int flags) {
            if ((flags & MSG_DONTWAIT) == 0) {
                ++logs->waits;
                journal.next();
            }
            return ::sendmsg(descriptor, message, flags | MSG_DONTWAIT);
        };
        QVERIFY(log.write(record(u"waited for"_s)));
        QCOMPARE(logs->waits, 3);
        QByteArray last;
        while (const std::optional<QByteArray> next = journal.next()) {
            last = messageOf(*next);
        }
        QCOMPARE(last, QByteArray("waited for"));
    }

    void signalsDoNotEndAWait()
    {
        LogReader journal(logs->places.journal);
        SystemLog log(logs->places);
        logs->places.sendMessage = [this](int descriptor, const msghdr *message, int flags) -> ssize_t {
            if ((flags & MSG_DONTWAIT) != 0 || ++logs->waits < 3) {
                errno = flags & MSG_DONTWAIT ? EAGAIN : EINTR;
                return -1;
            }
            return ::sendmsg(descriptor, message, flags | MSG_DONTWAIT);
        };
        QVERIFY(log.write(record(u"text"_s)));
        QCOMPARE(logs->waits, 3);
        QCOMPARE(messageOf(journal.next().value_or(QByteArray())), QByteArray("text"));
    }

    void signalsDoNotProlongAWaitForever()
    {
        LogReader syslog(logs->places.syslog);
        SystemLog log(logs->places);
        logs->places.sendMessage = [this](int, const msghdr *, int flags) -> ssize_t {
            logs->waits += (flags & MSG_DONTWAIT) == 0;
            errno = flags & MSG_DONTWAIT ? EAGAIN : EINTR;
            return -1;
        };
        QVERIFY(!log.write(record(u"text"_s)));
        const int first = logs->waits;
        QVERIFY(!log.write(record(u"text"_s)));
        QCOMPARE(logs->waits, first);
        QCOMPARE(syslog.next(), std::nullopt);
    }

    void journalMadeAnewIsFound()
    {
        logs->countWaits();
        SystemLog log(logs->places);
        auto journal = std::make_unique<LogReader>(logs->places.journal);
        QVERIFY(log.write(record(u"one"_s)));
        journal.reset();
        QVERIFY(!log.write(record(u"lost"_s)));
        journal = std::make_unique<LogReader>(logs->places.journal);
        QVERIFY(log.write(record(u"two"_s)));
        QCOMPARE(messageOf(journal->next().value_or(QByteArray())), QByteArray("two"));

        // The old one lives on and does not read.
        QVERIFY(fill(log) > 0);
        LogReader other(logs->places.journal);
        QVERIFY(log.write(record(u"three"_s)));
        QCOMPARE(messageOf(other.next().value_or(QByteArray())), QByteArray("three"));
        QCOMPARE(logs->waits, 1);
    }

    void holdsOneDescriptorThatIsClosedOnExec()
    {
        LogReader journal(logs->places.journal);
        const QList<int> before = openDescriptors();
        {
            SystemLog log(logs->places);
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

    void withoutADescriptorTheRecordIsLost()
    {
        LogReader journal(logs->places.journal);
        SystemLog log(logs->places);
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

private:
    std::unique_ptr<LogFolder> logs;
};

QTEST_GUILESS_MAIN(TestSystemLog)
#include "tst_systemlog.moc"
