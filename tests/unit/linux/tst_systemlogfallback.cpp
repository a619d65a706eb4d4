// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemlog.h"

#include "tests/unit/linux/logreader.h"

#include <QFile>
#include <QTest>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <ctime>
#include <memory>

using namespace Qt::StringLiterals;
using namespace Linux;

// What becomes of records where there is no journal.
class TestSystemLogFallback : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        qputenv("TZ", "XYZ-05:30"); // local time is ahead of UTC by that much
        ::tzset();
    }

    void init() { logs = std::make_unique<LogFolder>(); }

    void withoutAJournalSyslogGetsTheRecord_data()
    {
        QTest::addColumn<QString>("journal");
        QTest::newRow("no socket") << u"nothing"_s;
        QTest::newRow("nobody reads the socket") << u"left behind"_s;
        QTest::newRow("a record too large for a datagram") << u"large"_s;
    }

    void withoutAJournalSyslogGetsTheRecord()
    {
        QFETCH(QString, journal);
        logs->places.journal = QFile::encodeName(logs->folder.filePath(journal));
        if (journal == u"left behind") {
            const LogReader gone(logs->places.journal);
        }
        LogReader syslog(logs->places.syslog);
        SystemLog log(logs->places);
        if (journal == u"large") {
            QVERIFY(!log.write(record(QString(5 * 1024 * 1024, u'x')))); // syslog has no way for it
        }
        QVERIFY(log.write(record(u"Größe"_s)));
        QCOMPARE(syslog.next(), "<28>Nov 21 15:30:00 Quill Mere: Gr\xc3\xb6\xc3\x9f"_ba + "e");
        QCOMPARE(syslog.next(), std::nullopt);
        LogReader back(logs->places.journal);
        QVERIFY(log.write(record(u"back"_s)));
        QCOMPARE(messageOf(back.next().value_or(QByteArray())), QByteArray("back"));
        QCOMPARE(syslog.next(), std::nullopt);
    }

    void syslogGetsTypeAndTimeToTheLetter_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("time");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("success") << 0 << u"2026-01-01T00:00:01Z"_s
                                 << QByteArray("<30>Jan  1 05:30:01 Quill Mere: one\ntwo");
        QTest::newRow("error") << 1 << u"2026-05-31T18:29:59Z"_s
                               << QByteArray("<27>May 31 23:59:59 Quill Mere: one\ntwo");
        QTest::newRow("warning") << 2 << u"2026-05-31T18:30:00Z"_s
                                 << QByteArray("<28>Jun  1 00:00:00 Quill Mere: one\ntwo");
        QTest::newRow("information") << 4 << u"2026-12-12T12:12:12Z"_s
                                     << QByteArray("<30>Dec 12 17:42:12 Quill Mere: one\ntwo");
    }

    void syslogGetsTypeAndTimeToTheLetter()
    {
        QFETCH(int, type);
        QFETCH(QString, time);
        QFETCH(QByteArray, line);
        LogReader syslog(logs->places.syslog);
        SystemLog log(logs->places);
        EventRecord written = record(u"one\ntwo"_s);
        written.type = static_cast<Scm::Word>(type);
        written.time = QDateTime::fromString(time, Qt::ISODate);
        QVERIFY(log.write(written));
        QCOMPARE(syslog.next(), line);
    }

    void syslogThatDoesNotReadCostsOneWait()
    {
        LogReader syslog(logs->places.syslog);
        logs->countWaits();
        SystemLog log(logs->places);
        const int taken = fill(log);
        QVERIFY(taken > 0);
        for (int i = 0; i < 1000; ++i) {
            QVERIFY(!log.write(record(u"lost"_s)));
        }
        QCOMPARE(logs->waits, 1);
        for (int i = 0; i < taken; ++i) {
            QCOMPARE(syslog.next(), "<28>Nov 21 15:30:00 Quill Mere: " + QByteArray::number(i));
        }
        QVERIFY(log.write(record(u"again"_s)));
        QCOMPARE(syslog.next(), "<28>Nov 21 15:30:00 Quill Mere: again"_ba);
    }

    void syslogMayReadAStream()
    {
        const int listener = listenAt(logs->places.syslog, 10);
        QVERIFY(listener >= 0);
        SystemLog log(logs->places);
        for (const QByteArray text : {"one", "two"}) {
            QVERIFY(log.write(record(QString::fromLatin1(text))));
            const int connection = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            QVERIFY(connection >= 0);
            std::array<char, 200> buffer{};
            const ssize_t size = ::recv(connection, buffer.data(), buffer.size(), MSG_WAITALL); // to its end
            ::close(connection);
            QCOMPARE(QByteArray(buffer.data(), size), "<28>Nov 21 15:30:00 Quill Mere: " + text + '\0');
        }
        ::close(listener);
    }

    void syslogStreamThatAcceptsNobodyLosesTheRecord()
    {
        const int listener = listenAt(logs->places.syslog, 0);
        QVERIFY(listener >= 0);
        SystemLog log(logs->places);
        const QList<int> before = openDescriptors();
        QVERIFY(log.write(record(u"taken"_s)));
        for (int i = 0; i < 100; ++i) {
            QVERIFY(!log.write(record(u"lost"_s)));
        }
        QCOMPARE(openDescriptors().size(), before.size() + 1);
        ::close(listener);
    }

    void syslogStreamGetsNoPartOfARecord()
    {
        const int listener = listenAt(logs->places.syslog, 10);
        QVERIFY(listener >= 0);
        SystemLog log(logs->places);
        QVERIFY(!log.write(record(QString(5 * 1024 * 1024, u'x'))));
        QVERIFY(!log.write(record(QString(900 * 1024, u'x'))));
        QVERIFY(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) < 0);
        ::close(listener);
    }

    void withoutAnyReaderTheRecordIsLost()
    {
        logs->countWaits();
        SystemLog log(logs->places);
        QVERIFY(!log.write(record(u"lost"_s)));
        QCOMPARE(logs->waits, 0);
    }

private:
    // A listening socket of the path.
    static int listenAt(const QByteArray &path, int backlog)
    {
        const int listener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        const sockaddr_un address = addressOf(path);
        const bool listens =
            ::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
            ::listen(listener, backlog) == 0;
        return listens ? listener : -1;
    }
    static sockaddr_un addressOf(const QByteArray &path)
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
        return address;
    }

    std::unique_ptr<LogFolder> logs;
};

QTEST_GUILESS_MAIN(TestSystemLogFallback)
#include "tst_systemlogfallback.moc"
