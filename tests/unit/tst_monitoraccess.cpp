// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/monitor/access.h"

#include <QTest>

using namespace Qt::StringLiterals;
using Monitor::Access;

class TestMonitorAccess : public QObject
{
    Q_OBJECT

private slots:
    void everybodyIsAdmittedWithoutAList()
    {
        const Access access;
        QVERIFY(access.admits(QHostAddress(u"10.0.0.1"_s)));
        QVERIFY(access.knows({}));
    }
    void admitsItsNetworksOnly()
    {
        const Access access(
            {*Access::parseNetwork(u"10.1.0.0/16"_s), *Access::parseNetwork(u"192.168.0.5"_s)}, {});
        QVERIFY(access.admits(QHostAddress(u"10.1.255.255"_s)));
        QVERIFY(!access.admits(QHostAddress(u"10.2.0.0"_s)));
        QVERIFY(access.admits(QHostAddress(u"192.168.0.5"_s)));
        QVERIFY(!access.admits(QHostAddress(u"192.168.0.6"_s)));
        QVERIFY(access.admits(QHostAddress(u"::ffff:10.1.2.3"_s)));
        QVERIFY(!access.admits(QHostAddress(u"fe80::1"_s)));
        const Access all({*Access::parseNetwork(u"0.0.0.0/0"_s)}, {});
        QVERIFY(all.admits(QHostAddress(u"10.2.0.0"_s)));
    }
    void networksAreReadStrictly()
    {
        for (const auto &text : {u""_s, u"10.0.0"_s, u"10.0.0.0/"_s, u"10.0.0.0/33"_s, u"10.0.0.0/-1"_s,
                                 u"name"_s, u"10.0.0.0/8/8"_s, u" 10.0.0.1"_s}) {
            const auto parsed = Access::parseNetwork(text);
            QVERIFY2(!parsed, qPrintable(text));
            QCOMPARE(parsed.error, u"'%1' is neither an IPv4 address nor a network"_s.arg(text));
        }
    }

    void knowsItsLogins()
    {
        const auto logins =
            Access::parseLogins("# who may look\r\n\nann:se:cret\r\nbob:\xC3\xA4 b\n", u"f"_s);
        QVERIFY2(logins, qPrintable(logins.error));
        const Access access({}, *logins);
        const auto basic = [](const QByteArray &login) { return QByteArray("Basic " + login.toBase64()); };
        QVERIFY(access.knows(basic("ann:se:cret")));
        QVERIFY(access.knows(basic("bob:\xC3\xA4 b")));
        QVERIFY(access.knows("bAsIc  " + "ann:se:cret"_ba.toBase64()));
        for (const QByteArray &wrong : {""_ba, "ann:secret"_ba, "ann"_ba, "ann:"_ba, "bob:se:cret"_ba,
                                        "Ann:se:cret"_ba, "ann:se:cret "_ba, "# who may look"_ba}) {
            QVERIFY2(!access.knows(basic(wrong)), wrong.constData());
        }
        for (const QByteArray &wrong :
             {""_ba, "Basic"_ba, "Basic !!!"_ba, "Bearer YW5uOnNlOmNyZXQ="_ba, "ann:se:cret"_ba}) {
            QVERIFY2(!access.knows(wrong), wrong.constData());
        }
    }
    void loginFilesAreReadStrictly_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QString>("error");
        QTest::newRow("empty") << ""_ba << u"users: it names nobody"_s;
        QTest::newRow("comment") << "# nobody\n \n"_ba << u"users: it names nobody"_s;
        QTest::newRow("no colon") << "ann:a\nbob\n"_ba << u"users: line 2 is not NAME:PASSWORD"_s;
        QTest::newRow("no name") << ":a\n"_ba << u"users: line 1 is not NAME:PASSWORD"_s;
        QTest::newRow("no password") << "ann:\n"_ba << u"users: line 1 is not NAME:PASSWORD"_s;
    }
    void loginFilesAreReadStrictly()
    {
        QFETCH(QByteArray, content);
        QFETCH(QString, error);
        const auto parsed = Access::parseLogins(content, u"users"_s);
        QVERIFY(!parsed);
        QCOMPARE(parsed.error, error);
    }
};

QTEST_APPLESS_MAIN(TestMonitorAccess)
#include "tst_monitoraccess.moc"
