// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemctl.h"

#include "tests/unit/linux/fakesystemd.h"

#include <QElapsedTimer>
#include <QTest>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace Linux;

class TestSystemctl : public QObject
{
    Q_OBJECT

private slots:
    void givesArgumentsUnchanged();
    void keepsTheCallersEnvironmentOut();
    void tellsTheExitCode();
    void keepsABoundedOutput();
    void endsACommandThatHangs();
    void missingProgramFails();
    void failureOfAChangeSetsTheError();

private:
    static void replaceScript(FakeSystemd &systemd, const QByteArray &script)
    {
        systemd.writeFile(QFile::decodeName(places().systemctl), "#!/bin/sh\n" + script);
    }
};

void TestSystemctl::givesArgumentsUnchanged()
{
    FakeSystemd systemd;
    replaceScript(systemd, "printf '<%s>' \"$@\"\n");
    QCOMPARE(systemctl({"a b", "$(reboot)", "*", "", "'\";", "Gr\xc3\xb6\xc3\x9f"}).output,
             QByteArray("<a b><$(reboot)><*><><'\";><Gr\xc3\xb6\xc3\x9f>"));
}

void TestSystemctl::keepsTheCallersEnvironmentOut()
{
    FakeSystemd systemd;
    replaceScript(systemd, "echo \"$NOTIFY_SOCKET$SYSTEMD_LOG_LEVEL$LANGUAGE-$LC_ALL\"; cat\n");
    qputenv("NOTIFY_SOCKET", "x");
    qputenv("SYSTEMD_LOG_LEVEL", "debug");
    qputenv("LANGUAGE", "de");
    QCOMPARE(systemctl({}).output, QByteArray("-C.UTF-8\n"));
    qunsetenv("NOTIFY_SOCKET");
    qunsetenv("SYSTEMD_LOG_LEVEL");
    qunsetenv("LANGUAGE");
}

void TestSystemctl::tellsTheExitCode()
{
    FakeSystemd systemd;
    QCOMPARE(systemctl({"start"}).exitCode, 0);
    systemd.setExitCode("start", 5);
    QCOMPARE(systemctl({"start"}).exitCode, 5);
    replaceScript(systemd, "kill -9 $$\n");
    QCOMPARE(systemctl({"start"}).exitCode, -1);
}

void TestSystemctl::keepsABoundedOutput()
{
    FakeSystemd systemd;
    replaceScript(systemd, "head -c 1000000 /dev/zero\n");
    const CommandResult result = systemctl({});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.output.size(), 65536);
}

void TestSystemctl::endsACommandThatHangs()
{
    FakeSystemd systemd;
    replaceScript(systemd, "exec sleep 1000\n");
    places().timeoutMilliseconds = 100;
    QCOMPARE(systemctl({}).exitCode, -1);
}

void TestSystemctl::missingProgramFails()
{
    FakeSystemd systemd;
    places().systemctl = "/nowhere/systemctl";
    QCOMPARE(systemctl({}).exitCode, -1);
}

void TestSystemctl::failureOfAChangeSetsTheError()
{
    FakeSystemd systemd;
    QVERIFY(systemctlDoes({"daemon-reload"}));
    systemd.setExitCode("daemon-reload", 1);
    QVERIFY(!systemctlDoes({"daemon-reload"}));
    QCOMPARE(lastError(),
             ::geteuid() == 0 ? Scm::Dword(ErrorManagerUnavailable) : Scm::Dword(Scm::ErrorAccessDenied));
}

QTEST_GUILESS_MAIN(TestSystemctl)
#include "tst_systemctl.moc"
