// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemlog.h"

#include "tests/unit/linux/logreader.h"

#include <QTest>

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace Linux;

// A reader on a busy machine may need longer than the wait that users get.
static ssize_t sendPatiently(int descriptor, const msghdr *message, int flags)
{
    ssize_t sent = -1;
    for (int i = 0; sent < 0 && i < 100; ++i) {
        sent = ::sendmsg(descriptor, message, flags);
        if (errno != EAGAIN || (flags & MSG_DONTWAIT) != 0) {
            break;
        }
    }
    return sent;
}

// Many records, from several threads.
class TestSystemLogThreads : public QObject
{
    Q_OBJECT

private slots:
    void busyJournalGetsEveryRecord()
    {
        constexpr int Records = 20000;
        LogFolder logs;
        logs.places.sendMessage = sendPatiently;
        LogReader journal(logs.places.journal);
        SystemLog log(logs.places);
        int ordered = 0;
        std::thread reader([&] {
            while (ordered < Records && messageOf(journal.awaited()) == QByteArray::number(ordered)) {
                ++ordered;
            }
        });
        int taken = 0;
        for (int i = 0; i < Records; ++i) {
            taken += log.write(record(QString::number(i)));
        }
        reader.join();
        QCOMPARE(taken, Records);
        QCOMPARE(ordered, Records);
    }

    void writersDoNotMixTheirRecords()
    {
        constexpr int Writers = 4;
        constexpr int Records = 500;
        LogFolder logs;
        LogReader journal(logs.places.journal);
        std::atomic<int> inside = 0;
        std::atomic<int> overlaps = 0;
        logs.places.sendMessage = [&](int descriptor, const msghdr *message, int flags) {
            overlaps += inside++ != 0;
            std::this_thread::yield();
            const ssize_t sent = sendPatiently(descriptor, message, flags);
            const int error = errno;
            --inside;
            errno = error;
            return sent;
        };
        SystemLog log(logs.places);
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
            if (words.size() != 2) {
                break; // one is lost
            }
            next.at(words[0].toUInt()) += words[1].toInt() == next.at(words[0].toUInt());
        }
        for (std::thread &writer : writers) {
            writer.join();
        }
        QCOMPARE(openDescriptors().size(), before.size() + 1);
        QCOMPARE(overlaps.load(), 0);
        // each writer's records in its order
        QVERIFY(std::ranges::all_of(next, [](int count) { return count == Records; }));
    }
};

QTEST_GUILESS_MAIN(TestSystemLogThreads)
#include "tst_systemlogthreads.moc"
