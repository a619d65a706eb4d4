// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/eventlog.h"

#include "tests/unit/linux/logreader.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSemaphore>
#include <QTemporaryDir>
#include <QTest>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <thread>
#include <vector>

using namespace Qt::StringLiterals;
using namespace Linux;

class TestEventLog : public QObject
{
    Q_OBJECT

private slots:
    void writesTheLineToTheLetter_data(); // below: moc cannot read its strings inside a class

    void writesTheLineToTheLetter()
    {
        QFETCH(QString, message);
        QFETCH(int, type);
        QFETCH(QByteArray, data);
        QFETCH(QByteArray, middle);
        EventRecord warning = record(message);
        warning.type = static_cast<Scm::Word>(type);
        warning.data = data;
        QCOMPARE(jsonLine(warning),
                 "{\"time\":\"2026-11-21T10:00:00.123Z\",\"source\":\"Quill Mere\"," + middle + "}\n");
    }

    void appendsToTheFile()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"Größe/../log"_s);
        QVERIFY(QDir(folder.path()).mkdir(u"Größe"_s));
        qputenv("QUILLMERE_EVENTLOG", QFile::encodeName(path));
        QVERIFY(writeEvent(record(u"one"_s)));
        QCOMPARE(content(path), jsonLine(record(u"one"_s)));
        QVERIFY(writeEvent(record(u"two"_s)));
        QCOMPARE(content(path), jsonLine(record(u"one"_s)) + jsonLine(record(u"two"_s)));
        QVERIFY(!(QFile::permissions(path) & (QFileDevice::ReadOther | QFileDevice::WriteOther)));
        qunsetenv("QUILLMERE_EVENTLOG");
    }

    void functionsFillTheRecord()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"log"_s);
        qputenv("QUILLMERE_EVENTLOG", QFile::encodeName(path));
        Scm::Handle log = registerEventSource(nullptr, u"Some Source");
        QVERIFY(log);
        const Scm::Char *strings[] = {u"message"};
        char data[] = {1, 2, 3};
        QCOMPARE(reportEvent(log, Scm::EventError, 0x2345, 0xC0000001, nullptr, 1, 3, strings, data), 1);
        QCOMPARE(reportEvent(log, Scm::EventSuccess, 0, 0, nullptr, 0, 0, nullptr, nullptr), 1);
        QCOMPARE(deregisterEventSource(log), 1);
        QVERIFY(!reportEvent(nullptr, 0, 0, 0, nullptr, 1, 0, strings, nullptr));
        QVERIFY(!deregisterEventSource(nullptr));
        const QList<QByteArray> lines = content(path).split('\n');
        QCOMPARE(lines.size(), 3);
        const QJsonObject first = QJsonDocument::fromJson(lines[0]).object();
        QVERIFY(QDateTime::fromString(first[u"time"].toString(), Qt::ISODateWithMs).isValid());
        QVERIFY(first[u"time"].toString().endsWith(u'Z'));
        QVERIFY(lines[0].endsWith(
            "Z\",\"source\":\"Some Source\",\"type\":\"error\",\"id\":3221225473,\"category\":9029,"
            "\"message\":\"message\",\"data\":\"AQID\"}"));
        QVERIFY(lines[1].endsWith(
            "Z\",\"source\":\"Some Source\",\"type\":\"success\",\"id\":0,\"category\":0,\"message\":\"\"}"));
        qunsetenv("QUILLMERE_EVENTLOG");
    }

    void writersDoNotMixTheirLines()
    {
        constexpr int Writers = 8;
        constexpr int Records = 200;
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"log"_s);
        qputenv("QUILLMERE_EVENTLOG", QFile::encodeName(path));
        std::vector<std::thread> writers;
        writers.reserve(Writers);
        for (int writer = 0; writer < Writers; ++writer) {
            writers.emplace_back([writer] {
                for (int i = 0; i < Records; ++i) {
                    writeEvent(record(QString(5000, QChar(u'a' + writer))));
                }
            });
        }
        for (std::thread &writer : writers) {
            writer.join();
        }
        qunsetenv("QUILLMERE_EVENTLOG");
        QByteArrayList lines = content(path).split('\n');
        QCOMPARE(lines.takeLast(), QByteArray());
        QCOMPARE(lines.size(), Writers * Records);
        for (const QByteArray &line : lines) {
            const QString message = QJsonDocument::fromJson(line).object()[u"message"].toString();
            QCOMPARE(message, QString(5000, message.isEmpty() ? QChar(u'?') : message[0]));
        }
    }

    void unwritableSinkLosesTheRecord_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("no folder") << u"/nowhere/at/all/log"_s;
        QTest::newRow("a folder") << u"/"_s;
        QTest::newRow("full") << u"/dev/full"_s;
        QTest::newRow("pipe that nobody reads") << u"pipe"_s;
    }

    void unwritableSinkLosesTheRecord()
    {
        QFETCH(QString, path);
        const QTemporaryDir folder;
        const QString sink = path == u"pipe" ? folder.filePath(path) : path;
        if (path == u"pipe") {
            QCOMPARE(::mkfifo(QFile::encodeName(sink).constData(), 0600), 0);
        }
        qputenv("QUILLMERE_EVENTLOG", QFile::encodeName(sink));
        QVERIFY(!writeEvent(record(u"text"_s)));
        qunsetenv("QUILLMERE_EVENTLOG");
    }

    void fileThatIsRenamedIsMadeAnew()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"log"_s);
        const QString rotated = folder.filePath(u"log.1"_s);
        qputenv("QUILLMERE_EVENTLOG", QFile::encodeName(path));
        QVERIFY(writeEvent(record(u"one"_s)));
        QVERIFY(QFile::rename(path, rotated));
        QVERIFY(writeEvent(record(u"two"_s)));
        QCOMPARE(content(rotated), jsonLine(record(u"one"_s)));
        QCOMPARE(content(path), jsonLine(record(u"two"_s)));
        QVERIFY(QFile::remove(path));
        QVERIFY(writeEvent(record(u"three"_s)));
        QCOMPARE(content(path), jsonLine(record(u"three"_s)));
        qunsetenv("QUILLMERE_EVENTLOG");
    }

    void pipeMayLoseItsReader()
    {
        const QTemporaryDir folder;
        const QByteArray path = QFile::encodeName(folder.filePath(u"pipe"_s));
        QCOMPARE(::mkfifo(path.constData(), 0600), 0);
        qputenv("QUILLMERE_EVENTLOG", path);
        const auto openReader = [&path] {
            return ::open(path.constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        };
        int reader = openReader();
        QVERIFY(writeEvent(record(u"one"_s)));
        ::close(reader);
        QVERIFY(!writeEvent(record(u"two"_s)));
        reader = openReader();
        QVERIFY(writeEvent(record(u"three"_s)));
        ::close(reader);
        qunsetenv("QUILLMERE_EVENTLOG");
    }

    void errorOutputIsASinkToo()
    {
        const QTemporaryDir folder;
        const QString path = folder.filePath(u"errors"_s);
        const int file = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        const int own = ::dup(STDERR_FILENO);
        QVERIFY(file >= 0 && own >= 0);
        qputenv("QUILLMERE_EVENTLOG", "stderr");
        ::dup2(file, STDERR_FILENO);
        const bool isWritten = writeEvent(record(u"one"_s));
        ::dup2(own, STDERR_FILENO);
        qunsetenv("QUILLMERE_EVENTLOG");
        ::close(own);
        ::close(file);
        QVERIFY(isWritten);
        QCOMPARE(content(path), jsonLine(record(u"one"_s)));
    }

    void errorOutputThatIsNotReadHoldsNothingUp()
    {
        std::array<int, 2> ends{};
        QCOMPARE(::pipe2(ends.data(), O_CLOEXEC), 0);
        const int own = ::dup(STDERR_FILENO);
        qputenv("QUILLMERE_EVENTLOG", "stderr");
        ::dup2(ends[1], STDERR_FILENO);
        QSemaphore isOver;
        std::thread rescue([&] { // from a write that waits for a reader
            QByteArray bytes(65536, '\0');
            for (bool over = isOver.tryAcquire(1, 30000); !over; over = isOver.tryAcquire()) {
                (void)!::read(ends[0], bytes.data(), static_cast<size_t>(bytes.size()));
            }
        });
        int taken = 0;
        while (taken < 100000 && writeEvent(record(u"one"_s))) {
            ++taken;
        }
        int lost = 0;
        for (int i = 0; i < 1000; ++i) {
            lost += !writeEvent(record(u"lost"_s));
        }
        QByteArray read(65536, '\0');
        read.truncate(::read(ends[0], read.data(), static_cast<size_t>(read.size())));
        const bool isWritten = writeEvent(record(u"again"_s));
        isOver.release();
        rescue.join();
        ::dup2(own, STDERR_FILENO);
        qunsetenv("QUILLMERE_EVENTLOG");
        ::close(own);
        ::close(ends[0]);
        ::close(ends[1]);
        QCOMPARE(read, jsonLine(record(u"one"_s)).repeated(taken));
        QCOMPARE(lost, 1000);
        QVERIFY(isWritten);
    }

private:
    static QByteArray content(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }
};

