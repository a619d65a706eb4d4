// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "core/addressindex.h"

#include <QTest>

#include <map>
#include <random>

using QMR::AddressIndex;
using QMR::Esn;

namespace {

struct Held
{
    QHostAddress address;
    QHostAddress pendingAddress;
};

using Table = std::map<Esn, Held>;

// The plain walk that the index stands for.
std::optional<Esn> walkToFirstHolder(const Table &table, quint32 ipv4Value)
{
    for (const auto &[esn, held] : table) {
        if (held.pendingAddress.toIPv4Address() == ipv4Value || held.address.toIPv4Address() == ipv4Value) {
            return esn;
        }
    }
    return std::nullopt;
}

std::vector<Esn> walkToHolders(const Table &table, const QHostAddress &address)
{
    std::vector<Esn> holders;
    for (const auto &[esn, held] : table) {
        if (held.address == address || held.pendingAddress == address) {
            holders.push_back(esn);
        }
    }
    return holders;
}

QHostAddress address(const char *text)
{
    return QHostAddress(QString::fromLatin1(text));
}

// Few enough that they meet often; several forms of one value, and several addresses without one.
const std::vector<QHostAddress> Addresses{
    QHostAddress(),
    QHostAddress(quint32{0}),
    address("0.0.0.1"),
    address("10.0.0.5"),
    address("10.0.0.6"),
    address("::ffff:10.0.0.5"),
    address("::ffff:0.0.0.0"),
    address("::10.0.0.5"),
    address("127.0.0.1"),
    address("255.255.255.255"),
    address("::"),
    address("::1"),
    address("fe80::1%1"),
    address("fe80::1%2"),
    address("fe80::1"),
    address("2001:db8::5"),
};

Esn esnOf(unsigned number)
{
    return Esn{{static_cast<quint8>(number >> 8), 0, 0, 0, 0, 0, 0, static_cast<quint8>(number & 0xFF)}};
}

} // namespace

class TestAddressIndex : public QObject
{
    Q_OBJECT

private slots:
    void answersAsTheWalkInKeyOrderWould_data()
    {
        QTest::addColumn<unsigned>("radios");
        QTest::addColumn<int>("steps");
        QTest::addColumn<int>("stepsToALook");
        QTest::newRow("three radios") << 3U << 2000 << 1;
        QTest::newRow("forty radios") << 40U << 1000 << 1;
        QTest::newRow("a thousand radios") << 1000U << 6000 << 200;
    }

    void answersAsTheWalkInKeyOrderWould()
    {
        QFETCH(unsigned, radios);
        QFETCH(int, steps);
        QFETCH(int, stepsToALook);
        std::mt19937 random(radios);
        const auto anyAddress = [&random] { return Addresses[random() % Addresses.size()]; };
        AddressIndex index;
        Table table;
        for (int step = 0; step < steps; ++step) {
            const Esn esn = esnOf(static_cast<unsigned>(random() % radios));
            const auto known = table.find(esn);
            if (known != table.end()) {
                index.remove(esn, known->second.address, known->second.pendingAddress);
            }
            if (known != table.end() && random() % 3 == 0) {
                table.erase(known);
            } else {
                const Held held{anyAddress(), anyAddress()};
                table[esn] = held;
                index.add(esn, held.address, held.pendingAddress);
            }
            if (step % stepsToALook != 0) {
                continue;
            }
            for (const QHostAddress &sender : Addresses) {
                QCOMPARE(index.firstHolder(sender.toIPv4Address()),
                         walkToFirstHolder(table, sender.toIPv4Address()));
                if (!sender.isNull()) {
                    compareHolders(index, table, sender);
                }
            }
        }
    }

