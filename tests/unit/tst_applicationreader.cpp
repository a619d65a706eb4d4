// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "apps/applicationreader.h"

#include <QTest>

#include <random>

using namespace Qt::StringLiterals;
using QMR::ApplicationReader;
using QMR::Qmra::RadioReport;

namespace {

using Fault = ApplicationReader::Fault;

constexpr qsizetype Capacity = 64LL * 1024;

const QByteArray Magic = "QMRA"_ba;

QByteArray header(quint8 version, quint8 type, quint16 payloadLength)
{
    return Magic + static_cast<char>(version) + static_cast<char>(type) +
           static_cast<char>(payloadLength & 0xFF) + static_cast<char>(payloadLength >> 8);
}

QByteArray message(quint8 type, quint16 payloadLength, quint8 version = 4)
{
    return header(version, type, payloadLength) + QByteArray(payloadLength, '\x5A');
}

// The report of radio 0102030405060708 at 10.0.0.5, and what is read of it.
const QByteArray Report = QByteArray::fromHex("514d5241 04 02 0c00 0102030405060708 0500000a");
const QString ReportText = u"report 0102030405060708 0a000005"_s;

const QByteArray InvalidType = message(9, 0);
const QString InvalidTypeText = u"invalid type"_s;

QString text(const ApplicationReader::Reading &reading)
{
    if (const auto *report = std::get_if<RadioReport>(&reading)) {
        return u"report %1 %2"_s.arg(report->esn.text()).arg(report->address, 8, 16, QChar(u'0'));
    }
    if (const auto *fault = std::get_if<Fault>(&reading)) {
        switch (*fault) {
        case Fault::InvalidHeader:
            return u"invalid header"_s;
        case Fault::UnsupportedVersion:
            return u"unsupported version"_s;
        case Fault::InvalidLength:
            return u"invalid length"_s;
        case Fault::InvalidType:
            return InvalidTypeText;
        case Fault::Timeout:
            return u"timeout"_s;
        }
    }
    return QString();
}

// All that can be read, in order, but for what says nothing.
QStringList readAll(ApplicationReader &reader)
{
    QStringList texts;
    while (reader.isReady()) {
        texts.append(text(reader.read()));
    }
    texts.removeAll(QString());
    return texts;
}

QStringList arrives(ApplicationReader &reader, const QByteArray &bytes)
{
    reader.arrived(bytes);
    return readAll(reader);
}

} // namespace

class TestApplicationReader : public QObject
{
    Q_OBJECT

private slots:
    void nothingIsReadOfNothing()
    {
        const ApplicationReader reader;
        QVERIFY(!reader.isReady());
        QVERIFY(!reader.isAwaiting());
        QCOMPARE(reader.room(), Capacity);
    }

