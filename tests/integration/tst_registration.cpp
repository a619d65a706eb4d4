// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/registrationscene.h"

#include <QTest>

#include <functional>

using namespace Qt::StringLiterals;

namespace {

// What the radio of serial 01 does.
using Step = std::function<void(ScriptedRadio &)>;
using Steps = QList<Step>;

constexpr int NoAcknowledgement = -1;

const QString Here = u"127.0.0.2"_s;
const QString There = u"127.0.0.3"_s;
const QString Elsewhere = u"127.0.0.4"_s;

Step at(const QString &address, const Step &step, quint8 version = 3)
{
    return [=](ScriptedRadio &radio) {
        radio.protocolVersion = version;
        if (radio.address() != QHostAddress(address)) {
            radio.movesTo(address);
        }
        step(radio);
    };
}

Step confirms(const char *services = "0103", quint8 unit = 1)
{
    return [=](ScriptedRadio &radio) {
        radio.suid.bytes[6] = unit;
        radio.registers(QByteArray::fromHex(services));
    };
}

Step pends(const char *services = "0103", quint8 unit = 1)
{
    return [=](ScriptedRadio &radio) {
        radio.suid.bytes[6] = unit;
        radio.registersPending(QByteArray::fromHex(services));
    };
}

Step registersBasic(const char *services = "0103")
{
    return [=](ScriptedRadio &radio) { radio.registersBasic(QByteArray::fromHex(services)); };
}

const Step Leaves = [](ScriptedRadio &radio) { radio.deregisters(); };
const Step LeavesByAddress = [](ScriptedRadio &radio) { radio.deregistersByAddress(); };

const QString Suid1 = u"{WACN: 0x12345, System: 0x678, Unit: 0x9ABC01}"_s;
const QString Suid2 = u"{WACN: 0x12345, System: 0x678, Unit: 0x9ABC02}"_s;
const QString NoSuid = u"{WACN: 0x0, System: 0x0, Unit: 0x0}"_s;

QStringList registered(const QString &address, const QString &suid = Suid1)
{
    return {registeredText(u"01"_s, suid, address)};
}

QStringList deregistered(const QString &address, const QString &suid = Suid1)
{
    return {deregisteredText(u"01"_s, suid, address)};
}

QStringList unexpected(const QString &address)
{
    return {u"Radio 0011AABB22CC3301 deregistered from unexpected address %1 [ignored]"_s.arg(address)};
}

} // namespace

// Every transition of one radio's two registrations: what is logged, announced, answered, known and stored
// ten seconds after all that was given.
class TestRegistration : public QObject
{
    Q_OBJECT

private slots:
    void transition_data()
    {
        QTest::addColumn<Steps>("given");
        QTest::addColumn<Step>("step");
        QTest::addColumn<QStringList>("log");
        QTest::addColumn<QString>("notice"); // empty: none
        QTest::addColumn<int>("acknowledgedVersion");
        QTest::addColumn<QString>("known");
        QTest::addColumn<QString>("stored"); // empty: no row

        confirmedRows();
        pendingRows();
        bothRows();
        deregistrationRows();
        byAddressRows();
    }

    void transition()
    {
        QFETCH(Steps, given);
        QFETCH(Step, step);
        QFETCH(QString, notice);
        QFETCH(int, acknowledgedVersion);
        QFETCH(QString, stored);
        RegistrationScene scene;
        ScriptedRadio radio(scene.server.registrationPort(), 0x01, Here);
        for (const Step &before : given) {
            before(radio);
            scene.settle();
            while (radio.hasReceived()) {
                radio.receives();
            }
        }
        scene.server.clock.advance(10);

        step(radio);
        if (acknowledgedVersion != NoAcknowledgement) {
            QVERIFY(radio.isAcknowledged(acknowledgedVersion));
        }
        const RegistrationScene::Outcome outcome = scene.settle();

        QVERIFY(!radio.hasReceived());
        QTEST(outcome.log, "log");
        QCOMPARE(outcome.notices, notice.isEmpty() ? QStringList() : QStringList{u"01: " + notice});
        QTEST(scene.known(radio.esn), "known");
        QCOMPARE(scene.stored(), stored.isEmpty() ? QStringList() : QStringList{u"01: " + stored});
    }

