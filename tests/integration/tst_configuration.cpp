// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <QDir>
#include <QFile>
#include <QTcpSocket>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// What the start-up record shows of the configuration; "none" for a server that did not start.
QString shown(RecordingLog &log, const QString &name)
{
    const QList<LogRecord> records = log.take();
    const QString message = records.isEmpty() ? QString() : records.last().message;
    for (const QString &line : message.split(u'\n')) {
        if (line.startsWith(name % u": "_s)) {
            return line.sliced(name.size() + 2);
        }
    }
    return u"none"_s;
}

bool listensAt(quint16 port)
{
    QTcpSocket socket;
    socket.connectToHost(QHostAddress::LocalHost, port);
    return socket.waitForConnected();
}

} // namespace

// The configuration file, good and bad: nothing in it stops the server.
class TestConfiguration : public QObject
{
    Q_OBJECT

private slots:
    void valuesAreReadAsUnsignedNumbers_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("value");
        const auto row = [](const char *name, const QByteArray &content, const QString &value) {
            QTest::newRow(name) << content << value;
        };
        row("number", "minimumDiscoveryPeriod=45", u"45"_s);
        row("quoted", "minimumDiscoveryPeriod=\"45\"", u"45"_s);
        row("blanks around it", "minimumDiscoveryPeriod =  45 ", u"45"_s);
        row("carriage return", "minimumDiscoveryPeriod=45\r", u"45"_s);
        row("largest", "minimumDiscoveryPeriod=4294967295", u"4294967295"_s);
        row("zero", "minimumDiscoveryPeriod=0", u"0"_s);
        row("missing", "", u"30"_s);
        row("another key", "minimumDiscovery=45", u"30"_s);
        row("in a group", "[General2]\nminimumDiscoveryPeriod=45", u"30"_s);
        row("commented out", ";minimumDiscoveryPeriod=45", u"30"_s);
        row("words", "minimumDiscoveryPeriod=abc", u"0"_s);
        row("empty", "minimumDiscoveryPeriod=", u"0"_s);
        row("number and word", "minimumDiscoveryPeriod=45s", u"0"_s);
        row("negative", "minimumDiscoveryPeriod=-1", u"0"_s);
        row("fraction", "minimumDiscoveryPeriod=4.5", u"0"_s);
        row("too large", "minimumDiscoveryPeriod=4294967296", u"0"_s);
        row("far too large", "minimumDiscoveryPeriod=99999999999999999999999", u"0"_s);
        row("list", "minimumDiscoveryPeriod=45, 46", u"0"_s);
        row("hexadecimal", "minimumDiscoveryPeriod=0x10", u"0"_s);
        row("given twice", "minimumDiscoveryPeriod=45\nminimumDiscoveryPeriod=46", u"46"_s);
        row("variant", "minimumDiscoveryPeriod=@Variant(\\0\\0)", u"0"_s);
    }

    void valuesAreReadAsUnsignedNumbers()
    {
        QFETCH(const QByteArray, content);
        QFETCH(const QString, value);
        TestServer server;
        server.configure(content);
        server->start();
        QCOMPARE(shown(server.log, u"Minimum Discovery Period"_s), value + u" (seconds)"_s);
        QVERIFY(server->timerForTimeoutCheck().isActive());
    }

    void portsAreShownAsRead_data()
    {
        QTest::addColumn<QByteArray>("value");
        QTest::addColumn<QString>("read");
        QTest::newRow("words") << QByteArray("radio") << u"0"_s;
        QTest::newRow("negative") << QByteArray("-9361") << u"0"_s;
        QTest::newRow("empty") << QByteArray() << u"0"_s;
        QTest::newRow("too large for any number") << QByteArray("4294967296") << u"0"_s;
    }

    // Such a port is 0: the system then chooses one.
    void portsAreShownAsRead()
    {
        QFETCH(const QByteArray, value);
        QFETCH(const QString, read);
        TestServer server;
        server.folder.writeConfiguration("radioRegistrationPort=" + value + "\napplicationPort=" + value +
                                         "\n");
        server->start();
        const QList<LogRecord> records = server.log.records();
        QCOMPARE(records.size(), 2); // the new database, and the start: both sockets opened
        QCOMPARE(shown(server.log, u"Radio Registration Port"_s), read + u" (UDP)"_s);
        QVERIFY(records.last().message.contains(u"\nApplication Port: "_s % read % u" (TCP)\n"_s));
        QVERIFY(server->timerForTimeoutCheck().isActive());
    }

    void portBeyondSixteenBitsLosesItsUpperBits()
    {
        TestServer server;
        const quint32 registrationPort = 0x10000U + server.registrationPort();
        const quint32 applicationPort = 0x7FFF0000U + server.applicationPort();
        server.folder.writeConfiguration("radioRegistrationPort=" + QByteArray::number(registrationPort) +
                                         "\napplicationPort=" + QByteArray::number(applicationPort) + "\n");
        server->start();
        const QString message = server.log.records().last().message;
        QVERIFY(message.contains(u"\nRadio Registration Port: %1 (UDP)\nApplication Port: %2 (TCP)\n"_s.arg(
            QString::number(registrationPort), QString::number(applicationPort))));
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        QVERIFY(listensAt(server.applicationPort()));
    }

    void unusableFileYieldsTheDefaults_data()
    {
        QTest::addColumn<bool>("directory");
        QTest::addColumn<QByteArray>("content");
        QTest::newRow("missing") << false << QByteArray();
        QTest::newRow("empty") << false << QByteArray("");
        QTest::newRow("a directory in its place") << true << QByteArray();
        QTest::newRow("binary") << false << QByteArray("\x00\xFF\xFE[=]\x01\r\n\\x", 11).repeated(50);
        QTest::newRow("no INI") << false << QByteArray("<xml>minimumDiscoveryPeriod</xml>\n");
        QTest::newRow("section not closed") << false << QByteArray("[radio\nminimumDiscoveryPeriod=5");
    }

    void unusableFileYieldsTheDefaults()
    {
        QFETCH(const bool, directory);
        QFETCH(const QByteArray, content);
        TestServer server;
        const QString file = server.folder.path() + u"/qmr.cfg"_s;
        QVERIFY(QFile::remove(file));
        if (directory) {
            QVERIFY(QDir().mkdir(file));
        } else if (!content.isNull()) {
            server.folder.writeConfiguration(content);
        }
        server->start();
        const QString message = server.log.records().last().message;
        QCOMPARE(message, u"Quill Mere 1.38.3.27\n"
                          " Service started with the following configuration:\n"
                          "Minimum Discovery Period: 30 (seconds)\n"
                          "Radio Registration Port: 9361 (UDP)\n"
                          "Application Port: 9361 (TCP)\n"
                          "Config Path: "_s %
                              server.folder.path() % u"\n"_s);
        QVERIFY(server->timerForTimeoutCheck().isActive());
    }

    void fileIsNeverWritten()
    {
        TestServer server;
        const QString path = server.folder.path() + u"/qmr.cfg"_s;
        const QByteArray content = "minimumDiscoveryPeriod=abc\r\n; a comment\r\n\tunknown = 7\r\n";
        server.folder.writeConfiguration(content);
        server->start();
        server.restart();
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), content);

        QVERIFY(file.remove());
        server.restart();
        server.stop();
        server.start();
        QVERIFY(!QFile::exists(path));
        QCOMPARE(QDir(server.folder.path()).entryList(QDir::Files), QStringList{u"qmr.db"_s});
    }

    void eachStartReadsTheFile()
    {
        TestServer server;
        server.configure("minimumDiscoveryPeriod=45");
        server->start();
        QCOMPARE(shown(server.log, u"Minimum Discovery Period"_s), u"45 (seconds)"_s);
        server.configure("minimumDiscoveryPeriod=1000");
        server.stop();
        server->start();
        QCOMPARE(shown(server.log, u"Minimum Discovery Period"_s), u"1000 (seconds)"_s);
        server.configure();
        server.stop();
        server->start();
        QCOMPARE(shown(server.log, u"Minimum Discovery Period"_s), u"30 (seconds)"_s);
    }
};

QTEST_GUILESS_MAIN(TestConfiguration)
#include "tst_configuration.moc"
