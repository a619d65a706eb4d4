// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/fuzz/server/serverscene.h"

#include "db/writegroup.h"
#include "tests/fuzz/server/memoryfiles.h"
#include "tests/support/serverdatabase.h"

#include <QCoreApplication>
#include <QTimerEvent>

#include <sqlite3.h>

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
namespace Qmrs = QMR::Qmrs;

namespace {

char programName[] = "quillmere";
char *arguments[] = {programName, nullptr};

constexpr qint64 Second = 1000;
constexpr quint16 RegistrationPort = 9361; // where radios are asked, too

constexpr std::array<qint64, 8> Spans{
    1, 999, 17 * Second - 1, 17 * Second, 300 * Second, 1800 * Second, 43200 * Second, 43201 * Second};

QString textOf(const QList<MemoryWires::Datagram> &datagrams)
{
    QStringList texts;
    for (const auto &datagram : datagrams) {
        texts.append(u"%1 to %2:%3"_s.arg(QString::fromLatin1(datagram.bytes.toHex()),
                                          datagram.address.toString(), QString::number(datagram.port)));
    }
    return texts.join(u"\n    "_s);
}

} // namespace

FuzzWorld::FuzzWorld()
{
    QCoreApplication::instance()->installEventFilter(this);
    clock.workTakes(1ms);
    MemoryFiles::install();
    QMR::Quillmere server(1, arguments);
    server.start(); // makes the database
    server.stop();
    comparison = std::make_unique<StateComparison>(folder.databaseFile());
}

bool FuzzWorld::eventFilter(QObject *, QEvent *)
{
    ++handled;
    return false;
}

ServerScene::ServerScene(FuzzWorld &fuzzWorld, Script &fuzzScript)
    : world(fuzzWorld),
      script(fuzzScript),
      model(script.below(2) == 0 ? 0 : 30),
      server(std::make_unique<QMR::Quillmere>(1, arguments)),
      comparison(*world.comparison)
{
    const int minimumPeriod = model.minimumDiscoveryPeriod() == 0 ? 0 : 30;
    if (std::exchange(world.minimumPeriod, minimumPeriod) != minimumPeriod) {
        world.folder.writeConfiguration("minimumDiscoveryPeriod=" + QByteArray::number(minimumPeriod) + "\n");
    }
    comparison.forget();
    wires() = MemoryWires();
    world.clock.set(QDateTime(QDate(2026, 6, 1), QTime(12, 0), Qt::UTC));
    model.now = world.clock.now().toMSecsSinceEpoch();
    comparison.run("DELETE FROM supported_services; DELETE FROM subscribers");
    storeRadios();
    server->start();
    model.restarts();
    world.log.take();
    compare();
}

ServerScene::~ServerScene()
{
    MemoryFiles::heal();
    if (model.locked) {
        comparison.unlockDatabase();
    }
    server->stop();
    server.reset();
    applications.clear();
    QCoreApplication::removePostedEvents(nullptr);
}

void ServerScene::takeStep()
{
    switch (script.below(24)) {
    default:
        radioSends();
        break;
    case 6:
    case 7:
        radiosSendTogether();
        break;
    case 8:
        applicationConnects();
        break;
    case 9:
    case 10:
        applicationSends();
        break;
    case 11:
        applicationEnds();
        break;
    case 12:
        applicationWaits();
        break;
    case 13:
        applicationStalls();
        break;
    case 14:
        timePasses();
        break;
    case 15:
        discoveryExpires();
        break;
    case 16:
        deadlineExpires();
        break;
    case 17:
        timeoutCheckExpires();
        break;
    case 18:
        databaseIsLocked();
        break;
    case 19:
        databaseFails();
        break;
    case 20:
        databaseIsWhole();
        break;
    case 21:
        retryExpires();
        break;
    case 22:
        sendingIsRefused();
        break;
    case 23:
        if (script.below(4) == 0) {
            restarts();
        }
        break;
    }
    drain();
    compare();
}

void ServerScene::end()
{
    databaseIsWhole();
    drain();
    compare();
}

// Now and then the clock is set back.
void ServerScene::timePasses()
{
    const quint8 span = script.byte();
    const qint64 milliseconds = Spans[span % Spans.size()] * (span < 224 ? 1 : -1);
    begin("time passes", QByteArray::number(milliseconds));
    model.now += milliseconds;
    world.clock.set(world.clock.now().addMSecs(milliseconds));
}

void ServerScene::fire(const QTimer &timer)
{
    if (timer.isActive()) {
        QTimerEvent expired(timer.timerId());
        QCoreApplication::sendEvent(const_cast<QTimer *>(&timer), &expired);
    }
}

void ServerScene::discoveryExpires()
{
    begin("discovery timer expires");
    if (model.discoveryTimer && script.below(4) != 0) {
        model.now += *model.discoveryTimer;
        world.clock.set(world.clock.now().addMSecs(*model.discoveryTimer));
    }
    model.discoveryExpires();
    for (const auto &request : std::exchange(model.requests, {})) {
        expect(Qmrs::Opcode::DiscoveryRequest, request.protocolVersion, request.esn,
               QHostAddress(request.address), RegistrationPort);
    }
    fire(server->timerForDiscovery());
}

void ServerScene::deadlineExpires()
{
    begin("deadline timer expires");
    if (model.deadlineTimer && script.below(4) != 0) {
        model.now += *model.deadlineTimer;
        world.clock.set(world.clock.now().addMSecs(*model.deadlineTimer));
    }
    model.deadlineExpires();
    fire(server->timerForDeadline());
}

void ServerScene::timeoutCheckExpires()
{
    begin("timeout check");
    model.timeoutCheckExpires();
    fire(server->timerForTimeoutCheck());
}