    void everyRecordIsInformationWithoutData()
    {
        TestServer server;
        server.start();
        ScriptedRadio radio(server.registrationPort(), 0x01);
        radio.registers();
        QVERIFY(radio.isAcknowledged());
        radio.registersPending();
        QVERIFY(radio.isAcknowledged());
        radio.deregisters();
        radio.deregisters();
        radio.deregisters();
        QTRY_COMPARE(server.log.records().size(), 5);
        for (const LogRecord &record : server.log.records()) {
            QCOMPARE(record, RecordingLog::record(Scm::EventInformation, record.message));
        }
    }

private:
    static void row(const char *name, const Steps &given, const Step &step, const QStringList &log,
                    const char *notice, int acknowledgedVersion, const char *known, const char *stored)
    {
        QTest::newRow(name) << given << step << log << QString::fromLatin1(notice) << acknowledgedVersion
                            << QString::fromLatin1(known) << QString::fromLatin1(stored);
    }

    static void confirmedRows()
    {
        row("new, confirmed", {}, at(Here, confirms()), registered(Here),
            "confirmed 127.0.0.2 suid 123456789ABC01 services 1,3 state 3", 3,
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3 heard 10");
        row("new, confirmed, version 2", {}, at(Here, confirms("02"), 2), registered(Here),
            "confirmed 127.0.0.2 suid 123456789ABC01 services 2 state 3", 2,
            "127.0.0.2 suid 123456789ABC01 services 2 version 2 state 3",
            "127.0.0.2 suid 123456789ABC01 services 2 version 2 state 3 heard 10");
        row("new, basic, in a version 3 header", {}, at(Here, registersBasic("0202")),
            registered(Here, NoSuid), "confirmed 127.0.0.2 suid 00000000000000 services 2,2 state 3", 1,
            "127.0.0.2 suid 00000000000000 services 2,2 version 1 state 3",
            "127.0.0.2 suid 00000000000000 services 2,2 version 1 state 3 heard 10");
        row("new, the pending byte of version 2 is ignored", {}, at(Here, pends(""), 2), registered(Here),
            "confirmed 127.0.0.2 suid 123456789ABC01 services  state 3", 2,
            "127.0.0.2 suid 123456789ABC01 services  version 2 state 3",
            "127.0.0.2 suid 123456789ABC01 services  version 2 state 3 heard 10");
        row("confirmed again, unchanged", {at(Here, confirms())}, at(Here, confirms()), registered(Here),
            "confirmed 127.0.0.2 suid 123456789ABC01 services 1,3 state 3", 3,
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3 heard 10");
        row("confirmed again, all changed", {at(Here, confirms())}, at(There, confirms("030102", 2), 2),
            registered(There, Suid2), "confirmed 127.0.0.3 suid 123456789ABC02 services 3,1,2 state 3", 2,
            "127.0.0.3 suid 123456789ABC02 services 3,1,2 version 2 state 3",
            "127.0.0.3 suid 123456789ABC02 services 3,1,2 version 2 state 3 heard 10");
        row("confirmed again, now basic", {at(Here, confirms())}, at(Here, registersBasic("")),
            registered(Here, NoSuid), "confirmed 127.0.0.2 suid 00000000000000 services  state 3", 1,
            "127.0.0.2 suid 00000000000000 services  version 1 state 3",
            "127.0.0.2 suid 00000000000000 services  version 1 state 3 heard 10");
        row("new again after it left", {at(Here, confirms()), at(Here, Leaves)}, at(There, confirms("02")),
            registered(There), "confirmed 127.0.0.3 suid 123456789ABC01 services 2 state 3", 3,
            "127.0.0.3 suid 123456789ABC01 services 2 version 3 state 3",
            "127.0.0.3 suid 123456789ABC01 services 2 version 3 state 3 heard 10");
    }

    static void pendingRows()
    {
        row("new, pending", {}, at(Here, pends()), registered(Here),
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3 state 3", 3,
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 17 s", "");
        row("refreshed, unchanged", {at(Here, pends())}, at(Here, pends()), {}, "", 3,
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 17 s", "");
        row("refreshed, other SUID", {at(Here, pends())}, at(Here, pends("0103", 2)), registered(Here, Suid2),
            "pending 127.0.0.2 suid 123456789ABC02 services 1,3 state 3", 3,
            "pending 127.0.0.2 suid 123456789ABC02 services 1,3 for 17 s", "");
        row("refreshed, other address", {at(Here, pends())}, at(There, pends()), registered(There),
            "pending 127.0.0.3 suid 123456789ABC01 services 1,3 state 3", 3,
            "pending 127.0.0.3 suid 123456789ABC01 services 1,3 for 17 s", "");
        row("refreshed, a service more", {at(Here, pends())}, at(Here, pends("010303")), registered(Here),
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3,3 state 3", 3,
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3,3 for 17 s", "");
        row("refreshed, no services left", {at(Here, pends())}, at(Here, pends("")), registered(Here),
            "pending 127.0.0.2 suid 123456789ABC01 services  state 3", 3,
            "pending 127.0.0.2 suid 123456789ABC01 services  for 17 s", "");
        row("refreshed, another service", {at(Here, pends())}, at(Here, pends("0102")), registered(Here),
            "pending 127.0.0.2 suid 123456789ABC01 services 1,2 state 3", 3,
            "pending 127.0.0.2 suid 123456789ABC01 services 1,2 for 17 s", "");
        row("refreshed, other order", {at(Here, pends())}, at(Here, pends("0301")), registered(Here),
            "pending 127.0.0.2 suid 123456789ABC01 services 3,1 state 3", 3,
            "pending 127.0.0.2 suid 123456789ABC01 services 3,1 for 17 s", "");
        row("refreshed, only an unknown service more", {at(Here, pends())}, at(Here, pends("010309")), {}, "",
            3, "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 17 s", "");
        row("pending again after it left, same data", {at(Here, pends()), at(Here, Leaves)},
            at(Here, pends()), registered(Here), "pending 127.0.0.2 suid 123456789ABC01 services 1,3 state 3",
            3, "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 17 s", "");
    }

    static void bothRows()
    {
        const Steps both{at(Here, confirms("01")), at(There, pends("02", 2))};
        const Steps onePlace{at(Here, confirms("01")), at(Here, pends("02", 2))};
        row("pending while confirmed", {at(Here, confirms("01"))}, at(There, pends("02", 2)),
            registered(There, Suid2), "pending 127.0.0.3 suid 123456789ABC02 services 2 state 3", 3,
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3; "
            "pending 127.0.0.3 suid 123456789ABC02 services 2 for 17 s",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0");
        row("pending while confirmed, one place, same data", {at(Here, confirms())}, at(Here, pends()),
            registered(Here), "pending 127.0.0.2 suid 123456789ABC01 services 1,3 state 3", 3,
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3; "
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 17 s",
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3 heard 0");
        row("confirmed while pending", {at(Here, pends("02", 2))}, at(Here, confirms("01")), registered(Here),
            "", 3,
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3; "
            "pending 127.0.0.2 suid 123456789ABC02 services 2 for 7 s",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 10");
        row("confirmed while pending, elsewhere, basic", {at(Here, pends())}, at(There, registersBasic("")),
            registered(There, NoSuid), "", 1,
            "127.0.0.3 suid 00000000000000 services  version 1 state 3; "
            "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 7 s",
            "127.0.0.3 suid 00000000000000 services  version 1 state 3 heard 10");
        row("confirmed again while both", both, at(Here, confirms("0101")), registered(Here), "", 3,
            "127.0.0.2 suid 123456789ABC01 services 1,1 version 3 state 3; "
            "pending 127.0.0.3 suid 123456789ABC02 services 2 for 7 s",
            "127.0.0.2 suid 123456789ABC01 services 1,1 version 3 state 3 heard 10");
        row("refreshed while both", both, at(There, pends("02", 2)), {}, "", 3,
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3; "
            "pending 127.0.0.3 suid 123456789ABC02 services 2 for 17 s",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0");
        row("both, leaves the pending address", both, at(There, Leaves), deregistered(There, Suid2),
            "confirmed 127.0.0.2 suid 123456789ABC01 services 1 state 3", NoAcknowledgement,
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0");
        row("both, leaves the confirmed address", both, at(Here, Leaves), deregistered(Here), "",
            NoAcknowledgement, "pending 127.0.0.3 suid 123456789ABC02 services 2 for 7 s", "");
        row("both, leaves elsewhere", both, at(Elsewhere, Leaves), unexpected(Elsewhere), "",
            NoAcknowledgement,
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3; "
            "pending 127.0.0.3 suid 123456789ABC02 services 2 for 7 s",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0");
        row("both at one address, the pending one leaves first", onePlace, at(Here, Leaves),
            deregistered(Here, Suid2), "confirmed 127.0.0.2 suid 123456789ABC01 services 1 state 3",
            NoAcknowledgement, "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0");
        row("both, the confirmed one has left and is stored anew", both + Steps{at(Here, Leaves)},
            at(Here, confirms("03")), registered(Here), "", 3,
            "127.0.0.2 suid 123456789ABC01 services 3 version 3 state 3; "
            "pending 127.0.0.3 suid 123456789ABC02 services 2 for 7 s",
            "127.0.0.2 suid 123456789ABC01 services 3 version 3 state 3 heard 10");
        row("both, the confirmed one has left, then the pending one", both + Steps{at(Here, Leaves)},
            at(There, Leaves), deregistered(There, Suid2),
            "confirmed 0.0.0.0 suid 123456789ABC01 services 1 state 0", NoAcknowledgement, "gone", "");
    }

    static void deregistrationRows()
    {
        row("unknown leaves", {}, at(Here, Leaves),
            {u"Unknown Radio 0011AABB22CC3301 deregistered [ignored]"_s}, "", NoAcknowledgement, "gone", "");
        row("leaves twice", {at(Here, confirms()), at(Here, Leaves)}, at(Here, Leaves),
            {u"Unknown Radio 0011AABB22CC3301 deregistered [ignored]"_s}, "", NoAcknowledgement, "gone", "");
        row("confirmed, leaves", {at(Here, confirms())}, at(Here, Leaves), deregistered(Here),
            "confirmed 0.0.0.0 suid 123456789ABC01 services 1,3 state 0", NoAcknowledgement, "gone", "");
        row("confirmed, leaves elsewhere", {at(Here, confirms())}, at(There, Leaves), unexpected(There), "",
            NoAcknowledgement, "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3 heard 0");
        row("moved, leaves the old address", {at(Here, confirms()), at(There, confirms())}, at(Here, Leaves),
            unexpected(Here), "", NoAcknowledgement,
            "127.0.0.3 suid 123456789ABC01 services 1,3 version 3 state 3",
            "127.0.0.3 suid 123456789ABC01 services 1,3 version 3 state 3 heard 0");
        row("pending, leaves", {at(Here, pends())}, at(Here, Leaves), deregistered(Here),
            "confirmed 0.0.0.0 suid 00000000000000 services  state 0", NoAcknowledgement, "gone", "");
        row("pending, leaves elsewhere", {at(Here, pends())}, at(There, Leaves), unexpected(There), "",
            NoAcknowledgement, "pending 127.0.0.2 suid 123456789ABC01 services 1,3 for 7 s", "");
    }

    static void byAddressRows()
    {
        const Steps both{at(Here, confirms("01")), at(There, pends("02", 2))};
        row("version 1 does not leave by address", {at(Here, registersBasic())}, at(Here, LeavesByAddress),
            {}, "", NoAcknowledgement, "127.0.0.2 suid 00000000000000 services 1,3 version 1 state 3",
            "127.0.0.2 suid 00000000000000 services 1,3 version 1 state 3 heard 0");
        row("version 2 leaves by address", {at(Here, confirms(), 2)}, at(Here, LeavesByAddress, 1),
            deregistered(Here), "confirmed 0.0.0.0 suid 123456789ABC01 services 1,3 state 0",
            NoAcknowledgement, "gone", "");
        row("version 3 leaves by address", {at(Here, confirms())}, at(Here, LeavesByAddress),
            deregistered(Here), "confirmed 0.0.0.0 suid 123456789ABC01 services 1,3 state 0",
            NoAcknowledgement, "gone", "");
        row("pending leaves by address", {at(Here, pends())}, at(Here, LeavesByAddress), deregistered(Here),
            "confirmed 0.0.0.0 suid 00000000000000 services  state 0", NoAcknowledgement, "gone", "");
        row("both, the pending one leaves by address", both, at(There, LeavesByAddress),
            deregistered(There, Suid2), "confirmed 127.0.0.2 suid 123456789ABC01 services 1 state 3",
            NoAcknowledgement, "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3 heard 0");
        row("both, the confirmed one leaves by address", both, at(Here, LeavesByAddress), deregistered(Here),
            "", NoAcknowledgement, "pending 127.0.0.3 suid 123456789ABC02 services 2 for 7 s", "");
        row("nobody at this address", {at(Here, confirms())}, at(There, LeavesByAddress), {}, "",
            NoAcknowledgement, "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3",
            "127.0.0.2 suid 123456789ABC01 services 1,3 version 3 state 3 heard 0");
    }
};

QTEST_GUILESS_MAIN(TestRegistration)
#include "tst_registration.moc"
