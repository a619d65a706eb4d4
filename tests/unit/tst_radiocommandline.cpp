// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/lookup.h"
#include "tools/radio/commandline.h"
#include "tools/radio/fleetmembers.h"

#include <QTest>

using namespace Qt::StringLiterals;

using RadioTool::Command;
using RadioTool::CommandLine;
using RadioTool::Settings;

// In place of the tools' own, which asks the system's resolver.
Console::Parsed<QHostAddress> Console::lookUp(const QString &name)
{
    return name == u"radio-5"_s ? Parsed<QHostAddress>::of(QHostAddress(u"10.0.0.5"_s))
                                : Parsed<QHostAddress>::failed(u"nobody knows %1"_s.arg(name));
}

class TestRadioCommandLine : public QObject
{
    Q_OBJECT

    static CommandLine parse(const char *line)
    {
        return RadioTool::parse(QString::fromUtf8(line).split(u' ', Qt::SkipEmptyParts));
    }
    static Settings accepted(const char *line)
    {
        const CommandLine result = parse(line);
        if (result.kind != CommandLine::Kind::Run) {
            qWarning("%s: %s", line, qPrintable(result.text));
        }
        return result.settings;
    }

private slots:
    void initTestCase() { Console::introduce(u"quillmere-radio"_s, "1.2.3"); }

    void registerHasDefaults()
    {
        const Settings settings = accepted("register --suid 12345.678.9ABCDE");
        QCOMPARE(settings.command, Command::Register);
        QCOMPARE(settings.server.text(), u"127.0.0.1:9361"_s);
        QVERIFY(settings.radio.esn.isZero());
        QCOMPARE(int{settings.radio.protocolVersion}, 3);
        QVERIFY(settings.radio.services.empty());
        QVERIFY(!settings.radio.pending && !settings.radio.basic && !settings.json && !settings.stay);
        QVERIFY(!settings.from && !settings.listenPort);
        QCOMPARE(settings.timeout, 2000);
        QCOMPARE(settings.retries, 0U);
    }

    void registerTakesEverything()
    {
        const Settings settings =
            accepted("register --server 10.0.0.1:99 --esn 00:11:AA:BB:22:CC:33:DD --suid 12345.678.9ABCDE "
                     "--services 1,3,255,0 --protocol 3 --pending --from 127.0.0.2 --stay 2.5 "
                     "--listen-port 77 --timeout 300 --retries 2 --json");
        QCOMPARE(settings.server.text(), u"10.0.0.1:99"_s);
        QCOMPARE(settings.radio.esn.text(), u"0011AABB22CC33DD"_s);
        QCOMPARE(settings.radio.suid.unit(), 0x9ABCDEU);
        QVERIFY((settings.radio.services == QMR::ServiceList{1, 3, 255, 0}));
        QVERIFY(settings.radio.pending && settings.json && settings.stay);
        QCOMPARE(settings.from->toString(), u"127.0.0.2"_s);
        QCOMPARE(settings.stayTime, 2500);
        QCOMPARE(*settings.listenPort, quint16{77});
        QCOMPARE(settings.timeout, 300);
        QCOMPARE(settings.retries, 2U);
    }

    void basicRegistrationIsOfProtocol1UnlessAsked()
    {
        QCOMPARE(int{accepted("register --basic --esn 0011AABB22CC33DD").radio.protocolVersion}, 1);
        QCOMPARE(int{accepted("register --basic --esn 0011AABB22CC33DD --protocol 3").radio.protocolVersion},
                 3);
    }

    void stayNeedsNoTime()
    {
        const Settings settings = accepted("register --suid 1.1.1 --stay --json");
        QVERIFY(settings.stay && settings.json);
        QCOMPARE(settings.stayTime, 0);
        QVERIFY(accepted("register --suid 1.1.1 --stay").stay);
    }

    void deregisterIsByEsnOrByAddress()
    {
        QCOMPARE(accepted("deregister --esn 0011AABB22CC33DD").radio.esn.text(), u"0011AABB22CC33DD"_s);
        QVERIFY(accepted("deregister --by-address").radio.esn.isZero());
    }

    void listenHasThePortOfTheServer()
    {
        QCOMPARE(*accepted("listen").listenPort, quint16{9361});
        const Settings settings = accepted("listen --from 127.0.0.2 --listen-port 5 --count 3 --stay 1");
        QCOMPARE(*settings.listenPort, quint16{5});
        QCOMPARE(settings.messages, 3U);
    }

    void fleetHasARadioAnAddress()
    {
        const Settings settings = accepted("fleet --addresses 127.1.0.1-127.1.3.232 --rate 0.5");
        QCOMPARE(settings.fleet.count, 1000U);
        QCOMPARE(settings.fleet.addressCount, 1000U);
        QCOMPARE(settings.fleet.rounds, 1U);
        QCOMPARE(settings.fleet.rate, 0.5);
        QCOMPARE(settings.retries, 3U);
        QCOMPARE(accepted("fleet --retries 0").retries, 0U);
        QCOMPARE(accepted("fleet --addresses 127.0.0.2-127.15.66.65").fleet.count, 1'000'000U);
        QCOMPARE(accepted("fleet").fleet.count, 1U);
        QCOMPARE(accepted("fleet --duration 2").fleet.rounds, 0U);
        QCOMPARE(accepted("fleet --duration 2 --rounds 3").fleet.rounds, 3U);
        QCOMPARE(accepted("fleet --addresses 127.0.0.9 --count 5 --share-addresses").fleet.count, 5U);
    }

