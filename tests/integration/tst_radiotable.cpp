// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"
#include "tests/support/supervisedradio.h"
#include "tests/support/testserver.h"

#include "core/quillmere.h"

#include <QTest>

using namespace Qt::StringLiterals;
using QMR::RadioPointer;

namespace {

const QHostAddress Here(u"127.0.0.2"_s);

RadioPointer radioOf(quint8 serial)
{
    const auto radio = std::make_shared<QMR::RadioEntry>();
    radio->esn = esnOf(serial);
    return radio;
}

void registerAt(TestServer &server, quint8 serial, const QHostAddress &address, bool pending = false)
{
    server->registerRadio(esnOf(serial), 3, {}, address, freeUdpPort(), pending, {});
}

} // namespace

class TestRadioTable : public QObject
{
    Q_OBJECT

private slots:
    void secondRecordOfAnEsnIsNotTaken()
    {
        TestServer server;
        const RadioPointer first = radioOf(1);
        QCOMPARE(server->insertRadio(first), first);
        QCOMPARE(server->insertRadio(radioOf(1)), first);
        QCOMPARE(server->findRadio(esnOf(1)), first);
        QCOMPARE(server->radios().size(), size_t{1});
    }

    void whatIsRemovedIsCounted()
    {
        TestServer server;
        server->insertRadio(radioOf(1));
        server->insertRadio(radioOf(2));
        QCOMPARE(server->removeRadio(radioOf(3)), size_t{0});
        QCOMPARE(server->removeRadio(radioOf(1)), size_t{1}); // by its ESN: it is another record
        QCOMPARE(server->removeRadio(radioOf(1)), size_t{0});
        QVERIFY(!server->findRadio(esnOf(1)));
        QVERIFY(server->findRadio(esnOf(2)));
    }

    // Of two stored rows with one ESN only the first is in the table; the other's address is nobody's.
    void addressOfARecordOutsideTheTableIsNobodys()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registerAt(server, 1, QHostAddress(u"127.0.0.3"_s));
        const RadioPointer other = radioOf(1);
        server->setAddress(other, Here);
        QCOMPARE(other->address, Here);
        server.log.take();
        registerAt(server, 2, Here);
        QCOMPARE(server.log.take().size(), 1); // nobody has lost the address
        server->setAddress(other, QHostAddress(u"127.0.0.4"_s));
        registerAt(server, 3, Here);
        QVERIFY(!server->findRadio(esnOf(2)));
        QVERIFY(server->findRadio(esnOf(1)));
    }

    // The holder is found by the IPv4 value alone, but ends by its very address.
    void anotherFormOfTheAddressEndsNobodysRegistration()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registerAt(server, 1, Here);
        server.log.take();
        server->deregisterRadioByAddress(QHostAddress(u"::ffff:127.0.0.2"_s));
        QCOMPARE(server.log.take(), QList<LogRecord>());
        server->deregisterRadioByAddress(Here);
        QVERIFY(!server->findRadio(esnOf(1)));
    }

    void whoHasOnlyAPendingRegistrationWasNeverAskedNorHeard()
    {
        TestServer server;
        server.startWithoutDiscovery();
        server->registerRadio(esnOf(1), 3, {}, Here, 0, true, {});
        const RadioPointer radio = server->findRadio(esnOf(1));
        const QDateTime never = QDateTime::fromSecsSinceEpoch(0, Qt::UTC);
        QCOMPARE(radio->lastDiscoveryAttempt, never);
        QCOMPARE(radio->lastContactTime, never);
    }

    // It is stored as it was, and told again, with no attempt counted.
    void availabilityOfNoNameChangesNothingElse()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registerAt(server, 1, Here);
        const RadioPointer radio = server->findRadio(esnOf(1));
        radio->discoveryAttempts = 2;
        radio->supportedServices = {3};
        ScriptedApplication application(server.applicationPort());
        QCOMPARE(application.receives(1).size(), 1);
        server->setAvailability(radio, 7);
        QCOMPARE(radio->availability, quint32{QMR::Registered});
        QCOMPARE(radio->discoveryAttempts, 0);
        QVERIFY(server->dueForDiscovery().empty());
        const QList<Notice> notices = application.receives(1);
        QCOMPARE(notices.size(), 1);
        QCOMPARE(notices.first().availability, 3);
        QCOMPARE(
            server.query(u"SELECT num_discovery_attempts, service FROM subscribers JOIN supported_services "
                         "ON id = subscriber_id"_s),
            (QList<QVariantList>{{0LL, 3LL}}));
    }

    void stopForgetsAllRadios()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registerAt(server, 1, Here);
        registerAt(server, 2, QHostAddress(u"127.0.0.3"_s), true);
        server->scheduleDiscovery(radioOf(3));
        const std::weak_ptr<QMR::RadioEntry> confirmed = server->findRadio(esnOf(1));
        const std::weak_ptr<QMR::RadioEntry> pending = server->findRadio(esnOf(2));
        QVERIFY(!confirmed.expired() && !pending.expired());
        QCOMPARE(server->awaitingConfirmation().size(), size_t{1});

        server.stop();
        QVERIFY(server->radios().empty());
        QVERIFY(server->dueForDiscovery().empty());
        QVERIFY(server->awaitingConfirmation().empty());
        QVERIFY(confirmed.expired() && pending.expired());
    }

    // Not even their addresses: a radio of the last run would stand before the one that has its address now.
    void stopForgetsTheAddresses()
    {
        TestServer server;
        server.startWithoutDiscovery();
        registerAt(server, 1, Here);
        server.stop();
        server.query(u"UPDATE subscribers SET esn = x'%1'"_s.arg(esnOf(2).text(false)));
        server.startWithoutDiscovery();
        QVERIFY(server->findRadio(esnOf(2)));

        registerAt(server, 3, Here);
        QVERIFY(!server->findRadio(esnOf(2)));
    }
};

QTEST_GUILESS_MAIN(TestRadioTable)
#include "tst_radiotable.moc"
