// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/vectors.h"

#include "apps/applicationreader.h"
#include "tests/unit/qmrstext.h"
#include "tools/follow/format.h"

#include <QMap>

using namespace QMR;

// What is told to those who write radios and applications, against the codecs of server and tools.
class TestVectors : public QObject
{
    Q_OBJECT

    static const QString &rejection(const QString &name)
    {
        static const QMap<QString, QString> texts{
            {u"header"_s, QmrsText::InvalidHeader},
            {u"version"_s, QmrsText::InvalidOpcodeForVersion},
            {u"opcode"_s, QmrsText::InvalidOpcode},
            {u"deregistration-length"_s, QmrsText::InvalidDeregistrationLength},
            {u"registration-length"_s, QmrsText::InvalidRegistrationLength}};
        return *texts.constFind(name);
    }

    static QString meaning(const QJsonObject &vector)
    {
        if (vector.contains(u"registers"_s)) {
            const QJsonObject it = vector[u"registers"_s].toObject();
            return QmrsText::registration(it[u"esn"_s].toString().toLower(),
                                          static_cast<quint32>(it[u"version"_s].toInt()),
                                          it[u"suid"_s].toString().toLower(), it[u"pending"_s].toBool(),
                                          Vectors::services(it[u"services"_s]));
        }
        if (vector.contains(u"deregisters"_s)) {
            const QJsonValue esn = vector[u"deregisters"_s][u"esn"_s];
            return QmrsText::deregistration(esn.toString(QString(16, u'0')).toLower());
        }
        return rejection(vector[u"reject"_s].toString());
    }

    static QString text(const ApplicationReader::Reading &reading)
    {
        if (const auto *report = std::get_if<Qmra::RadioReport>(&reading)) {
            return text(*report);
        }
        if (const auto *fault = std::get_if<ApplicationReader::Fault>(&reading)) {
            return text(*fault);
        }
        return {};
    }
    static QString text(const Qmra::RadioReport &report)
    {
        return report.esn.text() + u' ' + QHostAddress(report.address).toString();
    }
    static QString text(ApplicationReader::Fault fault)
    {
        using Fault = ApplicationReader::Fault;
        static const QMap<Fault, QString> names{{Fault::InvalidHeader, u"header"_s},
                                                {Fault::UnsupportedVersion, u"version"_s},
                                                {Fault::InvalidLength, u"length"_s},
                                                {Fault::InvalidType, u"type"_s},
                                                {Fault::Timeout, u"timeout"_s}};
        return names[fault];
    }
    static QString outcome(const QJsonObject &it)
    {
        const QJsonObject report = it[u"reports"_s].toObject();
        return report.isEmpty() ? it[u"reject"_s].toString()
                                : report[u"esn"_s].toString() + u' ' + report[u"address"_s].toString();
    }

    static QStringList readAll(ApplicationReader &reader)
    {
        QStringList texts;
        while (reader.isReady()) {
            texts.append(text(reader.read()));
        }
        texts.removeAll(QString());
        return texts;
    }

private slots:
    void datagramsOfRadiosMeanThis_data() { Vectors::rows(u"qmrs"_s, u"radio"_s); }
    void datagramsOfRadiosMeanThis()
    {
        QFETCH(QJsonObject, vector);
        const QByteArray datagram = Vectors::bytes(vector[u"hex"_s]).left(Qmrs::MaximumMessage);
        QCOMPARE(QmrsText::decoded(datagram), meaning(vector));
    }

    void datagramsOfRadiosAreWritten_data()
    {
        Vectors::rows(u"qmrs"_s, u"radio"_s, [](const QJsonObject &vector) {
            const QJsonObject fields = vector[u"fields"_s].toObject();
            return !vector.contains(u"reject"_s) && fields[u"pending"_s].toInt() <= 1 &&
                   Qmrs::HeaderSize + fields[u"length"_s].toInt() == Vectors::bytes(vector[u"hex"_s]).size();
        });
    }
    void datagramsOfRadiosAreWritten()
    {
        QFETCH(QJsonObject, vector);
        const QJsonObject fields = vector[u"fields"_s].toObject();
        const quint8 version = Vectors::byte(fields[u"version"_s]);
        const auto esn = Vectors::identity<Esn>(fields[u"esn"_s]);
        const ServiceList services = Vectors::services(fields[u"services"_s]);
        QByteArray written;
        switch (static_cast<Qmrs::Opcode>(fields[u"opcode"_s].toInt())) {
        case Qmrs::Opcode::BasicRegistration:
            written = Qmrs::encodeBasicRegistration(version, esn, services);
            break;
        case Qmrs::Opcode::ExtendedRegistration:
            written =
                Qmrs::encodeExtendedRegistration(version, esn, Vectors::identity<Suid>(fields[u"suid"_s]),
                                                 fields[u"pending"_s].toInt() != 0, services);
            break;
        default:
            written = Qmrs::encodeDeregistration(version, esn);
        }
        QCOMPARE(written, Vectors::bytes(vector[u"hex"_s]));
    }

