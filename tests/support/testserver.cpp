// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTcpServer>
#include <QTimerEvent>
#include <QUdpSocket>

using namespace Qt::StringLiterals;

namespace {

char programName[] = "quillmere";
char *arguments[] = {programName, nullptr};

// Below the ports that systems give out by themselves, and each process at a place of its own: neither a
// socket of this test nor a test that runs beside it takes the port before the server does.
template<typename Socket, typename Bind>
quint16 freePort(Bind bind)
{
    constexpr quint16 First = 10000;
    constexpr quint16 Count = 20000;
    constexpr int Spread = 16;
    static auto next = static_cast<quint16>(QCoreApplication::applicationPid() * Spread % Count);
    for (int tries = 0; tries < Count; ++tries) {
        const auto port = static_cast<quint16>(First + next);
        next = static_cast<quint16>((next + 1) % Count);
        Socket socket;
        if (bind(socket, port)) {
            return port;
        }
    }
    qFatal("no free port");
}

} // namespace

TestServer::TestServer()
    : server(std::make_unique<QMR::Quillmere>(1, arguments)), radioPort(freeUdpPort()), tcpPort(freeTcpPort())
{
    configure();
}

TestServer::~TestServer()
{
    log.whenWritten({}); // what it refers to may be gone by now
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

void TestServer::startWithoutDiscovery()
{
    configure("minimumDiscoveryPeriod=2147483647\n");
    start();
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

void TestServer::expireHeartbeat() const
{
    const size_t most = server->awaitingConfirmation().size(); // a slice has one radio at least
    expire("eventHeartbeatTimerExpired");
    for (size_t slices = 1; slices < most; ++slices) {
        QCoreApplication::sendPostedEvents(server.get(), QEvent::MetaCall);
    }
}

void TestServer::expireRetry() const
{
    QTimerEvent expired(server->timerForRetry().timerId());
    QCoreApplication::sendEvent(const_cast<QTimer *>(&server->timerForRetry()), &expired);
}

QList<QVariantList> TestServer::query(const QString &statement) const
{
    return runSql(folder.databaseFile(), statement);
}

QList<QVariantList> TestServer::queryUncommitted(const QString &statement)
{
    return runSql(QSqlDatabase::database(), statement);
}

quint16 freeUdpPort()
{
    return freePort<QUdpSocket>([](QUdpSocket &socket, quint16 port) { return socket.bind(port); });
}

quint16 freeTcpPort()
{
    return freePort<QTcpServer>(
        [](QTcpServer &socket, quint16 port) { return socket.listen(QHostAddress::AnyIPv4, port); });
}

QList<QVariantList> runSql(const QString &databaseFile, const QString &statement)
{
    const QString connection = u"test"_s;
    QList<QVariantList> rows;
    {
        QSqlDatabase database = QSqlDatabase::addDatabase(u"QSQLITE"_s, connection);
        database.setDatabaseName(databaseFile);
        if (!database.open()) {
            qFatal("cannot open %s", qPrintable(databaseFile));
        }
        rows = runSql(database, statement);
    }
    QSqlDatabase::removeDatabase(connection);
    return rows;
}

QList<QVariantList> runSql(const QSqlDatabase &database, const QString &statement)
{
    QList<QVariantList> rows;
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
    return rows;
}
