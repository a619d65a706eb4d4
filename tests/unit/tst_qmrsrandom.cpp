// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/unit/qmrstext.h"

#include <QMap>
#include <QTest>

#include <random>

using namespace Qt::StringLiterals;

using namespace QmrsText;

namespace {

constexpr int Datagrams = 200000;

quint8 at(const QByteArray &bytes, qsizetype offset)
{
    return static_cast<quint8>(bytes.at(offset));
}

QString hexOf(const QByteArray &bytes)
{
    return QString::fromLatin1(bytes.toHex());
}

// The protocol's tables, written down a second time: what a datagram means, in words.
QString meaningOf(const QByteArray &datagram)
{
    if (datagram.size() < 16 || datagram.first(4) != "QMRS" || at(datagram, 4) < 1 || at(datagram, 4) > 3 ||
        at(datagram, 14) + 256 * at(datagram, 15) > 264) {
        return InvalidHeader;
    }
    const quint8 version = at(datagram, 4);
    QByteArray esn = datagram.sliced(5, 8);
    const quint8 opcode = at(datagram, 13);
    const QByteArray payload = datagram.sliced(16);
    if (opcode == 3) {
        return payload.isEmpty() ? deregistration(hexOf(esn)) : InvalidDeregistrationLength;
    }
    if (opcode != 1 && opcode != 5) {
        return InvalidOpcode;
    }
    if (opcode == 5 && version == 1) {
        return InvalidOpcodeForVersion;
    }
    const qsizetype fixed = opcode == 5 ? 9 : 1;
    if (payload.size() < fixed || payload.size() != fixed + at(payload, fixed - 1)) {
        return InvalidRegistrationLength;
    }
    QMR::ServiceList services;
    for (qsizetype i = fixed; i < payload.size(); ++i) {
        if (at(payload, i) - 1U < 3U) {
            services.push_back(at(payload, i));
        }
    }
    if (opcode == 1) {
        return registration(hexOf(esn), 1, hexOf(QByteArray(7, '\0')), false, services);
    }
    const QByteArray suid = payload.first(7);
    if (esn == QByteArray(8, '\0')) {
        esn = '\xF1' + suid;
    }
    return registration(hexOf(esn), version, hexOf(suid), version == 3 && at(payload, 7) != 0, services);
}

class DatagramSource
{
public:
    QByteArray next()
    {
        QByteArray datagram = below(8) == 0 ? noise(below(281)) : sensible();
        for (int spoiled = below(3); spoiled > 0 && !datagram.isEmpty(); --spoiled) {
            datagram[below(static_cast<int>(datagram.size()))] = static_cast<char>(below(256));
        }
        if (below(4) == 0) {
            datagram.truncate(below(static_cast<int>(datagram.size()) + 1));
        } else if (below(4) == 0) {
            datagram.append(noise(1 + below(3)));
        }
        datagram.truncate(280);
        datagram.squeeze(); // its end is the end of the memory, for the sanitizers
        return datagram;
    }

private:
    // Deterministic on every platform, unlike the standard distributions.
    int below(int limit) { return static_cast<int>(generator() % static_cast<unsigned>(limit)); }

    QByteArray noise(int size)
    {
        QByteArray bytes(size, Qt::Uninitialized);
        for (char &byte : bytes) {
            byte = static_cast<char>(below(256));
        }
        return bytes;
    }

    QByteArray sensible()
    {
        QByteArray datagram("QMRS");
        datagram.append(static_cast<char>(below(5)));
        datagram.append(below(3) == 0 ? QByteArray(8, '\0') : noise(8));
        const int opcode = below(7);
        datagram.append(static_cast<char>(opcode));
        datagram.append(below(4) == 0 ? noise(2) : QByteArray::fromHex("0801"));
        const int count = below(8) == 0 ? below(256) : below(6);
        if (opcode == 5) {
            datagram.append(noise(7)).append(static_cast<char>(below(3)));
        }
        if (opcode == 1 || opcode == 5) {
            datagram.append(static_cast<char>(count));
            for (int i = 0; i < count; ++i) {
                datagram.append(static_cast<char>(below(6)));
            }
        }
        return datagram;
    }

    std::mt19937 generator{20260601};
};

} // namespace

class TestQmrsRandom : public QObject
{
    Q_OBJECT

private slots:
    void decodesAnyDatagramAsTheTablesSay()
    {
        DatagramSource source;
        QMap<QString, int> kinds;
        for (int i = 0; i < Datagrams; ++i) {
            const QByteArray datagram = source.next();
            const QString expected = meaningOf(datagram);
            if (decoded(datagram) != expected) {
                QFAIL(qPrintable(u"%1: %2 is not %3"_s.arg(hexOf(datagram), decoded(datagram), expected)));
            }
            ++kinds[expected.section(u' ', 0, expected.startsWith(u"invalid") ? -1 : 0)];
        }
        // Every outcome has really been met, many times.
        QCOMPARE(kinds.size(), 7);
        for (auto kind = kinds.cbegin(); kind != kinds.cend(); ++kind) {
            QVERIFY2(kind.value() > 500, qPrintable(kind.key()));
        }
    }
};

QTEST_APPLESS_MAIN(TestQmrsRandom)
#include "tst_qmrsrandom.moc"
