// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/qmra.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

using QMR::Esn;
using QMR::ServiceList;
using QMR::Suid;
namespace Qmra = QMR::Qmra;

namespace {

constexpr Esn SomeEsn{{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD}};
constexpr Suid SomeSuid{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};

// ESN, SUID, not pending, 10.0.0.5, registered; the services follow.
const QByteArray Fixed = QByteArray::fromHex("0011aabb22cc33dd 123456789abcde 00 0500000a 03");

// Of the radio of Fixed.
Qmra::RadioNotice radioNotice(const ServiceList &services)
{
    return {SomeEsn, SomeSuid, false, 0x0A000005, QMR::Registered, Qmra::noticeServices(services)};
}

QByteArray encoded(const Qmra::RadioNotice &notice)
{
    return Qmra::encodeNotice(notice).view().toByteArray();
}

// 0, 1, 2 … so that an exchanged or shifted service shows.
ServiceList countingServices(quint32 count)
{
    ServiceList services(count);
    std::generate(services.begin(), services.end(), [next = 0U]() mutable { return next++; });
    return services;
}

QByteArray countingBytes(int count)
{
    QByteArray result;
    for (int i = 0; i < count; ++i) {
        result.append(static_cast<char>(i));
    }
    return result;
}

} // namespace

class TestQmra : public QObject
{
    Q_OBJECT

private slots:
    void noticeOfConfirmedRadioIs32Bytes()
    {
        QCOMPARE(encoded(radioNotice({1, 3})).toHex(' '), "51 4d 52 41 04 01 18 00 "
                                                          "00 11 aa bb 22 cc 33 dd "
                                                          "12 34 56 78 9a bc de "
                                                          "00 "
                                                          "05 00 00 0a "
                                                          "03 "
                                                          "02 01 03"_ba);
    }

    void noticeCarriesWhatItIsGiven_data()
    {
        QTest::addColumn<bool>("pending");
        QTest::addColumn<quint32>("address");
        QTest::addColumn<quint8>("availability");
        QTest::addColumn<QByteArray>("tail"); // pending, address, availability, no services
        QTest::newRow("pending") << true << 0xC0A80001U << quint8{QMR::Registered}
                                 << QByteArray::fromHex("01 0100a8c0 03 00");
        QTest::newRow("unconfirmed") << false << 0x7F000002U << quint8{QMR::Unconfirmed}
                                     << QByteArray::fromHex("00 0200007f 02 00");
        QTest::newRow("unreachable") << false << 0xFFFEFDFCU << quint8{QMR::Unreachable}
                                     << QByteArray::fromHex("00 fcfdfeff 01 00");
        QTest::newRow("gone") << false << 0U << quint8{QMR::Deregistered}
                              << QByteArray::fromHex("00 00000000 00 00");
        QTest::newRow("any availability")
            << false << 1U << quint8{0xFF} << QByteArray::fromHex("00 01000000 ff 00");
    }

    void noticeCarriesWhatItIsGiven()
    {
        QFETCH(bool, pending);
        QFETCH(quint32, address);
        QFETCH(quint8, availability);
        QFETCH(QByteArray, tail);
        QCOMPARE(encoded({SomeEsn, SomeSuid, pending, address, availability, {}}),
                 QByteArray::fromHex("514d5241 04 01 1600 0011aabb22cc33dd 123456789abcde") + tail);
    }

    void serviceCountIsTakenModulo256_data()
    {
        QTest::addColumn<quint32>("given");
        QTest::addColumn<int>("sent");
        QTest::addColumn<QByteArray>("length"); // as in the header
        QTest::newRow("0") << 0U << 0 << QByteArray::fromHex("1600");
        QTest::newRow("1") << 1U << 1 << QByteArray::fromHex("1700");
        QTest::newRow("255") << 255U << 255 << QByteArray::fromHex("1501");
        QTest::newRow("256") << 256U << 0 << QByteArray::fromHex("1600");
        QTest::newRow("300") << 300U << 44 << QByteArray::fromHex("4200");
    }

    void serviceCountIsTakenModulo256()
    {
        QFETCH(quint32, given);
        QFETCH(int, sent);
        QFETCH(QByteArray, length);
        QCOMPARE(encoded(radioNotice(countingServices(given))), QByteArray::fromHex("514d5241 04 01") +
                                                                    length + Fixed + static_cast<char>(sent) +
                                                                    countingBytes(sent));
    }

    void servicesAreSentByTheirLowByteInOrder()
    {
        QCOMPARE(encoded(radioNotice({0x102, 3, 0xFFFFFF01, 3})).sliced(29),
                 QByteArray::fromHex("04 02 03 01 03"));
    }

