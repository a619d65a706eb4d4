// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/registrationscene.h"
#include "tests/system/interposing.h"

#include <QTest>

#include <sys/socket.h>

#include <cerrno>

using namespace Qt::StringLiterals;

namespace {

int readsToFail = 0;

} // namespace

// Stands in for the C library's, in Qt too.
extern "C" ssize_t recvmsg(int descriptor, msghdr *message, int flags)
{
    static const auto real = NEXT(recvmsg);
    // A look without taking is no read.
    if (readsToFail > 0 && (flags & MSG_PEEK) == 0) {
        --readsToFail;
        errno = ENOMEM;
        return -1;
    }
    return real(descriptor, message, flags);
}

// The system says that a datagram waits, and then does not give it.
class TestFailedRead : public QObject
{
    Q_OBJECT

private slots:
    void isABadDatagramAndNotTheOneBefore()
    {
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01);
        radio.registers(QByteArray(255, '\1')); // as long as a message can be
        QVERIFY(radio.isAcknowledged());
        scene.settle();
        readsToFail = 3;
        radio.deregisters();
        QTRY_COMPARE(readsToFail, 0);
        const QString invalid = u"QMRS Protocol error: invalid message received (1)"_s;
        QCOMPARE(scene.settle().log, (QStringList{invalid, invalid, invalid, radio.deregisteredText()}));
        QVERIFY(!radio.hasReceived());
    }
};

QTEST_GUILESS_MAIN(TestFailedRead)
#include "tst_failedread.moc"
