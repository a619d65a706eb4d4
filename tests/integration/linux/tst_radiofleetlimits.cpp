// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/radioprocess.h"
#include "tests/support/scriptedserver.h"

#include <QRegularExpression>
#include <QSet>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// The tool in a process that may never have more open files. A sanitizer's search for leaks would need some.
QStringList withOpenFiles(int limit)
{
    return {u"/bin/sh"_s, u"-c"_s,
            u"ulimit -n %1 && ASAN_OPTIONS=detect_leaks=0 exec \"$0\" \"$@\""_s.arg(limit)};
}

} // namespace

// A fleet where the system refuses something.
class TestRadioFleetLimits : public QObject
{
    Q_OBJECT

private slots:
    void fleetIsLargerThanItsOpenFiles()
    {
        constexpr quint32 FirstAddress = 0x7F010001;
        constexpr qsizetype Radios = 5000;
        ScriptedServer server(true);
        RadioProcess tool(withOpenFiles(32),
                          u"fleet --json --rate 1000000 --window 100 --addresses 127.1.0.1-127.1.19.136"_s +
                              serverOption(server.port()));
        QCOMPARE(tool.exitCode(), 0);
        QCOMPARE(tool.errors(), QString());
        const QJsonObject summary = tool.objects().constFirst();
        QCOMPARE(summary[u"acknowledged"_s], Radios);
        QCOMPARE(summary[u"unexpected"_s], 0);
        QSet<quint64> radios;
        for (const ScriptedServer::Received &received : server.received()) {
            QCOMPARE(received.sender, FirstAddress + static_cast<quint32>(received.esn) - 1);
            radios.insert(received.esn);
        }
        QCOMPARE(radios.size(), Radios);
    }

    // As few files as let the program run at all, and one more each time until it has its socket.
    void tooManyOpenFilesAreTold_data()
    {
        QTest::addColumn<QString>("options");
        QTest::addColumn<QString>("error");
        QTest::newRow("own address") << u"--addresses 127.1.0.1"_s
                                     << u"cannot open a socket at 127.1.0.1: too many open files"_s;
        QTest::newRow("as the system chooses") << QString() << u"cannot open a socket: Out of resources"_s;
    }
    void tooManyOpenFilesAreTold()
    {
        QFETCH(QString, options);
        QFETCH(QString, error);
        ScriptedServer server(true);
        QStringList errors;
        int code = -1;
        for (int limit = 3; limit < 32 && code != 0; ++limit) {
            RadioProcess tool(withOpenFiles(limit), u"fleet "_s + options + serverOption(server.port()));
            code = tool.exitCode();
            if (code == 1) {
                errors.append(tool.errors());
            }
        }
        QCOMPARE(code, 0);
        QVERIFY2(errors.contains(u"quillmere-radio: %1\n"_s.arg(error)), qPrintable(errors.join(u'|')));
    }

    void whatTheSystemRefusesIsOneLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("error");
        QTest::newRow("no such address")
            << u"--addresses 192.0.2.1"_s
            << u"cannot open a socket at 192.0.2.1: this machine has no such address"_s;
        QTest::newRow("no such address at a range's end")
            << u"--addresses 127.255.255.200-128.0.0.1"_s
            << u"cannot open a socket at 128.0.0.0: this machine has no such address"_s;
        // Neither leaves the machine: a broadcast must be allowed, and nothing goes from loopback to
        // elsewhere.
        QTest::newRow("no permission")
            << u"--addresses 127.1.0.1 --server 127.255.255.255:9"_s
            << u"cannot send from 127\\.1\\.0\\.1:[0-9]+ to 127\\.255\\.255\\.255:9: no permission"_s;
        QTest::newRow("no route")
            << u"--addresses 127.1.0.1 --server 240.0.0.1:9"_s
            << u"cannot send from 127\\.1\\.0\\.1:[0-9]+ to 240\\.0\\.0\\.1:9: there is no route"_s;
    }
    void whatTheSystemRefusesIsOneLine()
    {
        QFETCH(QString, line);
        QFETCH(QString, error);
        RadioProcess tool(u"fleet "_s + line);
        QCOMPARE(tool.exitCode(), 1);
        QCOMPARE(tool.output(), QString());
        const QRegularExpression form(u"^quillmere-radio: "_s + error + u"\\n\\z"_s);
        const QString errors = tool.errors();
        QVERIFY2(form.match(errors).hasMatch(), qPrintable(errors));
    }
};

QTEST_GUILESS_MAIN(TestRadioFleetLimits)
#include "tst_radiofleetlimits.moc"