    void headerIsDecoded()
    {
        const Qmra::Header header = Qmra::decodeHeader(QByteArray::fromHex("514d5241 04 02 0c00"));
        QVERIFY(header.magicMatches);
        QCOMPARE(header.protocolVersion, quint8{4});
        QCOMPARE(header.messageType, quint8{2});
        QCOMPARE(header.payloadLength, quint16{12});

        const Qmra::Header other = Qmra::decodeHeader(QByteArray::fromHex("514d5241 ff fe 1501"));
        QVERIFY(other.magicMatches);
        QCOMPARE(other.protocolVersion, quint8{0xFF});
        QCOMPARE(other.messageType, quint8{0xFE});
        QCOMPARE(other.payloadLength, quint16{277});
    }

    void magicMustMatchInEveryByteAndCase()
    {
        const QByteArray good = QByteArray::fromHex("514d5241 04 02 0c00");
        for (const qsizetype i : {0, 1, 2, 3}) {
            QByteArray bad = good;
            bad[i] = static_cast<char>(bad[i] ^ 0x20); // the other case
            QVERIFY2(!Qmra::decodeHeader(bad).magicMatches, bad.toHex().constData());
        }
        QVERIFY(!Qmra::decodeHeader(QByteArray(8, '\0')).magicMatches);
    }

    void reportIsDecoded()
    {
        const auto report = Qmra::decodeReport(QByteArray::fromHex("0011aabb22cc33dd 0100a8c0"));
        QCOMPARE(report.esn.text(), SomeEsn.text());
        QCOMPARE(report.address, 0xC0A80001U);
    }

    void reportIsEncoded()
    {
        QCOMPARE(Qmra::encodeReport({SomeEsn, 0xC0A80001}),
                 QByteArray::fromHex("514d5241 04 02 0c00 0011aabb22cc33dd 0100a8c0"));
    }

    void noticeIsDecodedByAnApplication()
    {
        const auto decoded = Qmra::decodeNotice(
            QByteArray::fromHex("0011aabb22cc33dd 123456789abcde 01 0100a8c0 03 03 01ff02"));
        QVERIFY(decoded);
        QCOMPARE(decoded->esn.text(), SomeEsn.text());
        QCOMPARE(decoded->suid.text(), SomeSuid.text());
        QVERIFY(decoded->pending);
        QCOMPARE(decoded->address, 0xC0A80001U);
        QCOMPARE(decoded->availability, quint8{QMR::Registered});
        QCOMPARE(decoded->services, (Qmra::NoticeServices{1, 0xFF, 2}));

        const QByteArray confirmed = Fixed + '\0';
        QVERIFY(!Qmra::decodeNotice(confirmed)->pending);
    }

    void noticesOfEveryServiceCountAreDecoded()
    {
        for (int count = 0; count <= 255; ++count) {
            const QByteArray payload = Fixed + static_cast<char>(count) + countingBytes(count);
            const auto decoded = Qmra::decodeNotice(payload);
            QVERIFY2(decoded, qPrintable(QString::number(count)));
            QCOMPARE(QByteArrayView(decoded->services).toByteArray(), countingBytes(count));
        }
    }

    void decodedNoticeIsTheOneThatWasEncoded()
    {
        const Qmra::RadioNotice confirmed = radioNotice({3, 1, 3});
        Qmra::RadioNotice awaiting = radioNotice({});
        awaiting.pending = true;
        Qmra::RadioNotice ofManyServices = radioNotice(countingServices(255));
        ofManyServices.availability = 0xFF;
        for (const Qmra::RadioNotice &notice : {confirmed, awaiting, ofManyServices}) {
            QVERIFY(Qmra::decodeNotice(Qmra::encodeNotice(notice).view().sliced(Qmra::HeaderSize)) == notice);
        }
        QVERIFY(confirmed != awaiting);
    }

    void reportIsDecodedAsItWasEncoded()
    {
        const Qmra::RadioReport report{SomeEsn, 0xC0A80001};
        QVERIFY(Qmra::decodeReport(QByteArrayView(Qmra::encodeReport(report)).sliced(Qmra::HeaderSize)) ==
                report);
    }

    void truncatedNoticeIsNone()
    {
        const QByteArray whole = Fixed + QByteArray::fromHex("03 010203");
        QVERIFY(Qmra::decodeNotice(whole));
        for (qsizetype size = 0; size < whole.size(); ++size) {
            QVERIFY2(!Qmra::decodeNotice(whole.first(size)), qPrintable(QString::number(size)));
        }
    }

    void noticeWithBytesLeftOverIsNone()
    {
        for (const char *services : {"03 01020304", "00 00"}) {
            const QByteArray payload = Fixed + QByteArray::fromHex(services);
            QVERIFY2(!Qmra::decodeNotice(payload), services);
        }
    }
};

QTEST_APPLESS_MAIN(TestQmra)
#include "tst_qmra.moc"
