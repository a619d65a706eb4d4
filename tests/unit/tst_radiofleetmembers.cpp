// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/radio/fleetmembers.h"

#include <QTest>

using RadioTool::FleetMembers;
using RadioTool::Settings;

namespace {

Settings twoHundred()
{
    Settings settings;
    settings.radio.esn.bytes = {0, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD};
    settings.radio.suid.bytes = {0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE};
    settings.radio.services = {1, 3};
    settings.fleet.count = 200;
    settings.fleet.pendingPercent = 50;
    return settings;
}

QByteArray bytes(const QMR::Qmrs::Buffer &buffer, quint16 size)
{
    return QByteArray(reinterpret_cast<const char *>(buffer.data()), size);
}

} // namespace

class TestRadioFleetMembers : public QObject
{
    Q_OBJECT

private slots:
    void radiosGoRoundTheAddresses()
    {
        FleetMembers members(twoHundred());
        members.setAddresses(0x7F0000FF, 3);
        QCOMPARE(members.addressOf(0), 0x7F0000FFU);
        QCOMPARE(members.addressOf(2), 0x7F000101U);
        QCOMPARE(members.addressOf(3), 0x7F0000FFU);
        QCOMPARE(members.addressOf(199), 0x7F000100U);
    }

    void esnTellsTheMember_data()
    {
        QTest::addColumn<QByteArray>("esn");
        QTest::addColumn<quint32>("index");
        QTest::newRow("first") << QByteArray::fromHex("0011aabb22cc33dd") << 0U;
        QTest::newRow("beyond a byte") << QByteArray::fromHex("0011aabb22cc3400") << 35U;
        QTest::newRow("last") << QByteArray::fromHex("0011aabb22cc34a4") << 199U;
        QTest::newRow("one after") << QByteArray::fromHex("0011aabb22cc34a5") << 200U;
        QTest::newRow("one before") << QByteArray::fromHex("0011aabb22cc33dc") << 200U;
        QTest::newRow("4294967296 after") << QByteArray::fromHex("0011aabc22cc33dd") << 200U;
    }
    void esnTellsTheMember()
    {
        QFETCH(QByteArray, esn);
        QMR::Esn asked;
        std::copy(esn.begin(), esn.end(), asked.bytes.begin());
        QTEST(FleetMembers(twoHundred()).indexOf(asked), "index");
    }

    void datagramsAreTheMembersOwn()
    {
        FleetMembers members(twoHundred());
        QMR::Qmrs::Buffer buffer{};
        QCOMPARE(bytes(buffer, members.writeRegistration(1, buffer)),
                 QByteArray::fromHex("514d5253 03 0011aabb22cc33de 05 0b00 123456789abcdf 01 02 0103"));
        QCOMPARE(bytes(buffer, members.writeDeregistration(35, buffer)),
                 QByteArray::fromHex("514d5253 03 0011aabb22cc3400 03 0000"));
        QCOMPARE(bytes(buffer, members.writeRegistration(34, buffer)),
                 QByteArray::fromHex("514d5253 03 0011aabb22cc33ff 05 0b00 123456789abd00 00 02 0103"));
    }

    void basicMembersCarryNoSuid()
    {
        Settings settings = twoHundred();
        settings.radio.basic = true;
        settings.radio.protocolVersion = 1;
        FleetMembers members(settings);
        QMR::Qmrs::Buffer buffer{};
        QCOMPARE(bytes(buffer, members.writeRegistration(2, buffer)),
                 QByteArray::fromHex("514d5253 01 0011aabb22cc33df 01 0300 02 0103"));
    }
};

QTEST_APPLESS_MAIN(TestRadioFleetMembers)
#include "tst_radiofleetmembers.moc"
