// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/registrationscene.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString Here = u"127.0.0.2"_s;
const QString There = u"127.0.0.3"_s;
const QString LocalIpv6 = u"::1"_s;

QString unexpected(const ScriptedRadio &radio, const QString &address)
{
    return u"Radio %1 deregistered from unexpected address %2 [ignored]"_s.arg(radio.esnText(), address);
}

} // namespace

// An address is one radio's: who registers from it takes it away from the radio that had it. All radios here
// are two: the first one's ESN is the smaller.
class TestAddressHolder : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        scene = std::make_unique<RegistrationScene>();
        first = std::make_unique<ScriptedRadio>(scene->server.registrationPort(), 0x01, Here);
        second = std::make_unique<ScriptedRadio>(scene->server.registrationPort(), 0x02, There);
    }

    void cleanup()
    {
        second.reset();
        first.reset();
        scene.reset();
    }

    void aNewRadioTakesTheAddressOver()
    {
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        second->movesTo(Here);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());

        const auto outcome = scene->settle();
        QCOMPARE(outcome.log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(outcome.notices,
                 (QStringList{u"01: confirmed 0.0.0.0 suid 123456789ABC01 services 1 state 0"_s,
                              u"02: confirmed 127.0.0.2 suid 123456789ABC02 services 2 state 3"_s}));
        QCOMPARE(scene->known(first->esn), u"gone"_s);
        QCOMPARE(scene->stored(),
                 QStringList{u"02: 127.0.0.2 suid 123456789ABC02 services 2 version 3 state 3 heard 0"_s});
        QVERIFY(!first->hasReceived());
    }

    void aKnownRadioTakesTheAddressOver()
    {
        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        second->movesTo(Here);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());

        QCOMPARE(scene->settle().log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(scene->known(first->esn), u"gone"_s);
        QCOMPARE(scene->known(second->esn), u"127.0.0.2 suid 123456789ABC02 services 2 version 3 state 3"_s);
        QCOMPARE(scene->stored().size(), 1);
    }

    // Whether the other one comes pending or confirmed makes no difference to the one who goes.
    void aPendingRadioTakesTheAddressOver()
    {
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        second->movesTo(Here);
        second->registersPending();
        QVERIFY(second->isAcknowledged());

        QCOMPARE(scene->settle().log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(scene->known(first->esn), u"gone"_s);
        QVERIFY(scene->stored().isEmpty());
    }

    void aPendingHolderLosesItsPendingAddressOnly()
    {
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        first->movesTo(There);
        first->registersPending("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        second->registers("\2");
        QVERIFY(second->isAcknowledged());

        const auto outcome = scene->settle();
        QCOMPARE(outcome.log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(outcome.notices[0], u"01: confirmed 127.0.0.2 suid 123456789ABC01 services 1 state 3"_s);
        QCOMPARE(scene->known(first->esn), u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3"_s);
        QCOMPARE(scene->stored().size(), 2);
    }

    // Deliberate: one step takes one registration away, and the pending one goes first. Until somebody
    // registers from there again, two radios have the address.
    void aHolderWithBothAtOneAddressLosesOneATime()
    {
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        first->registersPending("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        second->movesTo(Here);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        QCOMPARE(scene->settle().log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(scene->known(first->esn), u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3"_s);
        QCOMPARE(scene->stored().size(), 2);

        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        QCOMPARE(scene->settle().log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(scene->known(first->esn), u"gone"_s);
    }

    // Deliberate: the walk ends at the first holder. When that is the radio itself, one further on keeps the
    // address.
    void aHolderBehindTheRadioItselfKeepsTheAddress()
    {
        second->movesTo(Here);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        second->registersPending("\2");
        QVERIFY(second->isAcknowledged());
        first->registers("\1"); // takes the pending one
        QVERIFY(first->isAcknowledged());
        scene->settle();
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        QCOMPARE(scene->settle().log, QStringList{first->registeredText()});
        QCOMPARE(scene->known(second->esn), u"127.0.0.2 suid 123456789ABC02 services 2 version 3 state 3"_s);

        // Of the two the first one leaves by address.
        second->deregistersByAddress();
        QCOMPARE(scene->settle().log, QStringList{first->deregisteredText()});
        QCOMPARE(scene->known(first->esn), u"gone"_s);
    }

    void leavingByAddressPassesOverVersion1()
    {
        second->movesTo(Here);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        second->registersPending("\2");
        QVERIFY(second->isAcknowledged());
        first->registersBasic("\1");
        QVERIFY(first->isAcknowledged(1));
        scene->settle();
        first->deregistersByAddress();
        QCOMPARE(scene->settle().log, QStringList{second->deregisteredText()});
        QCOMPARE(scene->known(first->esn), u"127.0.0.2 suid 00000000000000 services 1 version 1 state 3"_s);
    }

    // Only a stored row can have no ESN and yet speak a later version.
    void leavingByAddressEndsAtARadioWithoutAnEsn()
    {
        scene->server->registerRadio(QMR::Esn{}, 2, first->suid, QHostAddress(Here), 9, false, {1});
        scene->settle();
        first->deregistersByAddress();
        const auto outcome = scene->settle();
        QCOMPARE(outcome.log, QStringList());
        QCOMPARE(outcome.notices, QStringList());
        QCOMPARE(scene->known(QMR::Esn{}), u"127.0.0.2 suid 123456789ABC01 services 1 version 2 state 3"_s);
    }

    void aRadioWithoutAnEsnStaysAtVersion1()
    {
        first->esn = QMR::Esn{};
        first->protocolVersion = 1;
        first->registersBasic("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        first->deregisters();
        QCOMPARE(scene->settle().log, QStringList());
        QCOMPARE(scene->known(QMR::Esn{}), u"127.0.0.2 suid 00000000000000 services 1 version 1 state 3"_s);
    }

    // Deliberate: a sender without an IPv4 form has the value 0, as every missing address has. The first
    // radio that lacks an address is asked to leave one that it does not have.
    void anIpv6SenderFindsTheFirstRadioThatLacksAnAddress()
    {
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        speakIpv6(*second);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());

        const auto outcome = scene->settle();
        QCOMPARE(outcome.log, (QStringList{unexpected(*first, LocalIpv6), second->registeredText()}));
        QCOMPARE(outcome.notices,
                 QStringList{u"02: confirmed 0.0.0.0 suid 123456789ABC02 services 2 state 3"_s});
        QCOMPARE(scene->known(first->esn), u"127.0.0.2 suid 123456789ABC01 services 1 version 3 state 3"_s);
        QCOMPARE(scene->known(second->esn), u"::1 suid 123456789ABC02 services 2 version 3 state 3"_s);
        QCOMPARE(scene->stored().last(),
                 u"02: 0.0.0.0 suid 123456789ABC02 services 2 version 3 state 3 heard 0"_s);
    }

    void anIpv6SenderIsItsOwnHolderWhenItComesFirst()
    {
        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        speakIpv6(*first);
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        QCOMPARE(scene->settle().log, QStringList{first->registeredText()});
    }

    void anIpv6HolderLosesItsAddress()
    {
        speakIpv6(*first);
        first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        speakIpv6(*second);
        second->registers("\2");
        QVERIFY(second->isAcknowledged());
        QCOMPARE(scene->settle().log, (QStringList{first->deregisteredText(), second->registeredText()}));
        QCOMPARE(scene->known(first->esn), u"gone"_s);
    }

    void anIpv6RadioLeaves_data()
    {
        QTest::addColumn<bool>("byAddress");
        QTest::newRow("by ESN") << false;
        QTest::newRow("by address") << true;
    }

    void anIpv6RadioLeaves()
    {
        QFETCH(bool, byAddress);
        first->registers("\1"); // lacks an address too, and is passed over
        QVERIFY(first->isAcknowledged());
        speakIpv6(*second);
        second->registersPending("\2");
        QVERIFY(second->isAcknowledged());
        scene->settle();
        byAddress ? second->deregistersByAddress() : second->deregisters();
        QCOMPARE(scene->settle().log, QStringList{second->deregisteredText()});
        QCOMPARE(scene->known(second->esn), u"gone"_s);
    }

    // Its value is 0, as that of the radio's address.
    void anotherIpv6SenderIsNotTakenForTheRadio_data()
    {
        QTest::addColumn<bool>("isPending");
        QTest::newRow("confirmed") << false;
        QTest::newRow("pending") << true;
    }

    void anotherIpv6SenderIsNotTakenForTheRadio()
    {
        QFETCH(bool, isPending);
        speakIpv6(*first);
        isPending ? first->registersPending("\1") : first->registers("\1");
        QVERIFY(first->isAcknowledged());
        scene->settle();
        const QString known = scene->known(first->esn);
        const QString other = u"2001:db8::2"_s;
        scene->server->deregisterRadioByAddress(QHostAddress(other));
        QCOMPARE(scene->settle().log, QStringList());
        scene->server->deregisterRadio(first->esn, QHostAddress(other));
        QCOMPARE(scene->settle().log, QStringList{unexpected(*first, other)});
        QCOMPARE(scene->known(first->esn), known);
    }

private:
    static void speakIpv6(ScriptedRadio &radio)
    {
        radio.serverAddress = QHostAddress(QHostAddress::LocalHostIPv6);
        radio.movesTo(LocalIpv6);
    }

    std::unique_ptr<RegistrationScene> scene;
    std::unique_ptr<ScriptedRadio> first;
    std::unique_ptr<ScriptedRadio> second;
};

QTEST_GUILESS_MAIN(TestAddressHolder)
#include "tst_addressholder.moc"