    void eachMessage_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("goesOn"); // with what came in the same arrival
        QTest::newRow("report") << Report << ReportText << true;
        for (const quint16 length : QList<quint16>{0, 1, 11, 13, 277}) {
            QTest::addRow("report of %d bytes", length) << message(2, length) << u"invalid length"_s << true;
        }
        for (const quint16 length : QList<quint16>{0, 1, 12, 277}) {
            QTest::addRow("type 3 of %d bytes", length) << message(3, length) << QString() << true;
            for (const quint8 type : QList<quint8>{0, 1, 4, 255}) {
                QTest::addRow("type %d of %d bytes", type, length)
                    << message(type, length) << InvalidTypeText << true;
            }
            for (const quint8 version : QList<quint8>{0, 1, 3}) {
                QTest::addRow("version %d of %d bytes", version, length)
                    << message(2, length, version) << u"unsupported version"_s << false;
            }
        }
        for (const quint16 length : QList<quint16>{278, 300, 65535}) {
            QTest::addRow("length %d", length) << header(4, 3, length) << u"invalid header"_s << false;
        }
        for (const quint8 version : QList<quint8>{5, 128, 255}) {
            QTest::addRow("version %d", version) << header(version, 2, 12) << u"invalid header"_s << false;
        }
        for (const char *magic : {"qMRA", "QmRA", "QMrA", "QMRa", "QMRS"}) {
            QTest::addRow("magic %s", magic)
                << magic + header(4, 3, 0).sliced(4) << u"invalid header"_s << false;
        }
    }
    // What stops a round has taken its own bytes and no others: the next arrival takes up what lies behind
    // them.
    void eachMessage()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, expected);
        QFETCH(bool, goesOn);
        QStringList atOnce{expected};
        QStringList later{ReportText};
        if (goesOn) {
            atOnce.append(InvalidTypeText);
        } else {
            later.prepend(InvalidTypeText);
        }
        atOnce.removeAll(QString());

        ApplicationReader reader;
        QCOMPARE(arrives(reader, bytes + InvalidType), atOnce);
        QVERIFY(!reader.isAwaiting());
        QCOMPARE(reader.room(), goesOn ? Capacity : Capacity - InvalidType.size());
        QCOMPARE(arrives(reader, Report), later);
        QVERIFY(!reader.isReady());
        QVERIFY(!reader.isAwaiting());
        QCOMPARE(reader.room(), Capacity);
    }

    void anyPiecesGiveTheSame()
    {
        const QByteArray stream = Report + message(3, 277) + message(2, 11) + InvalidType + message(3, 0) +
                                  message(200, 40) + Report;
        const QStringList expected{ReportText, u"invalid length"_s, InvalidTypeText, InvalidTypeText,
                                   ReportText};
        for (qsizetype first = 1; first < stream.size(); ++first) {
            ApplicationReader reader;
            QStringList texts = arrives(reader, stream.first(first));
            texts += arrives(reader, stream.sliced(first));
            QCOMPARE(texts, expected);
            QVERIFY(!reader.isAwaiting());
        }
        std::mt19937 random(20261121);
        for (int i = 0; i < 500; ++i) {
            ApplicationReader reader;
            QStringList texts;
            std::uniform_int_distribution<qsizetype> length(1, 1 + i % 40);
            for (QByteArrayView rest(stream); !rest.isEmpty();) {
                const qsizetype size = std::min(length(random), rest.size());
                texts += arrives(reader, rest.first(size).toByteArray());
                rest = rest.sliced(size);
            }
            QCOMPARE(texts, expected);
            QVERIFY(!reader.isAwaiting());
        }
    }

    void restIsAwaited()
    {
        for (qsizetype size = 1; size < Report.size(); ++size) {
            ApplicationReader reader;
            QCOMPARE(arrives(reader, Report.first(size)), QStringList());
            QVERIFY(reader.isAwaiting());
        }
    }

    void timeout_data()
    {
        QTest::addColumn<qsizetype>("size");
        QTest::addColumn<qsizetype>("kept");
        for (const qsizetype size : QList<qsizetype>{1, 7}) {
            QTest::addRow("header, %lld bytes", size) << size << size;
        }
        for (const qsizetype size : QList<qsizetype>{8, 9, 19}) {
            QTest::addRow("payload, %lld bytes", size - 8) << size << size - 8;
        }
    }
    // A header that is not whole stays; one whose payload does not come is gone, and its payload is read as
    // headers.
    void timeout()
    {
        QFETCH(qsizetype, size);
        QFETCH(qsizetype, kept);
        ApplicationReader reader;
        arrives(reader, Report.first(size));
        QCOMPARE(text(reader.giveUpWaiting()), u"timeout"_s);
        QVERIFY(!reader.isAwaiting());
        QVERIFY(!reader.isReady());
        QCOMPARE(reader.room(), Capacity - kept);

        if (size < 8) {
            QCOMPARE(arrives(reader, Report.sliced(size)), QStringList{ReportText});
        } else {
            QCOMPARE(arrives(reader, QByteArray(8, 'x')), QStringList{u"invalid header"_s});
        }
    }

    void unsupportedVersionWaitsForItsPayload()
    {
        ApplicationReader reader;
        QCOMPARE(arrives(reader, message(2, 12, 3).first(19)), QStringList());
        QVERIFY(reader.isAwaiting());
        QCOMPARE(arrives(reader, "\x5A"_ba), QStringList{u"unsupported version"_s});
        QVERIFY(!reader.isAwaiting());
    }

    void timeoutAgain()
    {
        ApplicationReader reader;
        arrives(reader, Report.first(2));
        reader.giveUpWaiting();
        arrives(reader, Report.sliced(2, 3));
        QVERIFY(reader.isAwaiting());
        reader.giveUpWaiting();
        QCOMPARE(arrives(reader, Report.sliced(5)), QStringList{ReportText});
    }

    // Nothing is searched for in what is none.
    void rubbishIsReadAHeaderAnArrival()
    {
        ApplicationReader reader;
        QCOMPARE(arrives(reader, QByteArray(80, 'x')), QStringList{u"invalid header"_s});
        QCOMPARE(reader.room(), Capacity - 72);
        QCOMPARE(arrives(reader, "x"_ba), QStringList{u"invalid header"_s});
        QCOMPARE(reader.room(), Capacity - 65);
    }

    void payloadIsNotTakenForAHeaderBeforeItIsWhole()
    {
        ApplicationReader reader;
        QCOMPARE(arrives(reader, header(4, 3, 16) + Report.first(8)), QStringList());
        QVERIFY(reader.isAwaiting());
        QCOMPARE(arrives(reader, Report.first(8) + Report), QStringList{ReportText});
    }

    void fullReaderCanAlwaysGoOn()
    {
        ApplicationReader reader;
        reader.arrived(QByteArray(Capacity, 'x'));
        QCOMPARE(reader.room(), 0);
        QCOMPARE(readAll(reader), QStringList{u"invalid header"_s});
        QCOMPARE(reader.room(), 8);
        QCOMPARE(arrives(reader, QByteArray(8, 'x')), QStringList{u"invalid header"_s});
        QCOMPARE(reader.room(), 8);
    }
};

QTEST_APPLESS_MAIN(TestApplicationReader)
#include "tst_applicationreader.moc"
