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

// A block of ports of this process's own, below those that systems give out by themselves: neither a socket
// of this test nor a test that runs beside it takes a port before the server does. The first is held for as
// long as the process lives, and shows that the block is taken.
class PortBlock
{
public:
    PortBlock()
    {
        constexpr qint64 Blocks = 300;
        const qint64 favourite = QCoreApplication::applicationPid() % Blocks;
        for (qint64 tries = 0; tries < Blocks; ++tries) {
            first = static_cast<quint16>(Lowest + (favourite + tries) % Blocks * Size);
            if (held.bind(first, QAbstractSocket::DontShareAddress)) {
                return;
            }
        }
        qFatal("no free block of ports");
    }

    // From one to the next, so that none is soon used again.
    quint16 next()
    {
        last = static_cast<quint16>(last % (Size - 1) + 1);
        return static_cast<quint16>(first + last);
    }

    static constexpr quint16 Lowest = 10000;
    static constexpr quint16 Size = 64;

private:
    QUdpSocket held;
    quint16 first = 0;
    quint16 last = 0;
};

// Never destroyed: the application object, which a socket's end would need, goes first.
PortBlock &ownPorts()
{
    static auto *const block = new PortBlock;
    return *block;
}

template<typename Socket, typename Bind>
quint16 freePort(Bind bind)
{
    for (int tries = 0; tries < PortBlock::Size; ++tries) {
        const quint16 port = ownPorts().next();
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