void ServerScene::retryExpires()
{
    begin("retry");
    if (failing) {
        takeOverDebts();
    }
    if (!model.locked) {
        model.settlesWhatIsOwed();
    }
    triesAgain();
}

// A round whose time was over goes on at once.
void ServerScene::triesAgain()
{
    const QTimer &timer = server->timerForRetry();
    do {
        fire(timer);
    } while (timer.isActive() && timer.interval() == 0);
}

void ServerScene::databaseIsLocked()
{
    if (!model.locked && !failing) {
        begin("database is locked");
        model.locked = true;
        comparison.lockDatabase();
    }
}

void ServerScene::databaseFails()
{
    if (model.locked) {
        return;
    }
    failing = true;
    const auto operation = static_cast<MemoryFiles::Operation>(script.below(5));
    const quint8 plan = script.byte();
    begin("database fails", QByteArray::number(plan));
    MemoryFiles::fail(operation, plan & 15, 1 << (plan >> 4 & 7), plan >= 128);
}

// Which rows are owed after faults at random only the server knows.
void ServerScene::takeOverDebts()
{
    for (auto owed = server->writeGroup()->owed().first(); owed;
         owed = server->writeGroup()->owed().after(*owed)) {
        model.owed.insert(*owed);
    }
}

// Within some rounds of retries all rows are what the server knows.
void ServerScene::databaseIsWhole()
{
    constexpr int Rounds = 3;
    begin("database is whole again");
    MemoryFiles::heal();
    if (model.locked) {
        model.locked = false;
        comparison.unlockDatabase();
    }
    takeOverDebts();
    failing = false;
    lastChanges = -1;
    model.settlesWhatIsOwed();
    for (int i = 0; i < Rounds; ++i) {
        triesAgain();
    }
}

void ServerScene::sendingIsRefused()
{
    begin("the network refuses, or no longer");
    wires().refusing = !wires().refusing;
}

// Everything that waits is over, and the applications are gone. The records of a start and of a stop are
// other tests' matter, but none of them may be of an error.
void ServerScene::restarts()
{
    databaseIsWhole();
    drain();
    compare();
    begin("restart");
    for (const auto &application : applications) {
        application->takeNotices();
    }
    server->stop();
    const bool isSameProcess = script.below(2) == 0;
    if (!isSameProcess) {
        server = std::make_unique<QMR::Quillmere>(1, arguments);
    }
    drain();
    applications.clear();
    if (!server->radios().empty() || server->addresses().size() != 0 || !server->dueForDiscovery().empty() ||
        !server->awaitingConfirmation().empty()) {
        comparison.differs(u"what is left of a stopped server"_s, u"something"_s, u"nothing"_s);
    }
    server->start();
    model.restarts(isSameProcess);
    const QStringList errors = world.log.takeErrors();
    if (!errors.isEmpty()) {
        comparison.differs(u"errors of a restart"_s, errors.join(u'\n'), QString());
    }
    lastChanges = -1;
}

void ServerScene::begin(const char *step, const QByteArray &detail)
{
    if (keepingSteps) {
        stepTexts.append(QString::fromLatin1(step) + u' ' +
                         QString::fromLatin1(detail.toPercentEncoding(" ")));
    }
}

// What is posted while posted events are handled has its turn in the next round.
void ServerScene::drain()
{
    do {
        world.handled = 0;
        QCoreApplication::sendPostedEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    } while (world.handled > 0);
}

void ServerScene::compare()
{
    if (difference().isEmpty()) {
        comparison.compareTable(*server, model);
        const int changes = sqlite3_total_changes(serverDatabase());
        if (!failing && (model.writes > 0 || std::exchange(lastChanges, changes) != changes)) {
            comparison.compareRows(*server, model);
        }
        if (!server->writeGroup()->owed().isEmpty() && !server->timerForRetry().isActive()) {
            comparison.differs(u"retry timer"_s, u"stopped"_s, u"active"_s);
        }
        compareNotices();
        compareSent();
        compareRecords();
    }
    model.records.clear();
    model.notices.clear();
    model.writes = 0;
    expectedToBeSent.clear();
}

void ServerScene::compareNotices()
{
    for (const auto &application : applications) {
        const QList<Notice> told = application->takeNotices();
        const QList<Notice> expected = application->takeSnapshot() + model.notices;
        if (told != expected) {
            comparison.differs(u"notices"_s, linesOf(told), linesOf(expected));
        }
        if (application->waitTimer()->isActive() != application->isAwaited()) {
            comparison.differs(u"wait for an application"_s, u"none, or one too many"_s, u"the other"_s);
        }
    }
}

void ServerScene::compareSent()
{
    const QList<MemoryWires::Datagram> sent = std::exchange(wires().sent, {});
    const qsizetype refused = std::exchange(wires().refused, 0);
    if (refused > 0 ? refused + sent.size() != expectedToBeSent.size() : sent != expectedToBeSent) {
        comparison.differs(u"datagrams"_s, textOf(sent), textOf(expectedToBeSent));
    }
    const QString failed = u"Network error: write message failed"_s;
    if (world.log.count(failed) != refused) {
        comparison.differs(u"records of what was not sent"_s, QString::number(world.log.count(failed)),
                           QString::number(refused));
    }
}

void ServerScene::compareRecords()
{
    QList<LogRecord> written = world.log.take();
    written.removeIf([this](const LogRecord &record) {
        const bool isOfDatabase = failing && record.message.startsWith(u"Database ");
        return record.type == Scm::EventError &&
               (isOfDatabase || record.message.startsWith(u"Network error: write"));
    });
    if (written != model.records) {
        comparison.differs(u"records"_s, linesOf(written), linesOf(model.records));
    }
}
