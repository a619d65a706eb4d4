// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/deletions.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"
#include "tests/system/interposing.h"

#include <QTest>

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>

using namespace Qt::StringLiterals;

namespace {

bool refuses = false;

int connectTo(quint16 port)
{
    const int descriptor = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0) {
        qFatal("cannot connect");
    }
    return descriptor;
}

} // namespace

// Stands in for the C library's, in Qt too.
extern "C" int fcntl(int descriptor, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    static const auto real = NEXT(fcntl);
    if (refuses) {
        errno = ENOMEM;
        return -1;
    }
    return real(descriptor, command, argument);
}

// A connection that the system gives and then does not let be used.
class TestUnreadyConnection : public QObject
{
    Q_OBJECT

private slots:
    void isNoApplication()
    {
        TestServer server;
        server.startWithoutDiscovery();
        const Deletions<QTcpSocket> deleted;
        const int descriptor = connectTo(server.applicationPort());
        refuses = true;
        const QStringList records = server.log.takeMessagesOnce(1);
        refuses = false;
        QCOMPARE(records.size(), 1);
        QVERIFY2(records.first().startsWith(u"Network error "_s) &&
                     records.first().endsWith(u" on connection to :0"_s),
                 qPrintable(records.first()));

        QTRY_COMPARE(deleted.count(), 1);

        // The next one is told of everything, and nothing is written to the first.
        ScriptedApplication application(server.applicationPort());
        QCOMPARE(server.log.takeMessagesOnce(1), QStringList{u"Application connected from 127.0.0.1"_s});
        ScriptedRadio radio(server.registrationPort(), 1);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        QVERIFY(application.sees(radio, QMR::Registered));
        QCOMPARE(server.log.takeMessages(), QStringList{radio.registeredText()});
        ::close(descriptor);
    }
};

QTEST_GUILESS_MAIN(TestUnreadyConnection)
#include "tst_unreadyconnection.moc"