    void registrationsHaveTheirAnswer_data()
    {
        Vectors::rows(u"qmrs"_s, u"radio"_s,
                      [](const QJsonObject &vector) { return vector.contains(u"registers"_s); });
    }
    void registrationsHaveTheirAnswer()
    {
        QFETCH(QJsonObject, vector);
        const QJsonValue registered = vector[u"registers"_s];
        Qmrs::Buffer buffer{};
        Qmrs::writeHeader(buffer, Vectors::byte(registered[u"version"_s]),
                          Vectors::identity<Esn>(registered[u"esn"_s]), Qmrs::Opcode::Acknowledgement, 1);
        QCOMPARE(QByteArray(reinterpret_cast<const char *>(buffer.data()), Qmrs::HeaderSize + 1),
                 Vectors::bytes(vector[u"answer"_s]));
    }

    void suidsHaveTheirParts_data()
    {
        Vectors::rows(u"qmrs"_s, u"radio"_s,
                      [](const QJsonObject &vector) { return vector[u"fields"_s][u"suid"_s].isString(); });
    }
    void suidsHaveTheirParts()
    {
        QFETCH(QJsonObject, vector);
        const QJsonValue fields = vector[u"fields"_s];
        const auto suid = Vectors::identity<Suid>(fields[u"suid"_s]);
        QCOMPARE(static_cast<int>(suid.wacn()), fields[u"wacn"_s].toInt());
        QCOMPARE(static_cast<int>(suid.system()), fields[u"system"_s].toInt());
        QCOMPARE(static_cast<int>(suid.unit()), fields[u"unit"_s].toInt());
    }

    void datagramsOfTheServerAreUnderstood_data() { Vectors::rows(u"qmrs"_s, u"server"_s); }
    void datagramsOfTheServerAreUnderstood()
    {
        using Kind = Qmrs::ServerMessage::Kind;
        QFETCH(QJsonObject, vector);
        const auto message = Qmrs::decodeServerMessage(Vectors::bytes(vector[u"hex"_s]));
        if (vector.contains(u"invalid"_s)) {
            QCOMPARE(message.kind, Kind::Invalid);
            return;
        }
        const QJsonValue fields = vector[u"fields"_s];
        QCOMPARE(message.kind,
                 fields[u"opcode"_s].toInt() == 2 ? Kind::Acknowledgement : Kind::DiscoveryRequest);
        QCOMPARE(message.protocolVersion, Vectors::byte(fields[u"version"_s]));
        QCOMPARE(message.esn.text(), fields[u"esn"_s].toString());
    }

    void noticesMeanThis_data() { Vectors::rows(u"qmra"_s, u"server"_s); }
    void noticesMeanThis()
    {
        QFETCH(QJsonObject, vector);
        const QByteArray message = Vectors::bytes(vector[u"hex"_s]);
        const auto notice = Qmra::decodeNotice(QByteArrayView(message).sliced(Qmra::HeaderSize));
        QCOMPARE(notice.has_value(), !vector.contains(u"invalid"_s));
        if (!notice) {
            return;
        }
        const QJsonValue fields = vector[u"fields"_s];
        QCOMPARE(notice->esn.text(), fields[u"esn"_s].toString());
        QVERIFY(notice->suid == Vectors::identity<Suid>(fields[u"suid"_s]));
        QCOMPARE(notice->pending, fields[u"pending"_s].toInt() == 1);
        QCOMPARE(QHostAddress(notice->address).toString(), fields[u"address"_s].toString());
        QCOMPARE(notice->availability, Vectors::byte(fields[u"availability"_s]));
        QVERIFY(notice->services == Qmra::noticeServices(Vectors::services(fields[u"services"_s])));
        QCOMPARE(Follow::stateName(*notice), vector[u"state"_s].toString());
        QCOMPARE(Qmra::encodeNotice(*notice).view(), message);
    }

    void reportsAreWritten_data()
    {
        Vectors::rows(u"qmra"_s, u"application"_s,
                      [](const QJsonObject &vector) { return vector.contains(u"reports"_s); });
    }
    void reportsAreWritten()
    {
        QFETCH(QJsonObject, vector);
        const QJsonValue reports = vector[u"reports"_s];
        QCOMPARE(Qmra::encodeReport({Vectors::identity<Esn>(reports[u"esn"_s]),
                                     QHostAddress(reports[u"address"_s].toString()).toIPv4Address()}),
                 Vectors::bytes(vector[u"hex"_s]));
    }
    void messagesOfApplicationsMeanThis_data() { Vectors::rows(u"qmra"_s, u"application"_s); }
    void messagesOfApplicationsMeanThis()
    {
        QFETCH(QJsonObject, vector);
        ApplicationReader reader;
        reader.arrived(Vectors::bytes(vector[u"hex"_s]));
        const QString wanted = outcome(vector);
        QCOMPARE(readAll(reader), wanted.isEmpty() ? QStringList() : QStringList(wanted));
        QVERIFY(!reader.isAwaiting());
    }