    void fleetMembersCountUp()
    {
        RadioTool::Identity first;
        first.esn.bytes = {0, 0, 0, 0, 0, 0, 0, 0xFF};
        first.suid.bytes = {0x12, 0x34, 0x56, 0x78, 0, 0xFF, 0xFF};
        const RadioTool::Identity second = RadioTool::fleetMember(first, 0, 1);
        QCOMPARE(second.esn.text(), u"0000000000000100"_s);
        QCOMPARE(second.suid.text(), u"{WACN: 0x12345, System: 0x678, Unit: 0x10000}"_s);
        QVERIFY(!second.pending);
    }

    void pendingMembersAreTheirShare_data()
    {
        QTest::addColumn<quint32>("percent");
        for (const quint32 percent : {0U, 1U, 33U, 50U, 99U, 100U}) {
            QTest::addRow("%u", percent) << percent;
        }
    }
    void pendingMembersAreTheirShare()
    {
        QFETCH(quint32, percent);
        quint32 pending = 0;
        for (quint32 i = 0; i < 1000; ++i) {
            pending += RadioTool::fleetMember({}, percent, i).pending ? 1 : 0;
        }
        QCOMPARE(pending, percent * 10);
    }

    void helpAndVersionArePrinted_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("part");
        const auto row = [](const char *line, const char *part) {
            QTest::newRow(line) << QString::fromLatin1(line) << QString::fromLatin1(part);
        };
        row("--help", "Usage: quillmere-radio COMMAND [options]");
        row("-h", "Exit codes: 0 all acknowledged");
        row("--version", "quillmere-radio 1.2.3");
        row("-v", "quillmere-radio 1.2.3");
        row("register --help", "--suid <WACN.SYSTEM.UNIT>");
        row("deregister --help", "--by-address");
        row("listen --help", "--count <N>");
        row("fleet --help", "--addresses <FIRST[-LAST]>");
    }
    void helpAndVersionArePrinted()
    {
        QFETCH(QString, line);
        QFETCH(QString, part);
        const CommandLine result = parse(line.toLatin1().constData());
        QCOMPARE(result.kind, CommandLine::Kind::Print);
        QVERIFY2(result.text.contains(part), qPrintable(result.text));
    }

    void namesAreLookedUp()
    {
        const Settings settings = accepted("register --suid 1.1.1 --server radio-5:99 --from radio-5");
        QCOMPARE(settings.server.text(), u"radio-5:99"_s);
        QCOMPARE(settings.server.address.toString(), u"10.0.0.5"_s);
        QCOMPARE(settings.from->toString(), u"10.0.0.5"_s);
    }
    void unknownNameIsNoWrongUsage()
    {
        const auto fails = [](const char *line, const QString &error) {
            const CommandLine result = parse(line);
            QCOMPARE(result.kind, CommandLine::Kind::Failure);
            QCOMPARE(result.text, error);
        };
        fails("register --suid 1.1.1 --server nowhere", u"--server: nobody knows nowhere"_s);
        fails("register --suid 1.1.1 --from nowhere", u"--from: nobody knows nowhere"_s);
        // Wrong usage is told before anything is looked up.
        for (const char *line :
             {"register --suid 1.1.1 --server nowhere --timeout x", "register --server nowhere"}) {
            QCOMPARE(parse(line).kind, CommandLine::Kind::Error);
        }
    }

    void badInputIsRefused_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("error");
        const auto row = [](const char *line, const char *error) {
            QTest::newRow(*line == '\0' ? "nothing" : line)
                << QString::fromUtf8(line) << QString::fromUtf8(error);
        };
        row("", "no command (register, deregister, listen or fleet)");
        row("enrol", "'enrol' is not a command (register, deregister, listen or fleet)");
        row("register", "register needs --suid (or --basic and --esn)");
        row("register --suid 1.1.1 --colour red", "Unknown option 'colour'.");
        row("register --suid 1.1.1 extra", "unexpected argument 'extra'");
        row("register --suid", "Missing value after '--suid'.");
        row("register --suid 1.1.1 --suid 1.1.2", "--suid is given more than once");
        row("register --suid 1.1",
            "--suid: '1.1' is not a SUID: it is WACN.System.Unit, as in 12345.678.9ABCDE");
        row("register --suid 1.1.1 --esn 0011",
            "--esn: '0011' is not an ESN (16 hexadecimal digits, or 8 pairs with ':' between)");
        row("register --suid 1.1.1 --server localhost?",
            "--server: 'localhost?' is neither an IPv4 address nor a host's name");
        row("register --suid 1.1.1 --server 1.2.3.4:0", "--server: '0' is not a port (1 to 65535)");
        row("register --suid 1.1.1 --server 0.0.0.0", "--server: 0.0.0.0 is not an address of a server");
        row("register --suid 1.1.1 --from 0.0.0.0", "--from: 0.0.0.0 is not an address of a radio");
        row("register --suid 1.1.1 --from ::1", "--from: '::1' is neither an IPv4 address nor a host's name");
        row("register --suid 1.1.1 --services 1,,2",
            "--services: '' is not a service code (0 to 255, with ',' between)");
        row("register --suid 1.1.1 --services 256",
            "--services: '256' is not a service code (0 to 255, with ',' between)");
        row("register --suid 1.1.1 --protocol 4", "--protocol: '4' is not a number from 1 to 3");
        row("register --suid 1.1.1 --protocol 1", "--protocol 1 has only basic registrations; add --basic");
        row("register --suid 1.1.1 --protocol 2 --pending", "--pending needs --protocol 3");
        row("register --basic", "a basic registration needs --esn");
        row("register --basic --esn 0011AABB22CC33DD --suid 1.1.1",
            "a basic registration carries no SUID; leave --suid out");
        row("register --basic --esn 0011AABB22CC33DD --pending", "a basic registration cannot be pending");
        row("register --suid 1.1.1 --timeout 0", "--timeout: '0' is not a number from 1 to 3600000");
        row("register --suid 1.1.1 --retries -1", "--retries: '-1' is not a number from 0 to 100");
        row("register --suid 1.1.1 --stay soon",
            "--stay: 'soon' is not a number of seconds (0.001 to 31536000)");
        row("register --suid 1.1.1 --listen-port 0 --stay", "--listen-port: '0' is not a port (1 to 65535)");
        row("register --suid 1.1.1 --listen-port 5", "--listen-port needs --stay");
        row("deregister", "deregister needs either --esn or --by-address");
        row("deregister --by-address --esn 0011AABB22CC33DD",
            "deregister needs either --esn or --by-address");
        row("deregister --esn 0000000000000000", "--esn: an ESN of zeros stands for none; use --by-address");
        row("deregister --by-address --suid 1.1.1", "Unknown option 'suid'.");
        row("listen --count 0", "--count: '0' is not a number from 1 to 4294967295");
        row("listen --server 1.2.3.4", "Unknown option 'server'.");
        row("fleet --count 0", "--count: '0' is not a number from 1 to 16777216");
        row("fleet --rate 0", "--rate: '0' is not a rate (0.001 to 1000000 a second)");
        row("fleet --rate 1000001", "--rate: '1000001' is not a rate (0.001 to 1000000 a second)");
        row("fleet --rate -5", "--rate: '-5' is not a rate (0.001 to 1000000 a second)");
        row("fleet --duration 0", "--duration: '0' is not a number of seconds (0.001 to 31536000)");
        row("fleet --rounds 0", "--rounds: '0' is not a number from 1 to 4294967295");
        row("fleet --window 0", "--window: '0' is not a number from 1 to 65536");
        row("fleet --pending 101", "--pending: '101' is not a number from 0 to 100");
        row("fleet --addresses 127.0.0.9-127.0.0.1",
            "--addresses: '127.0.0.9-127.0.0.1' ends before it begins");
        row("fleet --addresses 127.0.0.1-128.0.0.1",
            "--addresses: '127.0.0.1-128.0.0.1' has 16777217 addresses (16777216 at most)");
        row("fleet --addresses 127.0.0.1-", "--addresses: '' is not an IPv4 address");
        row("fleet --count 3 --addresses 127.0.0.1-127.0.0.2",
            "3 radios need as many --addresses, not 2: the server keeps one radio an address (or give "
            "--share-addresses)");
        row("fleet --esn 0000000000000000", "--esn: a fleet's first ESN cannot be zero");
        row("fleet --esn FFFFFFFFFFFFFFFF --addresses 127.0.0.1-127.0.0.2",
            "--esn: there are not 2 ESNs from there on");
        row("fleet --suid 1.1.FFFFFF --addresses 127.0.0.1-127.0.0.2",
            "--suid: there are not 2 unit numbers from there on");
        row("fleet --basic --pending 5", "a basic registration cannot be pending");
        row("fleet --protocol 2 --pending 5", "--pending needs --protocol 3");
    }
    void badInputIsRefused()
    {
        QFETCH(QString, line);
        QFETCH(QString, error);
        const CommandLine result = parse(line.toUtf8().constData());
        QCOMPARE(result.text, error);
        QCOMPARE(result.kind, CommandLine::Kind::Error);
    }

    void moreThan255ServicesAreTooMany()
    {
        const QStringList codes(256, u"1"_s);
        const auto parseServices = [](const QStringList &list) {
            return RadioTool::parse(
                {u"register"_s, u"--suid"_s, u"1.1.1"_s, u"--services"_s, list.join(u',')});
        };
        QCOMPARE(parseServices(codes).text, u"--services: 256 services are too many (255 at most)"_s);
        QCOMPARE(parseServices(codes.mid(1)).settings.radio.services.size(), size_t{255});
    }
};

QTEST_GUILESS_MAIN(TestRadioCommandLine)
#include "tst_radiocommandline.moc"
