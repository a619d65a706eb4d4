// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/unitfile.h"

#include <QRegularExpression>
#include <QTest>

using namespace Qt::StringLiterals;
using namespace Linux;

namespace {

UnitSettings settingsFor(const QString &path)
{
    return {u"Quill Mere"_s, u"Quill Mere"_s, u"text"_s, path, QString()};
}

bool hasLine(const QByteArray &text, const QByteArray &line)
{
    return text.split('\n').contains(line);
}

} // namespace

class TestUnitFile : public QObject
{
    Q_OBJECT

private slots:
    void namesTheUnit_data()
    {
        QTest::addColumn<QString>("service");
        QTest::addColumn<QString>("unit");
        QTest::newRow("the server") << u"Quill Mere"_s << u"quill-mere"_s;
        QTest::newRow("run of others") << u"A  _.B9"_s << u"a-b9"_s;
        QTest::newRow("never like an option") << u"--now"_s << u"now"_s;
        QTest::newRow("nothing at the end") << u"Server!"_s << u"server"_s;
        QTest::newRow("other letters") << u"Zürich"_s << u"z-rich"_s;
        QTest::newRow("path") << u"../../etc/passwd"_s << u"etc-passwd"_s;
        QTest::newRow("nothing left") << u" /%\u00e4"_s << QString();
        QTest::newRow("longest") << QString(247, u'a') << QString(247, u'a');
        QTest::newRow("too long for a file") << QString(248, u'a') << QString();
    }

    void namesTheUnit()
    {
        QFETCH(QString, service);
        QFETCH(QString, unit);
        QCOMPARE(unitName(service), unit);
    }

    void quotesWords_data(); // below: moc cannot read its strings inside a class

    void quotesWords()
    {
        QFETCH(QString, text);
        QFETCH(QByteArray, word);
        QCOMPARE(quotedWord(text), word);
    }

    void writesTheCommandLine_data(); // below: moc cannot read its strings inside a class

    void writesTheCommandLine()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, line);
        const QByteArray text = unitText(settingsFor(path));
        QVERIFY2(hasLine(text, line), text);
    }

    void tellsWhatCanBeStarted_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<bool>("can");
        QTest::newRow("plain") << u"/usr/bin/x"_s << true;
        QTest::newRow("none") << QString() << false;
        QTest::newRow("relative") << u"usr/bin/x"_s << false;
        QTest::newRow("odd") << u"/opt/ \"'\\%n $x;:{}=#`\u0085\u2028\ue000\U0001F4FB"_s << true;
        QTest::newRow("odd and hidden") << u"/home/ \"'\\%n $x;:{}=#`\u0085\u2028\ue000\U0001F4FB"_s << true;
        QTest::newRow("control characters") << u"/opt/\x01\t\n\x1f\x7f"_s << true;
        for (const QChar c : u"\x01\t\n\x1f\x7f"_s) {
            QTest::addRow("hidden with 0x%02x", c.unicode()) << QString(u"/home/x" + c) << false;
        }
        QTest::newRow("in temporary files") << u"/var/tmp/\n"_s << false;
        QTest::newRow("not UTF-8") << QString::fromUtf8("/opt/Gr\xf6\xdf"
                                                        "e")
                                   << false;
        QTest::newRow("half a pair") << QString(u"/opt/"_s + QChar(0xd83d)) << false;
        QTest::newRow("U+FFFE") << QString(u"/opt/"_s + QChar(0xfffe)) << false;
        QTest::newRow("U+FDD0") << QString(u"/opt/"_s + QChar(0xfdd0)) << false;
        QTest::newRow("U+1FFFF") << QString(u"/opt/"_s + QChar(0xd83f) + QChar(0xdfff)) << false;
    }

    void tellsWhatCanBeStarted()
    {
        QFETCH(QString, path);
        QTEST(canBeStarted(path), "can");
    }

    void writesTheDescription_data()
    {
        QTest::addColumn<QString>("description");
        QTest::addColumn<QByteArray>("line");
        QTest::newRow("plain") << u"A server"_s << QByteArray("Description=A server");
        QTest::newRow("specifier") << u"100 % %n"_s << QByteArray("Description=100 %% %%n");
        QTest::newRow("lines") << u"a\nExecStart=/bin/false\r"_s
                               << QByteArray("Description=a ExecStart=/bin/false ");
        QTest::newRow("joins no next line") << u"a\\"_s << QByteArray("Description=a\\ ");
        QTest::newRow("non-ASCII") << u"Größe"_s
                                   << QByteArray("Description=Gr\xc3\xb6\xc3\x9f"
                                                 "e");
    }

    void writesTheDescription()
    {
        QFETCH(QString, description);
        QFETCH(QByteArray, line);
        UnitSettings settings = settingsFor(u"/usr/bin/quillmere"_s);
        settings.description = description;
        QVERIFY(hasLine(unitText(settings), line));
    }

    void lendsTheJournalAFlood()
    {
        const QByteArray text = unitText(settingsFor(u"/opt/quillmere"_s));
        QVERIFY(hasLine(text, "LogRateLimitIntervalSec=30s"));
        QVERIFY(hasLine(text, "LogRateLimitBurst=1000000"));
    }

    void letsAHiddenProgramIn()
    {
        const QByteArray hidden = unitText(settingsFor(u"/home/me/a:b/quillmere"_s));
        QVERIFY(hasLine(hidden, "ProtectHome=tmpfs"));
        QVERIFY(hasLine(hidden, "BindReadOnlyPaths=\"/home/me/a:b/quillmere\""));
        const QByteArray installed = unitText(settingsFor(u"/usr/bin/quillmere"_s));
        QVERIFY(hasLine(installed, "ProtectHome=yes"));
        QVERIFY(!installed.contains("BindReadOnlyPaths"));
    }

    void runsUnderTheAccount()
    {
        UnitSettings settings = settingsFor(u"/usr/bin/quillmere"_s);
        QVERIFY(!unitText(settings).contains("User="));
        settings.account = u"radio"_s;
        QVERIFY(hasLine(unitText(settings), "User=radio"));
    }

    void keepsTheDataFolderWhereTheServerLooks()
    {
        const QByteArray text = unitText(settingsFor(u"/usr/bin/quillmere"_s));
        QVERIFY(hasLine(text, "StateDirectory=\"Brackwater/Quill Mere\""));
        QVERIFY(hasLine(text, "Environment=QUILLMERE_APPDATA=/var/lib LC_ALL=C.UTF-8"));
        QVERIFY(hasLine(text, "RuntimeDirectory=quill-mere"));
        for (const char *line :
             {"Type=notify", "NotifyAccess=main", "Restart=on-failure", "TimeoutStartSec=infinity",
              "NoNewPrivileges=yes", "CapabilityBoundingSet=", "ProtectSystem=strict", "PrivateTmp=yes",
              "PrivateDevices=yes", "MemoryDenyWriteExecute=yes",
              "RestrictAddressFamilies=AF_INET AF_INET6 AF_UNIX", "SystemCallFilter=@system-service"}) {
            QVERIFY2(hasLine(text, line), line);
        }
    }

    void fillsEachPlaceInOnce()
    {
        const UnitSettings settings = {u"Quill @UNIT@ Mere"_s, u"@USER@"_s, u"@NAME@ @COMMAND@"_s,
                                       u"/opt/@DESCRIPTION@"_s, u"radio"_s};
        const QByteArray text = unitText(settings);
        for (const char *line :
             {"# The service \"Quill @UNIT@ Mere\" under systemd.",
              "# Changes belong in a drop-in: systemctl edit quill-unit-mere.service",
              "Description=@NAME@ @COMMAND@", "ExecStart=:\"/opt/@DESCRIPTION@\"", "User=radio",
              "StateDirectory=\"Brackwater/@USER@\"", "RuntimeDirectory=quill-unit-mere"}) {
            QVERIFY2(hasLine(text, line), line);
        }
        const QRegularExpression place(u"@[A-Z_]+@"_s);
        QVERIFY(QString::fromUtf8(UnitTemplate).contains(place));
        QVERIFY(!QString::fromUtf8(unitText(settingsFor(u"/usr/bin/quillmere"_s))).contains(place));
    }

    void changesOnlyTheDescription()
    {
        const QByteArray before = "# mine\n[Unit]\nDescription=old\nAfter=x\n\n[Service]\nNice=5\n";
        QCOMPARE(withDescription(before, u"new %"_s),
                 QByteArray("# mine\n[Unit]\nDescription=new %%\nAfter=x\n\n[Service]\nNice=5\n"));
    }
};