    void streamsOfApplicationsMeanThis_data() { Vectors::rows(u"streams"_s, u"application"_s); }
    void streamsOfApplicationsMeanThis()
    {
        QFETCH(QJsonObject, vector);
        ApplicationReader reader;
        QStringList outcomes;
        const QJsonArray pieces = vector[u"pieces"_s].toArray();
        for (const auto &value : pieces) {
            const QJsonObject piece = value.toObject();
            if (piece[u"late"_s].toBool()) {
                QVERIFY(reader.isAwaiting());
                outcomes.append(text(reader.giveUpWaiting()));
            }
            reader.arrived(Vectors::bytes(piece[u"hex"_s]));
            outcomes += readAll(reader);
        }
        QStringList wanted;
        const QJsonArray all = vector[u"outcome"_s].toArray();
        for (const auto &value : all) {
            wanted.append(outcome(value.toObject()));
        }
        QCOMPARE(outcomes, wanted);
    }

    void limitsAreTheCodecs()
    {
        const QJsonObject whole = Vectors::description();
        const QJsonValue qmrs = whole[u"qmrs"_s];
        QCOMPARE(qmrs[u"headerSize"_s].toInt(), int{Qmrs::HeaderSize});
        QCOMPARE(qmrs[u"largestPayload"_s].toInt(), int{Qmrs::MaximumPayload});
        QCOMPARE(qmrs[u"limits"_s][u"largestDatagramBytes"_s].toInt(), int{Qmrs::MaximumMessage});
        const QJsonValue qmra = whole[u"qmra"_s];
        QCOMPARE(qmra[u"headerSize"_s].toInt(), static_cast<int>(Qmra::HeaderSize));
        QCOMPARE(qmra[u"largestPayload"_s].toInt(), int{Qmra::MaximumPayload});
        QCOMPARE(qmra[u"limits"_s][u"services"_s].toInt(), int{Qmra::MaximumServices});
        QCOMPARE(qmra[u"versions"_s].toArray(), QJsonArray{Qmra::ProtocolVersion});
    }

    // Whether there is a vector of each kind is not left to chance.
    void everythingHasAVector()
    {
        const QJsonObject whole = Vectors::description();
        for (const QString &protocol : {u"qmrs"_s, u"qmra"_s}) {
            const QString code = protocol == u"qmrs"_s ? u"opcode"_s : u"type"_s;
            QStringList missing;
            const QJsonArray messages = whole[protocol][u"messages"_s].toArray();
            for (const auto &value : messages) {
                const QJsonObject message = value.toObject();
                const QJsonArray versions = message[u"versions"_s].toArray();
                for (const auto &version : versions) {
                    missing.append(message[u"from"_s].toString() + u' ' +
                                   QString::number(message[u"code"_s].toInt()) + u" in "_s +
                                   QString::number(version.toInt()));
                }
            }
            const QJsonArray rejects = whole[protocol][u"rejects"_s].toArray();
            for (const auto &value : rejects) {
                missing.append(u"reject "_s + value.toObject()[u"name"_s].toString());
            }
            const QJsonArray vectors = whole[u"vectors"_s][protocol].toArray();
            for (const auto &value : vectors) {
                const QJsonObject vector = value.toObject();
                const QJsonValue fields = vector[u"fields"_s];
                if (vector.contains(u"reject"_s)) {
                    missing.removeAll(u"reject "_s + vector[u"reject"_s].toString());
                } else {
                    missing.removeAll(vector[u"from"_s].toString() + u' ' +
                                      QString::number(fields[code].toInt()) + u" in "_s +
                                      QString::number(fields[u"version"_s].toInt()));
                }
            }
            const QJsonArray streams = whole[u"vectors"_s][u"streams"_s].toArray();
            for (const auto &stream : streams) { // a time-out needs time, a vector has none
                const QJsonArray outcomes = stream[u"outcome"_s].toArray();
                for (const auto &outcome : outcomes) {
                    if (outcome[u"reject"_s].toString() == u"timeout"_s) {
                        missing.removeAll(u"reject timeout"_s);
                    }
                }
            }
            QCOMPARE(missing, QStringList());
        }
    }
};

QTEST_GUILESS_MAIN(TestVectors)
#include "tst_vectors.moc"
