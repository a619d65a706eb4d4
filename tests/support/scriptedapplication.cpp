// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/scriptedapplication.h"

#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qsizetype HeaderSize = 8;

QByteArray littleEndian(quint32 value)
{
    QByteArray bytes;
    for (int shift = 0; shift < 32; shift += 8) {
        bytes.append(static_cast<char>(value >> shift));
    }
    return bytes;
}

quint8 at(const QByteArray &bytes, qsizetype offset)
{
    return static_cast<quint8>(bytes.at(offset));
}

} // namespace

char *toString(const Notice &notice)
{
    const QString text = u"%1 %2 pending %3 address %4 availability %5 services %6"_s
                             .arg(notice.esn.text(), notice.suid.text())
                             .arg(notice.pending)
                             .arg(QHostAddress(notice.address).toString())
                             .arg(notice.availability)
                             .arg(QString::fromLatin1(notice.services.toHex()));
    return qstrdup(text.toUtf8().constData());
}

ScriptedApplication::ScriptedApplication(quint16 serverPort)
{
    socket.connectToHost(QHostAddress::LocalHost, serverPort);
    if (!socket.waitForConnected()) {
        qFatal("cannot connect to port %d", serverPort);
    }
}

std::optional<Notice> noticeAt(const QByteArray &bytes, qsizetype offset)
{
    if (bytes.size() < offset + HeaderSize) {
        return std::nullopt;
    }
    const QByteArray header = bytes.sliced(offset, HeaderSize);
    const qsizetype length = at(header, 6) | at(header, 7) << 8;
    if (bytes.size() < offset + HeaderSize + length) {
        return std::nullopt;
    }
    const QByteArray payload = bytes.sliced(offset + HeaderSize, length);
    if (!header.startsWith("QMRA\x04\x01") || length < 22 || length != 22 + at(payload, 21)) {
        qFatal("not a notice: %s %s", header.toHex().constData(), payload.toHex().constData());
    }
    Notice notice;
    std::copy_n(payload.begin(), 8, notice.esn.bytes.begin());
    std::copy_n(payload.begin() + 8, 7, notice.suid.bytes.begin());
    notice.pending = at(payload, 15) != 0;
    notice.address = quint32{at(payload, 16)} | quint32{at(payload, 17)} << 8 |
                     quint32{at(payload, 18)} << 16 | quint32{at(payload, 19)} << 24;
    notice.availability = at(payload, 20);
    notice.services = payload.sliced(22);
    return notice;
}

std::optional<Notice> ScriptedApplication::nextNotice()
{
    constexpr qint64 LargestNotice = HeaderSize + 277;
    std::optional<Notice> notice = noticeAt(socket.peek(LargestNotice), 0);
    if (notice) {
        socket.skip(HeaderSize + 22 + notice->services.size());
    }
    return notice;
}

QList<Notice> ScriptedApplication::receives(qsizetype count)
{
    QList<Notice> notices;
    const auto takesOne = [this, &notices] {
        const std::optional<Notice> notice = nextNotice();
        if (notice) {
            notices.append(*notice);
        }
        return notice.has_value();
    };
    while (notices.size() < count && QTest::qWaitFor(takesOne)) {
    }
    return notices;
}

bool ScriptedApplication::sees(const ScriptedRadio &radio, int availability, const QByteArray &services)
{
    const Notice expected{radio.esn,    radio.suid, false, radio.address().toIPv4Address(),
                          availability, services};
    return receives(1) == QList<Notice>{expected};
}

bool ScriptedApplication::seesPending(const ScriptedRadio &radio, const QByteArray &services)
{
    return receives(1) ==
           QList<Notice>{{radio.esn, radio.suid, true, radio.address().toIPv4Address(), 3, services}};
}

bool ScriptedApplication::seesGone(const ScriptedRadio &radio)
{
    const QList<Notice> notices = receives(1);
    return notices.size() == 1 && notices[0].esn == radio.esn && notices[0].availability == 0 &&
           notices[0].address == 0 && !notices[0].pending;
}

void ScriptedApplication::reports(const QMR::Esn &esn, const QHostAddress &address)
{
    const QByteArray esnBytes(reinterpret_cast<const char *>(esn.bytes.data()), 8);
    sends(message(2, esnBytes + littleEndian(address.toIPv4Address())));
}

void ScriptedApplication::sends(const QByteArray &bytes)
{
    socket.write(bytes);
}

QByteArray ScriptedApplication::message(quint8 type, const QByteArray &payload, quint8 version)
{
    QByteArray bytes("QMRA");
    bytes.append(static_cast<char>(version)).append(static_cast<char>(type));
    bytes.append(static_cast<char>(payload.size() & 0xFF)).append(static_cast<char>(payload.size() >> 8));
    return bytes + payload;
}
