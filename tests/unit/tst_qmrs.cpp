// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/unit/qmrstext.h"

#include <QTest>

using namespace Qt::StringLiterals;

using namespace QmrsText;

namespace {

// Written as the wire has them: magic, version, ESN, opcode, length, payload.
const QByteArray Basic = QByteArray::fromHex("514d5253 01 0011aabb22cc33dd 01 0400 03 010203");
const QByteArray BasicWithoutServices = QByteArray::fromHex("514d5253 01 0011aabb22cc33dd 01 0100 00");
const QByteArray Deregistration = QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 03 0000");
const QByteArray DeregistrationByAddress = QByteArray::fromHex("514d5253 02 0000000000000000 03 0000");
const QByteArray Extended =
    QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 05 0b00 123456789abcde 00 02 0302");
const QByteArray ExtendedPending =
    QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 05 0900 123456789abcde 01 00");
const QByteArray ExtendedWithoutEsn =
    QByteArray::fromHex("514d5253 02 0000000000000000 05 0900 0123456789abcd 00 00");

const QString Esn = u"0011aabb22cc33dd"_s;
const QString Suid = u"123456789abcde"_s;
const QString NoSuid = u"00000000000000"_s;

QByteArray with(QByteArray datagram, qsizetype offset, int value)
{
    datagram[offset] = static_cast<char>(value);
    return datagram;
}

QByteArray withLength(const QByteArray &datagram, int length)
{
    return with(with(datagram, 14, length & 0xFF), 15, length >> 8);
}

} // namespace

class TestQmrs : public QObject
{
    Q_OBJECT

private slots:
    void decodes_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<QString>("message");