void TestUnitFile::quotesWords_data()
{
    QTest::addColumn<QString>("text");
    QTest::addColumn<QByteArray>("word");
    QTest::newRow("plain") << u"/usr/bin/x"_s << QByteArray(R"("/usr/bin/x")");
    QTest::newRow("blank") << u"a b"_s << QByteArray(R"("a b")");
    QTest::newRow("quotes") << u"a\"b'c"_s << QByteArray(R"("a\"b'c")");
    QTest::newRow("backslash") << u"a\\x41"_s << QByteArray(R"("a\\x41")");
    QTest::newRow("specifier") << u"%n 50%"_s << QByteArray(R"("%%n 50%%")");
    QTest::newRow("line feed") << u"a\nExecStart=b"_s << QByteArray(R"("a\x0aExecStart=b")");
    QTest::newRow("non-ASCII") << u"Größe\U0001F4FB"_s
                               << QByteArray("\"Gr\xc3\xb6\xc3\x9f"
                                             "e\xf0\x9f\x93\xbb\"");
    QTest::newRow("empty") << u""_s << QByteArray(R"("")");
}

void TestUnitFile::writesTheCommandLine_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QByteArray>("line");
    QTest::newRow("plain") << u"/usr/bin/quillmere"_s << QByteArray(R"(ExecStart=:"/usr/bin/quillmere")");
    QTest::newRow("blank, percent, dollar")
        << u"/opt/a b/50%/$HOME"_s << QByteArray(R"(ExecStart=:"/opt/a b/50%%/$HOME")");
    // systemd takes these in arguments only.
    QTest::newRow("quote") << u"/opt/\"a\""_s
                           << QByteArray(R"(ExecStart=:/bin/sh -c "exec \"$0\"" "/opt/\"a\"")");
    QTest::newRow("apostrophe") << u"/opt/a'"_s
                                << QByteArray(R"(ExecStart=:/bin/sh -c "exec \"$0\"" "/opt/a'")");
    QTest::newRow("backslash") << u"/opt/a\\"_s
                               << QByteArray(R"(ExecStart=:/bin/sh -c "exec \"$0\"" "/opt/a\\")");
    QTest::newRow("line feed") << u"/opt/a\nUser=b"_s
                               << QByteArray(R"(ExecStart=:/bin/sh -c "exec \"$0\"" "/opt/a\x0aUser=b")");
}

QTEST_GUILESS_MAIN(TestUnitFile)
#include "tst_unitfile.moc"
