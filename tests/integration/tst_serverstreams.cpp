// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/vectors.h"

#include "tools/follow/connection.h"
#include "tools/follow/format.h"
#include "tools/follow/keepalive.h"

#include <QTcpServer>
#include <QTcpSocket>

using namespace Qt::StringLiterals;

// What a server may send, and where an application has to connect anew.
class TestServerStreams : public QObject
{
    Q_OBJECT

    // In words that a vector's outcome can be put into as well.
    static QString outcome(const QJsonObject &it)
    {
        if (it.contains(u"lost"_s)) {
            return u"lost"_s;
        }
        const QJsonArray all = Vectors::description()[u"vectors"_s][u"qmra"_s].toArray();
        const auto isIt = [&it](const auto &vector) { return vector[u"name"_s] == it[u"notice"_s]; };
        const auto vector = std::find_if(all.begin(), all.end(), isIt);
        if (vector == all.end()) {
            throw std::logic_error("an outcome that is no vector");
        }
        const QJsonValue fields = (*vector)[u"fields"_s];
        QStringList services;
        const QJsonArray codes = fields[u"services"_s].toArray();
        for (const auto &code : codes) {
            services.append(QString::number(code.toInt()));
        }
        return fields[u"esn"_s].toString() + u' ' + (*vector)[u"state"_s].toString() + u' ' +
               services.join(u',');
    }
    static QString text(const QMR::Qmra::RadioNotice &notice)
    {
        return notice.esn.text() + u' ' + Follow::stateName(notice) + u' ' +
               Follow::servicesText(notice.services);
    }

    // pieces: each is sent by itself; TCP may still put some together.
    static QStringList outcomes(const QList<QByteArray> &pieces, qsizetype wanted)
    {
        QTcpServer server;
        if (!server.listen(QHostAddress::LocalHost)) {
            return {server.errorString()};
        }
        Follow::Connection connection({server.serverAddress(), server.serverPort()});
        QStringList told;
        bool isConnected = false;
        connection.onConnected = [&isConnected] { isConnected = true; };
        connection.onNotice = [&told](const auto &notice) { told.append(text(notice)); };
        connection.onLost = [&told, &connection](const QString &, qint64) {
            told.append(u"lost"_s);
            connection.stop();
        };
        connection.open();
        [&] { QTRY_VERIFY(isConnected && server.hasPendingConnections()); }();
        QTcpSocket *end = server.nextPendingConnection();
        for (const QByteArray &piece : pieces) {
            end->write(piece);
            end->flush();
            QCoreApplication::processEvents();
        }
        [&] { QTRY_COMPARE(told.size(), wanted); }();
        return told;
    }

private slots:
    void streamsMeanThis_data() { Vectors::rows(u"streams"_s, u"server"_s); }
    void streamsMeanThis()
    {
        QFETCH(QJsonObject, vector);
        QList<QByteArray> pieces;
        const QJsonArray written = vector[u"pieces"_s].toArray();
        for (const auto &piece : written) {
            pieces.append(Vectors::bytes(piece[u"hex"_s]));
        }
        QStringList wanted;
        const QJsonArray all = vector[u"outcome"_s].toArray();
        for (const auto &it : all) {
            wanted.append(outcome(it.toObject()));
        }
        QCOMPARE(outcomes(pieces, wanted.size()), wanted);
    }

    void noticeThatContradictsItselfEndsTheConnection_data()
    {
        Vectors::rows(u"qmra"_s, u"server"_s,
                      [](const QJsonObject &vector) { return vector.contains(u"invalid"_s); });
    }
    void noticeThatContradictsItselfEndsTheConnection()
    {
        QFETCH(QJsonObject, vector);
        QCOMPARE(outcomes({Vectors::bytes(vector[u"hex"_s])}, 1), QStringList{u"lost"_s});
    }

    void systemIsToldToAskAfterTheServer()
    {
        QTcpServer server;
        QVERIFY(server.listen(QHostAddress::LocalHost));
        QTcpSocket socket;
        socket.connectToHost(server.serverAddress(), server.serverPort());
        QTRY_COMPARE(socket.state(), QAbstractSocket::ConnectedState);
        QCOMPARE(socket.socketOption(QAbstractSocket::KeepAliveOption).toInt(), 0);
        Follow::keepAlive(socket.socketDescriptor());
        QCOMPARE(socket.socketOption(QAbstractSocket::KeepAliveOption).toInt(), 1);
    }
};

QTEST_GUILESS_MAIN(TestServerStreams)
#include "tst_serverstreams.moc"
