// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/testserver.h"

#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTcpServer>
#include <QUdpSocket>

namespace {

char programName[] = "quillmere";
char *arguments[] = {programName, nullptr};

} // namespace

TestServer::TestServer()
    : server(std::make_unique<QMR::Quillmere>(1, arguments)), radioPort(freeUdpPort()), tcpPort(freeTcpPort())
{
    configure();
}

TestServer::~TestServer()
{
    stop();
}

void TestServer::configure(const QByteArray &more) const
{
    folder.writeConfiguration("radioRegistrationPort=" + QByteArray::number(radioPort) +
                              "\napplicationPort=" + QByteArray::number(tcpPort) + "\n" + more);
}

void TestServer::start()
{
    server->start();
    log.take();
}

void TestServer::restart()
{
    stop();
    server.reset();
    server = std::make_unique<QMR::Quillmere>(1, arguments);
    start();
}

void TestServer::stop()
{
    server->stop();
}

void TestServer::expire(const char *slot) const
{
    if (!QMetaObject::invokeMethod(server.get(), slot, Qt::DirectConnection)) {
        qFatal("no slot %s", slot);
    }
}

QList<QVariantList> TestServer::query(const QString &statement) const
{
    return runSql(folder.databaseFile(), statement);
}

quint16 freeUdpPort()
{
    QUdpSocket socket;
    socket.bind(quint16{0}, QAbstractSocket::DefaultForPlatform);
    return socket.localPort();
}

quint16 freeTcpPort()
{
    QTcpServer server;
    server.listen(QHostAddress::AnyIPv4, 0);
    return server.serverPort();
}

QList<QVariantList> runSql(const QString &databaseFile, const QString &statement)
{
    const QString connection = QStringLiteral("test");
    QList<QVariantList> rows;
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
        database.setDatabaseName(databaseFile);
        if (!database.open()) {
            qFatal("cannot open %s", qPrintable(databaseFile));
        }
        QSqlQuery query(database);
        if (!query.exec(statement)) {
            qFatal("%s: %s", qPrintable(statement), qPrintable(query.lastError().text()));
        }
        while (query.next()) {
            QVariantList row;
            for (int i = 0; i < query.record().count(); ++i) {
                row.append(query.value(i));
            }
            rows.append(row);
        }
    }
    QSqlDatabase::removeDatabase(connection);
    return rows;
}
