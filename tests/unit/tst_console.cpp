// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/console.h"

#include "tools/lookup.h"

#include <QTest>

#include <limits>

using namespace Qt::StringLiterals;

using namespace Console;

// In place of the tools' own, which asks the system's resolver.
Parsed<QHostAddress> Console::lookUp(const QString &name)
{
    return name == u"server.example" ? Parsed<QHostAddress>::of(QHostAddress(u"10.0.0.7"_s))
                                     : Parsed<QHostAddress>::failed(u"nobody knows %1"_s.arg(name));
}

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
              [](quint64 value) { return QString::number(value); }, u"'%1' is not a number from 5 to 10"_s);
    }

    void portIsFrom1To65535_data()
    {
        rows({{"1", "1"}, {"65535", "65535"}, {"0", ""}, {"65536", ""}, {"-1", ""}, {"http", ""}});
    }
    void portIsFrom1To65535()
    {
        check(
            parsePort, [](quint16 port) { return QString::number(port); },
            u"'%1' is not a port (1 to 65535)"_s);
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
            u"'%1' is not an IPv4 address"_s);
    }

    void endpointHasADefaultPort()
    {
        QCOMPARE((*parseEndpoint(u"10.0.0.1"_s)).text(), u"10.0.0.1:9361"_s);
        QCOMPARE((*parseEndpoint(u"10.0.0.1"_s, 7)).text(), u"10.0.0.1:7"_s);
        QCOMPARE((*parseEndpoint(u"10.0.0.1:80"_s)).text(), u"10.0.0.1:80"_s);
    }
    void endpointTellsWhichPartIsWrong()
    {
        QCOMPARE(parseEndpoint(u"10.0.0:80"_s).error,
                 u"'10.0.0' is neither an IPv4 address nor a host's name"_s);
        QCOMPARE(parseEndpoint(u"10.0.0.1:0"_s).error, u"'0' is not a port (1 to 65535)"_s);
        QCOMPARE(parseEndpoint(u"10.0.0.1:"_s).error, u"'' is not a port (1 to 65535)"_s);
        QCOMPARE(parseEndpoint(u"10.0.0.1:80:80"_s).error, u"'80:80' is not a port (1 to 65535)"_s);
    }

    void hostIsAnAddressOrAName_data()
    {
        const QString label(63, u'a');
        const QString part = label + u'.';
        const QString longest = part.repeated(3) + QString(61, u'b');
        rows({{"localhost", "localhost"},
              {"a", "a"},
              {"Server-1.Example", "Server-1.Example"},
              {"server_1", "server_1"},
              {"1st.example.", "1st.example."},
              {"10.0.0.a", "10.0.0.a"},
              {qPrintable(label), qPrintable(label)},
              {qPrintable(longest), qPrintable(longest)},
              {"10.0.0.1", "10.0.0.1"},
              {qPrintable(label + u'a'), ""},
              {qPrintable(longest + u'b'), ""},
              {"10.0.0", ""},
              {"10", ""},
              {"a.10", ""},
              {"a.0x7f", ""},
              {"0x7f000001", ""},
              {"0x7F.", ""},
              {"0x", ""},
              {"0x7g", "0x7g"},
              {"10.example", "10.example"},
              {"10.0.0.01", ""},
              {"", ""},
              {".", ""},
              {"a..b", ""},
              {".a", ""},
              {"-a", ""},
              {"a-", ""},
              {"a-.b", ""},
              {"a.-b", ""},
              {"a b", ""},
              {"a/b", ""},
              {"a\n", ""},
              {"ä", ""},
              {"[", ""}});
    }
    void hostIsAnAddressOrAName()
    {
        check([](const QString &text) { return parseEndpoint(text); },
              [](const Endpoint &endpoint) { return endpoint.host(); },
              u"'%1' is neither an IPv4 address nor a host's name"_s);
    }
    void nameIsLookedUpOnlyToBeResolved()
    {
        const Parsed<Endpoint> parsed = parseEndpoint(u"nowhere:80"_s);
        QVERIFY(parsed && (*parsed).address.isNull());
        QCOMPARE((*parsed).text(), u"nowhere:80"_s);
        QCOMPARE((*parseEndpoint(u"nowhere"_s, 7)).port, quint16{7});
        QCOMPARE((*parseHost(u"nowhere"_s)), u"nowhere"_s);
        QCOMPARE((*parseHost(u"10.0.0.1"_s)), u"10.0.0.1"_s);
        QCOMPARE(parseHost(u"10.0.0"_s).error, u"'10.0.0' is neither an IPv4 address nor a host's name"_s);

        QCOMPARE((*resolve(u"server.example"_s)).toString(), u"10.0.0.7"_s);
        QCOMPARE((*resolve(u"10.0.0.1"_s)).toString(), u"10.0.0.1"_s);
        QCOMPARE(resolve(u"nowhere"_s).error, u"nobody knows nowhere"_s);
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
            u"'%1' is not a number of seconds (0.001 to 31536000)"_s);
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
            u"'%1' is not an ESN (16 hexadecimal digits, or 8 pairs with ':' between)"_s);
    }

    void suidIsPackedMostSignificantFirst()
    {
        const QMR::Suid expected{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};
        QCOMPARE((*parseSuid(u"12345.678.9ABCDE"_s)).text(), expected.text());
        QVERIFY(*parseSuid(u"12345.678.9abcde"_s) == expected);
        QVERIFY(*parseSuid(u"12345/678/9ABCDE"_s) == expected); // as quillmere-watch shows it
        QVERIFY(*parseSuid(u"0.0.0"_s) == QMR::Suid{});
        QVERIFY(*parseSuid(u"FFFFF.FFF.FFFFFF"_s) == (QMR::Suid{{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}));
        QCOMPARE(suidText(expected), u"12345.678.9ABCDE"_s);
        QCOMPARE(suidText(QMR::Suid{{0, 0, 0x10, 0x02, 0, 0, 0x0F}}), u"00001.002.00000F"_s);
    }

    void suidTellsWhichFieldIsWrong_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("reason");
        const QString form = u"it is WACN.System.Unit, as in 12345.678.9ABCDE"_s;
        const QString wacn = u"the WACN is a hexadecimal number from 0 to FFFFF"_s;
        const QString system = u"the System is a hexadecimal number from 0 to FFF"_s;
        const QString unit = u"the Unit is a hexadecimal number from 0 to FFFFFF"_s;
        QTest::newRow("both notations") << u"12345.678/9ABCDE"_s << form;
        QTest::newRow("one field") << u"123456789ABCDE"_s << form;
        QTest::newRow("four fields") << u"1.2.3.4"_s << form;
        QTest::newRow("WACN 21 bits") << u"100000.1.1"_s << wacn;
        QTest::newRow("WACN 36 bits") << u"100000001.1.1"_s << wacn;
        QTest::newRow("System 13 bits") << u"1.1000.1"_s << system;
        QTest::newRow("System empty") << u"1..1"_s << system;
        QTest::newRow("Unit 25 bits") << u"1.1.1000000"_s << unit;
        QTest::newRow("Unit not hexadecimal") << u"1.1.-1"_s << unit;
    }
    void suidTellsWhichFieldIsWrong()
    {
        QFETCH(QString, text);
        QFETCH(QString, reason);
        QCOMPARE(parseSuid(text).error, u"'%1' is not a SUID: %2"_s.arg(text, reason));
    }
};

QTEST_APPLESS_MAIN(TestConsole)
#include "tst_console.moc"
