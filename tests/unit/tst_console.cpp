// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/console.h"

#include <QTest>

#include <limits>

using namespace Console;

// Each row: a text, and the value's own text; empty for a text that is refused.
class TestConsole : public QObject
{
    Q_OBJECT

    static void rows(std::initializer_list<std::pair<const char *, const char *>> list)
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("value");
        for (const auto &[text, value] : list) {
            QTest::newRow(*text == '\0' ? "empty" : text)
                << QString::fromUtf8(text) << QString::fromUtf8(value);
        }
    }

    template<class Parser, class Text>
    static void check(const Parser &parser, const Text &valueText, const QString &expectedError)
    {
        QFETCH(QString, text);
        QFETCH(QString, value);
        const auto parsed = parser(text);
        QCOMPARE(parsed ? valueText(*parsed) : QString(), value);
        QCOMPARE(parsed.error, parsed ? QString() : expectedError.arg(text));
    }

private slots:
    void numberHasOnlyDigitsAndIsInRange_data()
    {
        rows({{"5", "5"},
              {"10", "10"},
              {"010", "10"},
              {"4", ""},
              {"11", ""},
              {"", ""},
              {"+5", ""},
              {"-5", ""},
              {" 5", ""},
              {"5 ", ""},
              {"5\n", ""},
              {"0x5", ""},
              {"5.0", ""},
              {"٥", ""},
              {"18446744073709551621", ""}});
    }
    void numberHasOnlyDigitsAndIsInRange()
    {
        check([](const QString &text) { return parseNumber(text, 5, 10); },
              [](quint64 value) { return QString::number(value); },
              QStringLiteral("'%1' is not a number from 5 to 10"));
    }

    void portIsFrom1To65535_data()
    {
        rows({{"1", "1"}, {"65535", "65535"}, {"0", ""}, {"65536", ""}, {"-1", ""}, {"http", ""}});
    }
    void portIsFrom1To65535()
    {
        check(
            parsePort, [](quint16 port) { return QString::number(port); },
            QStringLiteral("'%1' is not a port (1 to 65535)"));
    }

    void addressIsADottedQuad_data()
    {
        rows({{"127.0.0.1", "127.0.0.1"},
              {"0.0.0.0", "0.0.0.0"},
              {"255.255.255.255", "255.255.255.255"},
              {"127.1", ""},
              {"127.0.0.256", ""},
              {"127.0.0.01", ""},
              {"0x7f.0.0.1", ""},
              {"1.2.3.4.5", ""},
              {"1.2.3.", ""},
              {"::1", ""},
              {"localhost", ""},
              {"", ""}});
    }
    void addressIsADottedQuad()
    {
        check(
            parseAddress, [](const QHostAddress &address) { return address.toString(); },
            QStringLiteral("'%1' is not an IPv4 address"));
    }

    void endpointHasADefaultPort()
    {
        QCOMPARE((*parseEndpoint(QStringLiteral("10.0.0.1"))).text(), QStringLiteral("10.0.0.1:9361"));
        QCOMPARE((*parseEndpoint(QStringLiteral("10.0.0.1"), 7)).text(), QStringLiteral("10.0.0.1:7"));
        QCOMPARE((*parseEndpoint(QStringLiteral("10.0.0.1:80"))).text(), QStringLiteral("10.0.0.1:80"));
    }
    void endpointTellsWhichPartIsWrong()
    {
        QCOMPARE(parseEndpoint(QStringLiteral("10.0.0:80")).error,
                 QStringLiteral("'10.0.0' is not an IPv4 address"));
        QCOMPARE(parseEndpoint(QStringLiteral("10.0.0.1:0")).error,
                 QStringLiteral("'0' is not a port (1 to 65535)"));
        QCOMPARE(parseEndpoint(QStringLiteral("10.0.0.1:")).error,
                 QStringLiteral("'' is not a port (1 to 65535)"));
        QCOMPARE(parseEndpoint(QStringLiteral("10.0.0.1:80:80")).error,
                 QStringLiteral("'80:80' is not a port (1 to 65535)"));
    }

    void secondsAreMilliseconds_data()
    {
        rows({{"1", "1000"},
              {"2.5", "2500"},
              {"0.001", "1"},
              {"0.05", "50"},
              {"31536000", "31536000000"},
              {"31536000.001", ""},
              {"0", ""},
              {"0.000", ""},
              {"0.0001", ""},
              {"-1", ""},
              {"1e3", ""},
              {"1,5", ""},
              {".5", ""},
              {"5.", ""},
              {"nan", ""},
              {"", ""}});
    }
    void secondsAreMilliseconds()
    {
        check(
            parseSeconds, [](qint64 value) { return QString::number(value); },
            QStringLiteral("'%1' is not a number of seconds (0.001 to 31536000)"));
    }

    void esnIs16DigitsOr8Pairs_data()
    {
        rows({{"0011AABB22CC33DD", "0011AABB22CC33DD"},
              {"0011aabb22cc33dd", "0011AABB22CC33DD"},
              {"00:11:AA:BB:22:CC:33:DD", "0011AABB22CC33DD"},
              {"0000000000000000", "0000000000000000"},
              {"0011AABB22CC33D", ""},
              {"0011AABB22CC33DDE", ""},
              {"0011AABB22CC33DG", ""},
              {"00:11:AA:BB:22:CC:33DD", ""},
              {"00:11:AA:BB:22:CC:33:DD:", ""},
              {"0:011:AA:BB:22:CC:33:DD", ""},
              {"", ""}});
    }
    void esnIs16DigitsOr8Pairs()
    {
        check(
            parseEsn, [](const QMR::Esn &esn) { return esn.text(); },
            QStringLiteral("'%1' is not an ESN (16 hexadecimal digits, or 8 pairs with ':' between)"));
    }

    void suidIsPackedMostSignificantFirst()
    {
        const QMR::Suid expected{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};
        QCOMPARE((*parseSuid(QStringLiteral("12345.678.9ABCDE"))).text(), expected.text());
        QVERIFY(*parseSuid(QStringLiteral("12345.678.9abcde")) == expected);
        QVERIFY(*parseSuid(QStringLiteral("0.0.0")) == QMR::Suid{});
        QVERIFY(*parseSuid(QStringLiteral("FFFFF.FFF.FFFFFF")) ==
                (QMR::Suid{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}));
        QCOMPARE(suidText(expected), QStringLiteral("12345.678.9ABCDE"));
        QCOMPARE(suidText(QMR::Suid{{0, 0, 0x10, 0x02, 0, 0, 0x0F}}), QStringLiteral("00001.002.00000F"));
    }

    void suidTellsWhichFieldIsWrong_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reason");
        const QString form = QStringLiteral("it is WACN.System.Unit, as in 12345.678.9ABCDE");
        const QString wacn = QStringLiteral("the WACN is a hexadecimal number from 0 to FFFFF");
        const QString system = QStringLiteral("the System is a hexadecimal number from 0 to FFF");
        const QString unit = QStringLiteral("the Unit is a hexadecimal number from 0 to FFFFFF");
        QTest::newRow("one field") << QStringLiteral("123456789ABCDE") << form;
        QTest::newRow("four fields") << QStringLiteral("1.2.3.4") << form;
        QTest::newRow("WACN 21 bits") << QStringLiteral("100000.1.1") << wacn;
        QTest::newRow("WACN 36 bits") << QStringLiteral("100000001.1.1") << wacn;
        QTest::newRow("System 13 bits") << QStringLiteral("1.1000.1") << system;
        QTest::newRow("System empty") << QStringLiteral("1..1") << system;
        QTest::newRow("Unit 25 bits") << QStringLiteral("1.1.1000000") << unit;
        QTest::newRow("Unit not hexadecimal") << QStringLiteral("1.1.-1") << unit;
    }
    void suidTellsWhichFieldIsWrong()
    {
        QFETCH(QString, text);
        QFETCH(QString, reason);
        QCOMPARE(parseSuid(text).error, QStringLiteral("'%1' is not a SUID: %2").arg(text, reason));
    }
};

QTEST_APPLESS_MAIN(TestConsole)
#include "tst_console.moc"