void TestEventLog::writesTheLineToTheLetter_data()
{
    QTest::addColumn<QString>("message");
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("data");
    QTest::addColumn<QByteArray>("middle");
    const auto row = [](const char *name, const QString &message, int type, const QByteArray &data,
                        const QByteArray &middle) {
        QTest::newRow(name) << message << type << data << middle;
    };
    row("warning", u"text"_s, 2, {}, R"("type":"warning","id":3221225473,"category":0,"message":"text")");
    row("success", u"text"_s, 0, {}, R"("type":"success","id":3221225473,"category":0,"message":"text")");
    row("error", u"text"_s, 1, {}, R"("type":"error","id":3221225473,"category":0,"message":"text")");
    row("information", u"text"_s, 4, {},
        R"("type":"information","id":3221225473,"category":0,"message":"text")");
    row("data", u"text"_s, 2, QByteArray("\0\xff\n", 3),
        R"("type":"warning","id":3221225473,"category":0,"message":"text","data":"AP8K")");
    row("empty", QString(), 2, {}, R"("type":"warning","id":3221225473,"category":0,"message":"")");
    row("control characters", u"a\n\r\t\"\\\u0001\u001f"_s + QChar(0), 2, {},
        R"("type":"warning","id":3221225473,"category":0,"message":"a\n\r\t\"\\\u0001\u001f\u0000")");
    row("non-ASCII", u"Größe\U0001F4FB"_s, 2, {},
        "\"type\":\"warning\",\"id\":3221225473,\"category\":0,\"message\":\"Gr\xc3\xb6\xc3\x9f"
        "e\xf0\x9f\x93\xbb\"");
}

QTEST_GUILESS_MAIN(TestEventLog)
#include "tst_eventlog.moc"