        QTest::newRow("basic registration") << Basic << registration(Esn, 1, NoSuid, false, {1, 2, 3});
        QTest::newRow("basic, no services")
            << BasicWithoutServices << registration(Esn, 1, NoSuid, false, {});
        QTest::newRow("basic in a version 2 header is version 1")
            << with(Basic, 4, 2) << registration(Esn, 1, NoSuid, false, {1, 2, 3});
        QTest::newRow("basic in a version 3 header is version 1")
            << with(Basic, 4, 3) << registration(Esn, 1, NoSuid, false, {1, 2, 3});
        QTest::newRow("basic, all-zero ESN stays")
            << QByteArray::fromHex("514d5253 01 0000000000000000 01 0100 00")
            << registration(u"0000000000000000"_s, 1, NoSuid, false, {});
        QTest::newRow("extended registration") << Extended << registration(Esn, 3, Suid, false, {3, 2});
        QTest::newRow("extended, pending") << ExtendedPending << registration(Esn, 3, Suid, true, {});
        QTest::newRow("extended, pending byte 2")
            << with(ExtendedPending, 23, 2) << registration(Esn, 3, Suid, true, {});
        QTest::newRow("extended, pending byte 255")
            << with(ExtendedPending, 23, 255) << registration(Esn, 3, Suid, true, {});
        QTest::newRow("extended version 2 is never pending")
            << with(ExtendedPending, 4, 2) << registration(Esn, 2, Suid, false, {});
        QTest::newRow("extended without an ESN gets one from its SUID")
            << ExtendedWithoutEsn << registration(u"f10123456789abcd"_s, 2, u"0123456789abcd"_s, false, {});
        QTest::newRow("extended, neither ESN nor SUID")
            << QByteArray::fromHex("514d5253 03 0000000000000000 05 0900 00000000000000 00 00")
            << registration(u"f100000000000000"_s, 3, NoSuid, false, {});
        QTest::newRow("extended, one ESN bit set is an ESN")
            << QByteArray::fromHex("514d5253 03 0000000000000001 05 0900 0123456789abcd 00 00")
            << registration(u"0000000000000001"_s, 3, u"0123456789abcd"_s, false, {});
        QTest::newRow("deregistration") << Deregistration << deregistration(Esn);
        QTest::newRow("deregistration, version 1") << with(Deregistration, 4, 1) << deregistration(Esn);
        QTest::newRow("deregistration by address")
            << DeregistrationByAddress << deregistration(u"0000000000000000"_s);
    }

    void decodes()
    {
        QFETCH(QByteArray, datagram);
        QTEST(decoded(datagram), "message");
    }

    void rejects_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<QString>("reason");

        QTest::newRow("nothing") << QByteArray() << InvalidHeader;
        QTest::newRow("15 bytes") << Deregistration.first(15) << InvalidHeader;
        QTest::newRow("magic in lower case") << with(Basic, 0, 'q') << InvalidHeader;
        QTest::newRow("magic, second byte") << with(Basic, 1, 'm') << InvalidHeader;
        QTest::newRow("magic, third byte") << with(Basic, 2, 'r') << InvalidHeader;
        QTest::newRow("magic, fourth byte") << with(Basic, 3, 'A') << InvalidHeader;
        QTest::newRow("a bad header comes before a bad opcode")
            << with(with(Basic, 4, 4), 13, 9) << InvalidHeader;
        QTest::newRow("acknowledgement")
            << QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 02 0100 00") << InvalidOpcode;
        QTest::newRow("discovery request")
            << QByteArray::fromHex("514d5253 03 0011aabb22cc33dd 04 0000") << InvalidOpcode;
        QTest::newRow("deregistration with a payload")
            << Deregistration + '\0' << InvalidDeregistrationLength;
        QTest::newRow("deregistration by address with a payload")
            << DeregistrationByAddress + '\0' << InvalidDeregistrationLength;
        QTest::newRow("basic without a count") << Basic.first(16) << InvalidRegistrationLength;
        QTest::newRow("basic, one service more") << Basic + '\1' << InvalidRegistrationLength;
        QTest::newRow("basic, count too large") << with(Basic, 16, 4) << InvalidRegistrationLength;
        QTest::newRow("basic, count too small") << with(Basic, 16, 2) << InvalidRegistrationLength;
        QTest::newRow("extended without a payload") << Extended.first(16) << InvalidRegistrationLength;
        QTest::newRow("extended without a count") << Extended.first(24) << InvalidRegistrationLength;
        QTest::newRow("extended, one service more") << Extended + '\1' << InvalidRegistrationLength;
        QTest::newRow("extended in version 1") << with(Extended, 4, 1) << InvalidOpcodeForVersion;
        QTest::newRow("extended in version 1, wrong length")
            << with(Extended, 4, 1).first(17) << InvalidOpcodeForVersion;
    }

    void rejects()
    {
        QFETCH(QByteArray, datagram);
        QTEST(decoded(datagram), "reason");
    }

    void rejectsEveryTruncation_data()
    {
        QTest::addColumn<QByteArray>("datagram");
        QTest::addColumn<QString>("reason"); // once the header is there

        QTest::newRow("basic") << Basic << InvalidRegistrationLength;
        QTest::newRow("basic without services") << BasicWithoutServices << InvalidRegistrationLength;
        QTest::newRow("extended") << Extended << InvalidRegistrationLength;
        QTest::newRow("extended pending") << ExtendedPending << InvalidRegistrationLength;
        QTest::newRow("extended without ESN") << ExtendedWithoutEsn << InvalidRegistrationLength;
        QTest::newRow("deregistration") << Deregistration << QString();
        QTest::newRow("deregistration by address") << DeregistrationByAddress << QString();
    }

    void rejectsEveryTruncation()
    {
        QFETCH(QByteArray, datagram);
        QFETCH(QString, reason);
        for (qsizetype size = 0; size < datagram.size(); ++size) {
            // A copy of exactly that size, so that a sanitizer sees a read behind its end.
            const QByteArray cut(datagram.constData(), size);
            QCOMPARE(decoded(cut), size < 16 ? InvalidHeader : reason);
        }
    }

    void acceptsVersions1To3Only()
    {
        for (int version = 0; version <= 255; ++version) {
            const bool valid = version >= 1 && version <= 3;
            QCOMPARE(decoded(with(Deregistration, 4, version)), valid ? deregistration(Esn) : InvalidHeader);
            QCOMPARE(decoded(with(Basic, 4, version)),
                     valid ? registration(Esn, 1, NoSuid, false, {1, 2, 3}) : InvalidHeader);
            QCOMPARE(decoded(with(Extended, 4, version)),
                     version == 1 ? InvalidOpcodeForVersion
                     : valid      ? registration(Esn, static_cast<quint32>(version), Suid, false, {3, 2})
                                  : InvalidHeader);
        }
    }

    void acceptsOpcodes1And3And5Only()
    {
        for (int opcode = 0; opcode <= 255; ++opcode) {
            const QString expected = opcode == 1   ? InvalidRegistrationLength
                                     : opcode == 3 ? deregistration(Esn)
                                     : opcode == 5 ? InvalidRegistrationLength
                                                   : InvalidOpcode;
            QCOMPARE(decoded(with(Deregistration, 13, opcode)), expected);
        }
    }

    void headerLengthIsBoundedButNotHeldAgainstTheSize_data()
    {
        QTest::addColumn<int>("length");
        QTest::addColumn<bool>("valid");
        QTest::newRow("0") << 0 << true;
        QTest::newRow("1") << 1 << true;
        QTest::newRow("255") << 255 << true;
        QTest::newRow("256") << 256 << true;
        QTest::newRow("264") << 264 << true;
        QTest::newRow("265") << 265 << false;
        QTest::newRow("511") << 511 << false;
        QTest::newRow("512") << 512 << false;
        QTest::newRow("0x0801, in the other byte order 264") << 0x0801 << false;
        QTest::newRow("32768") << 32768 << false;
        QTest::newRow("65535") << 65535 << false;
    }

    void headerLengthIsBoundedButNotHeldAgainstTheSize()
    {
        QFETCH(int, length);
        QFETCH(bool, valid);
        QCOMPARE(decoded(withLength(BasicWithoutServices, length)),
                 valid ? registration(Esn, 1, NoSuid, false, {}) : InvalidHeader);
        QCOMPARE(decoded(withLength(Extended, length)),
                 valid ? registration(Esn, 3, Suid, false, {3, 2}) : InvalidHeader);
        QCOMPARE(decoded(withLength(Deregistration, length)), valid ? deregistration(Esn) : InvalidHeader);
    }

    void keepsServices1To3Only()
    {
        for (int code = 0; code <= 255; ++code) {
            QMR::ServiceList kept;
            if (code == 1 || code == 2 || code == 3) {
                kept.push_back(static_cast<quint32>(code));
            }
            QCOMPARE(decoded(with(BasicWithoutServices, 16, 1) + static_cast<char>(code)),
                     registration(Esn, 1, NoSuid, false, kept));
            QCOMPARE(decoded(with(ExtendedPending, 24, 1) + static_cast<char>(code)),
                     registration(Esn, 3, Suid, true, kept));
        }
    }

    void keepsServicesInOrderWithDuplicates_data()
    {
        QTest::addColumn<QByteArray>("sent");
        QTest::addColumn<QMR::ServiceList>("kept");
        QTest::newRow("unknown among them") << QByteArray::fromHex("010702") << QMR::ServiceList{1, 2};
        QTest::newRow("twice") << QByteArray::fromHex("0202") << QMR::ServiceList{2, 2};
        QTest::newRow("descending") << QByteArray::fromHex("030201") << QMR::ServiceList{3, 2, 1};
        QTest::newRow("twice, apart")
            << QByteArray::fromHex("01ff0300010003") << QMR::ServiceList{1, 3, 1, 3};
        QTest::newRow("only unknown") << QByteArray::fromHex("0004ff80") << QMR::ServiceList{};
        QTest::newRow("255 of them") << QByteArray(255, '\3') << QMR::ServiceList(255, 3);
    }

    void keepsServicesInOrderWithDuplicates()
    {
        QFETCH(QByteArray, sent);
        QFETCH(QMR::ServiceList, kept);
        const auto count = static_cast<int>(sent.size());
        QCOMPARE(decoded(with(BasicWithoutServices, 16, count) + sent),
                 registration(Esn, 1, NoSuid, false, kept));
        QCOMPARE(decoded(with(ExtendedPending, 24, count) + sent), registration(Esn, 3, Suid, true, kept));
    }

    // 264 payload bytes are 9 and 255 services.
    void theLargestDatagramIsAnExtendedRegistration()
    {
        const QByteArray largest = with(ExtendedPending, 24, 255) + QByteArray(255, '\1');
        QCOMPARE(largest.size(), 280);
        QCOMPARE(decoded(withLength(largest, 264)),
                 registration(Esn, 3, Suid, true, QMR::ServiceList(255, 1)));
        const QByteArray basic = with(BasicWithoutServices, 16, 255) + QByteArray(263, '\1');
        QCOMPARE(basic.size(), 280);
        QCOMPARE(decoded(basic), InvalidRegistrationLength);
    }
};

QTEST_APPLESS_MAIN(TestQmrs)
#include "tst_qmrs.moc"
