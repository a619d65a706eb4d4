// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/quillmere.h"
#include "tests/support/testserver.h"

#include <QTest>
#include <QUdpSocket>

using namespace Qt::StringLiterals;

// Linux gives a port to two sockets if both agree to share it, and each datagram to one of them. On Windows
// the system's default is to share.
class TestSharedPort : public QObject
{
    Q_OBJECT

private slots:
    void theRegistrationPortIsNotShared()
    {
        TestServer server;
        QUdpSocket squatter;
        QVERIFY(squatter.bind(server.registrationPort(), QAbstractSocket::ShareAddress));
        server->start();
        QCOMPARE(server.log.count(u"Unable to bind registration socket"_s), 1);
    }
};

QTEST_GUILESS_MAIN(TestSharedPort)
#include "tst_sharedport.moc"