    void aRadioWithOneAddressTwiceIsHeldAndReleasedOnce_data()
    {
        QTest::addColumn<QHostAddress>("twice");
        QTest::newRow("IPv4") << address("10.0.0.5");
        QTest::newRow("no IPv4 form") << address("2001:db8::5");
    }
    void aRadioWithOneAddressTwiceIsHeldAndReleasedOnce()
    {
        QFETCH(QHostAddress, twice);
        AddressIndex index;
        index.add(esnOf(1), twice, twice);
        QCOMPARE(index.candidates(twice), std::vector<Esn>{esnOf(1)});
        index.remove(esnOf(1), twice, twice);
        QVERIFY(!index.firstHolder(twice.toIPv4Address()));
        QVERIFY(index.candidates(twice).empty());
    }

    void aMissingAddressCountsAsValueZero()
    {
        AddressIndex index;
        index.add(esnOf(2), address("10.0.0.5"), QHostAddress());
        index.add(esnOf(3), address("10.0.0.6"), QHostAddress());
        index.add(esnOf(1), address("10.0.0.7"), address("10.0.0.8"));
        QCOMPARE(index.firstHolder(0), std::optional(esnOf(2)));
    }

    // Nearly all radios have the value 0: a search among them would be a walk through the table.
    void anAddressWithoutAnIpv4FormHasNoCandidatesButItsHolders()
    {
        AddressIndex index;
        index.add(esnOf(1), address("10.0.0.5"), QHostAddress());
        index.add(esnOf(2), address("2001:db8::5"), QHostAddress());
        index.add(esnOf(3), address("2001:db8::6"), QHostAddress());
        index.add(esnOf(4), address("10.0.0.6"), address("2001:db8::5"));
        QCOMPARE(index.candidates(address("2001:db8::5")), (std::vector<Esn>{esnOf(2), esnOf(4)}));
        QVERIFY(index.candidates(address("2001:db8::7")).empty());
    }

    // It is a part of what the server's memory holds for each of a million radios.
    void anAddressIsKeptOnceMoreOnlyWithoutAnIpv4Value()
    {
        AddressIndex index;
        index.add(esnOf(1), address("10.0.0.5"), QHostAddress());
        QCOMPARE(index.size(), size_t{2});
        index.add(esnOf(2), address("2001:db8::5"), QHostAddress());
        QCOMPARE(index.size(), size_t{4});
        index.remove(esnOf(2), address("2001:db8::5"), QHostAddress());
        index.remove(esnOf(1), address("10.0.0.5"), QHostAddress());
        QCOMPARE(index.size(), size_t{0});
    }

    // No datagram comes from nowhere.
    void nobodyIsFoundAtANullAddress()
    {
        AddressIndex index;
        index.add(esnOf(1), address("10.0.0.5"), QHostAddress());
        QVERIFY(index.candidates(QHostAddress()).empty());
    }

    void holdsNothingOnceCleared()
    {
        AddressIndex index;
        index.add(esnOf(1), address("10.0.0.5"), address("::1"));
        index.clear();
        QVERIFY(!index.firstHolder(0));
        QVERIFY(!index.firstHolder(address("10.0.0.5").toIPv4Address()));
        QVERIFY(index.candidates(address("::1")).empty());
        QVERIFY(index.candidates(address("10.0.0.5")).empty());
    }

private:
    // The candidates may be more than hold the address; those that do are all there, in order. None has left.
    static void compareHolders(const AddressIndex &index, const Table &table, const QHostAddress &sender)
    {
        const std::vector<Esn> candidates = index.candidates(sender);
        QVERIFY(std::is_sorted(candidates.begin(), candidates.end()));
        std::vector<Esn> holders;
        bool hasLeft = false;
        std::copy_if(candidates.begin(), candidates.end(), std::back_inserter(holders), [&](const Esn &esn) {
            const auto held = table.find(esn);
            hasLeft = hasLeft || held == table.end();
            return held != table.end() &&
                   (held->second.address == sender || held->second.pendingAddress == sender);
        });
        QVERIFY(!hasLeft);
        QCOMPARE(holders, walkToHolders(table, sender));
    }
};

QTEST_APPLESS_MAIN(TestAddressIndex)
#include "tst_addressindex.moc"
