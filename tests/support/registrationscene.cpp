// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/registrationscene.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

constexpr quint8 WitnessSerial = 0xFE;
const QString AllRows =
    u"SELECT hex(substr(esn, 8)), ip_address, hex(suid), "
    "(SELECT group_concat(service) FROM (SELECT service FROM supported_services "
    "WHERE subscriber_id = subscribers.id ORDER BY rowid)), protocol_version, availability, "
    "last_contact_time FROM subscribers WHERE hex(substr(esn, 8)) <> 'FE' ORDER BY esn"_s;

template<size_t Size>
QString hex(const std::array<quint8, Size> &bytes)
{
    return QString::fromLatin1(
        QByteArray(reinterpret_cast<const char *>(bytes.data()), Size).toHex().toUpper());
}

template<typename List>
QString codes(const List &services)
{
    QStringList texts;
    for (const auto service : services) {
        texts.append(QString::number(service));
    }
    return texts.join(u',');
}

QString noticeText(const Notice &notice)
{
    return u"%1: %2 %3 suid %4 services %5 state %6"_s.arg(
        hex(notice.esn.bytes).last(2), notice.pending ? u"pending"_s : u"confirmed"_s,
        QHostAddress(notice.address).toString(), hex(notice.suid.bytes), codes(notice.services),
        QString::number(notice.availability));
}

} // namespace

RegistrationScene::RegistrationScene()
    : begin(server.clock.seconds()), witness(server.registrationPort(), WitnessSerial, u"127.0.0.250"_s)
{
    server.start();
    connectApplication();
    settle();
}

void RegistrationScene::connectApplication()
{
    application = std::make_unique<ScriptedApplication>(server.applicationPort());
    const QString connected = u"Application connected from 127.0.0.1"_s;
    if (!QTest::qWaitFor([&] { return server.log.count(connected) == 1; })) {
        qFatal("the application is not served");
    }
    server.log.take();
}

void RegistrationScene::restart()
{
    application.reset();
    server.restart();
    connectApplication();
    settle();
}

RegistrationScene::Outcome RegistrationScene::settle()
{
    witness.registers();
    if (!witness.isAcknowledged()) {
        qFatal("the server does not answer");
    }
    Outcome outcome;
    outcome.log = server.log.takeMessages();
    if (outcome.log.isEmpty() || outcome.log.takeLast() != witness.registeredText()) {
        qFatal("the witness is not on record");
    }
    while (true) {
        const QList<Notice> notices = application->receives(1);
        if (notices.isEmpty()) {
            qFatal("the witness is not announced");
        }
        if (notices[0].esn != witness.esn) {
            outcome.notices.append(noticeText(notices[0]));
        } else if (notices[0].availability == QMR::Registered) {
            return outcome;
        }
    }
}

QString RegistrationScene::known(const QMR::Esn &esn) const
{
    const QMR::RadioPointer radio = server->findRadio(esn);
    if (!radio) {
        return u"gone"_s;
    }
    QStringList texts;
    if (!radio->address.isNull()) {
        texts.append(u"%1 suid %2 services %3 version %4 state %5"_s.arg(
            radio->address.toString(), hex(radio->suid.bytes), codes(radio->supportedServices),
            QString::number(radio->protocolVersion), QString::number(radio->availability)));
    }
    if (!radio->pendingAddress.isNull()) {
        texts.append(u"pending %1 suid %2 services %3 for %4 s"_s.arg(
            radio->pendingAddress.toString(), hex(radio->pendingSuid.bytes), codes(radio->pendingServices),
            QString::number(server.clock.now().secsTo(radio->pendingDeadline))));
    }
    const auto isIn = [&radio](const auto &queue) {
        return std::find(queue.begin(), queue.end(), radio) != queue.end();
    };
    if (isIn(server->dueForDiscovery())) {
        texts.append(u"searched for"_s);
    }
    if (isIn(server->awaitingConfirmation()) == radio->pendingAddress.isNull()) {
        texts.append(u"in the wrong queue"_s);
    }
    return texts.join(u"; "_s);
}

QStringList RegistrationScene::stored() const
{
    return textOf(server.query(AllRows));
}

QStringList RegistrationScene::written() const
{
    return textOf(TestServer::queryUncommitted(AllRows));
}

QStringList RegistrationScene::textOf(const QList<QVariantList> &rows) const
{
    QStringList texts;
    for (const QVariantList &row : rows) {
        texts.append(u"%1: %2 suid %3 services %4 version %5 state %6 heard %7"_s.arg(
            row[0].toString(), QHostAddress(row[1].toUInt()).toString(), row[2].toString(), row[3].toString(),
            row[4].toString(), row[5].toString(), QString::number(row[6].toLongLong() - begin)));
    }
    return texts;
}

QString registeredText(const QString &serial, const QString &suidText, const QString &address)
{
    return u"Radio 0011AABB22CC33%1 with SUID %2 registered with address %3"_s.arg(serial, suidText, address);
}

QString deregisteredText(const QString &serial, const QString &suidText, const QString &address)
{
    return u"Radio 0011AABB22CC33%1 with SUID %2 deregistered from address %3"_s.arg(serial, suidText,
                                                                                     address);
}
