// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

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
