// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/modelscenario.h"

#include "db/writegroup.h"
#include "tests/support/serverdatabase.h"

#include <QCoreApplication>

#include <array>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;
using QMR::Esn;

namespace {

constexpr qint64 Second = 1000;
constexpr quint32 ConfirmedRadios = 4;

// The first is that of radios that do not tell theirs.
constexpr std::array<Esn, 5> Esns{{{{0, 0, 0, 0, 0, 0, 0, 0}},
                                   {{0, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0x01}},
                                   {{0, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0x02}},
                                   {{0xF1, 0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0x03}},
                                   {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}}};
constexpr size_t MarkerEsn = 4;
constexpr size_t MarkerAddress = 3;
const QStringList Addresses{u"127.0.0.2"_s, u"127.0.0.3"_s, u"127.0.0.4"_s, u"127.0.0.9"_s};

const std::array<QMR::ServiceList, 3> Services{{{}, {1}, {3, 2, 2}}};

QByteArray bytesOf(const QMR::ServiceList &services)
{
    QByteArray bytes;
    for (const quint32 service : services) {
        bytes.append(static_cast<char>(service));
    }
    return bytes;
}

} // namespace

ModelScenario::ModelScenario(quint32 seed, Way wayOfRadios)
    : random(seed), way(wayOfRadios), model(seed % 3 == 0 ? 0 : 30)
{
    QCoreApplication::instance()->installEventFilter(this);
    server.configure(seed % 3 == 0 ? "minimumDiscoveryPeriod=0\n" : "minimumDiscoveryPeriod=30\n");
    model.now = server.clock.now().toMSecsSinceEpoch();
    server.clock.workTakes(1ms);
    server.start(); // makes the database
    storeRandomRadios();
    comparison = std::make_unique<ModelComparison>(server, model);
    for (const QString &address : Addresses) {
        radios.push_back(std::make_unique<ScriptedRadio>(server.registrationPort(), 0, address));
    }
    restarts();
}

bool ModelScenario::eventFilter(QObject *object, QEvent *event)
{
    return event->type() == QEvent::Timer &&
           (object == &server->timerForDiscovery() || object == &server->timerForDeadline() ||
            object == &server->timerForTimeoutCheck() || (object == &server->timerForRetry() && !retrying));
}

void ModelScenario::storeRandomRadios()
{
    const qint64 now = model.now / Second;
    for (size_t i = 0; i < ConfirmedRadios; ++i) {
        if (below(3) > 0) {
            continue;
        }
        RegistrationModel::Row row;
        row.suid.bytes[6] = static_cast<quint8>(below(3));
        row.address = QHostAddress(Addresses[below(3)]).toIPv4Address();
        row.availability = below(4);
        row.attempts = static_cast<quint16>(below(5));
        row.lastContact = now - std::array<qint64, 4>{0, 43199, 43200, 90000}[below(4)];
        row.lastDiscovery = now - std::array<qint64, 4>{0, 250, 1700, 90000}[below(4)];
        row.protocolVersion = 1 + below(3);
        server.query(row.insertion(Esns[i]));
        model.rows[Esns[i]] = row;
        stepTexts.append(u"stored: %1 %2"_s.arg(Esns[i].text(), row.text()));
    }
}

void ModelScenario::takeRandomStep()
{
    if (model.locked && below(4) == 0) {
        return isUnlocked();
    }
    const quint32 chance = below(110);
    if (chance < 34) {
        carryOut(anyRegistration());
    } else if (chance < 42) {
        carryOut(anyDeregistration());
    } else if (chance < 47) {
        carryOut(deregistrationByAddress());
    } else if (chance < 53) {
        isReported();
    } else if (chance < 67) {
        timePasses();
    } else if (chance < 82) {
        discoveryExpires();
    } else if (chance < 91) {
        deadlineExpires();
    } else if (chance < 95) {
        timeoutCheckExpires();
    } else if (chance < 100) {
        restarts();
    } else if (chance < 104) {
        burst();
    } else if (chance < 107) {
        isLocked();
    } else {
        retryExpires();
    }
}

void ModelScenario::end()
{
    if (model.locked) {
        isUnlocked();
    }
    retryExpires();
    if (difference().isEmpty()) {
        announcesMarker();
    }
}

ModelScenario::Message ModelScenario::anyRegistration()
{
    RegistrationModel::Registration planned;
    const size_t radio = below(ConfirmedRadios);
    planned.esn = Esns[radio];
    // A radio that does not tell its ESN is known as zero only by a registration of version 1.
    planned.protocolVersion = radio == 0 ? 1 : std::array<quint32, 8>{1, 2, 3, 3, 3, 3, 3, 3}[below(8)];
    planned.address = static_cast<quint32>(below(3));
    planned.services = Services[below(3)];
    if (planned.protocolVersion > 1) {
        planned.suid.bytes[6] = static_cast<quint8>(1 + below(2));
    }
    planned.pending = planned.protocolVersion > 2 && below(2) == 0;
    return registration(planned);
}

void ModelScenario::announcesMarker()
{
    RegistrationModel::Registration planned;
    planned.esn = Esns[MarkerEsn];
    planned.protocolVersion = 3;
    planned.address = MarkerAddress;
    carryOut(registration(planned));
}

// The registration's address is still the number of the radio that sends it.
ModelScenario::Message ModelScenario::registration(const RegistrationModel::Registration &planned)
{
    RegistrationModel::Registration registration = planned;
    ScriptedRadio &radio = *radios[planned.address];
    registration.address = radio.address().toIPv4Address();
    const QByteArray services = bytesOf(registration.services);
    const auto becomesTheRadio = [&radio, registration] {
        radio.esn = registration.esn;
        radio.suid = registration.suid;
        radio.protocolVersion = static_cast<quint8>(registration.protocolVersion);
    };
    return {
        registration.pending ? u"registers pending"_s : u"registers"_s,
        u"%1 version %2 %3 at %4 [%5]"_s.arg(registration.esn.text())
            .arg(registration.protocolVersion)
            .arg(registration.suid.text(), radio.address().toString(), QString::fromLatin1(services.toHex())),
        [this, registration] { model.registers(registration); },
        [this, &radio, registration, services, becomesTheRadio] {
            becomesTheRadio();
            if (way == Direct) {
                server->registerRadio(registration.esn, registration.protocolVersion, registration.suid,
                                      radio.address(), radio.port(), registration.pending,
                                      registration.services);
            } else if (registration.protocolVersion == 1) {
                radio.registersBasic(services);
            } else if (registration.pending) {
                radio.registersPending(services);
            } else {
                radio.registers(services);
            }
        },
        [&radio, becomesTheRadio] {
            becomesTheRadio();
            return radio.isAcknowledged();
        },
        &radio};
}

ModelScenario::Message ModelScenario::anyDeregistration()
{
    const size_t number = below(3);
    const Esn esn = anyEsn();
    if (esn.isZero()) {
        return deregistrationByAddress();
    }
    ScriptedRadio &radio = *radios[number];
    return {u"deregisters"_s,
            esn.text() + u" from "_s + radio.address().toString(),
            [this, &radio, esn] { model.deregisters(esn, radio.address().toIPv4Address()); },
            [this, &radio, esn] {
                radio.esn = esn;
                radio.protocolVersion = 3;
                if (way == Direct) {
                    server->deregisterRadio(esn, radio.address());
                } else {
                    radio.deregisters();
                }
            },
            [] { return true; },
            &radio};
}

ModelScenario::Message ModelScenario::deregistrationByAddress()
{
    ScriptedRadio &radio = *radios[below(3)];
    return {u"deregisters by address"_s,
            radio.address().toString(),
            [this, &radio] { model.deregistersByAddress(radio.address().toIPv4Address()); },
            [this, &radio] {
                if (way == Direct) {
                    server->deregisterRadioByAddress(radio.address());
                } else {
                    radio.deregistersByAddress();
                }
            },
            [] { return true; },
            &radio};
}

void ModelScenario::carryOut(const Message &message)
{
    step(message.kind, message.detail, message.inModel, [&] {
        message.inServer();
        waitForDatagramsOf(*message.radio);
    });
    if (!message.isAnswered()) {
        comparison->differs(u"acknowledgement"_s, u"none, or another"_s, message.detail);
    }
}

void ModelScenario::burst()
{
    std::vector<Message> messages;
    QStringList details;
    for (quint32 left = 2 + below(5); left > 0; --left) {
        messages.push_back(below(4) > 0 ? anyRegistration() : anyDeregistration());
        details.append(messages.back().kind + u' ' + messages.back().detail);
    }
    // Only what can be known to be one group can be refused as one.
    const bool refused = way == Direct && !model.locked && below(2) == 0;
    step(
        u"burst"_s, details.join(u", then "_s) + (refused ? u" (commit refused)"_s : QString()),
        [&] {
            for (const Message &message : messages) {
                message.inModel();
            }
        },
        [&] {
            const CommitHook hook(refused && model.writes > 1 ? 1 : 0);
            {
                const QMR::WriteTurn turn(way == Direct ? server->writeGroup() : nullptr);
                for (const Message &message : messages) {
                    message.inServer();
                }
            }
            waitForDatagramsOf(*messages.back().radio);
        });
    for (const Message &message : messages) {
        if (!message.isAnswered()) {
            comparison->differs(u"acknowledgement"_s, u"none, or another"_s, message.detail);
        }
    }
}

void ModelScenario::isReported()
{
    const Esn esn = anyEsn();
    const QHostAddress address(Addresses[below(3)]);
    step(
        u"is reported"_s, esn.text() + u" at "_s + address.toString(),
        [&] { model.isReported(esn, address.toIPv4Address()); },
        [&] { server->handleRadioReport(esn, address); });
}

void ModelScenario::timePasses()
{
    const qint64 milliseconds = randomAdvance();
    step(
        u"time passes"_s, u"%1 ms"_s.arg(milliseconds), [&] { model.now += milliseconds; },
        [&] { server.clock.set(server.clock.now().addMSecs(milliseconds)); });
}

void ModelScenario::waitForDatagramsOf(ScriptedRadio &radio)
{
    if (way == Sockets) {
        comparison->waitForDatagramsOf(radio);
    }
}

// Half of the expiries come when they are due, the others at whatever time it is.
void ModelScenario::discoveryExpires()
{
    const qint64 wait = below(2) == 0 ? 0 : model.discoveryTimer.value_or(0);
    step(
        u"discovery timer expires"_s, u"%1 ms on"_s.arg(wait),
        [&] {
            model.now += wait;
            model.discoveryExpires();
        },
        [&] {
            server.clock.set(server.clock.now().addMSecs(wait));
            server.expireDiscovery();
        });
}

void ModelScenario::deadlineExpires()
{
    const qint64 wait = below(3) == 0 ? 0 : model.deadlineTimer.value_or(0);
    step(
        u"deadline timer expires"_s, u"%1 ms on"_s.arg(wait),
        [&] {
            model.now += wait;
            model.deadlineExpires();
        },
        [&] {
            server.clock.set(server.clock.now().addMSecs(wait));
            server.expireHeartbeat();
        });
}

void ModelScenario::timeoutCheckExpires()
{
    step(
        u"timeout check"_s, QString(), [&] { model.timeoutCheckExpires(); },
        [&] { server.expireTimeoutCheck(); });
}

void ModelScenario::isLocked()
{
    if (model.locked) {
        return;
    }
    step(
        u"database is locked"_s, QString(), [&] { model.locked = true; },
        [&] { comparison->lockDatabase(); });
}

void ModelScenario::isUnlocked()
{
    step(
        u"database is unlocked"_s, QString(), [&] { model.locked = false; },
        [&] { comparison->unlockDatabase(); });
}

void ModelScenario::retryExpires()
{
    step(
        u"retry"_s, QString(),
        [&] {
            if (!model.locked) {
                model.settlesWhatIsOwed();
            }
        },
        [&] {
            const QTimer &timer = server->timerForRetry();
            retrying = true;
            do { // a round whose time was over goes on at once
                server.expireRetry();
            } while (timer.isActive() && timer.interval() == 0);
            retrying = false;
        });
}

void ModelScenario::restarts()
{
    if (model.locked) {
        isUnlocked(); // a start waits for it
    }
    if (comparison->hasApplication()) {
        announcesMarker(); // what the application has not been sent by now, it never gets
    }
    step(
        u"restart"_s, QString(),
        [&] {
            model.restarts();
            model.notices = model.snapshot();
        },
        [&] {
            comparison->dropApplication();
            server.restart();
            comparison->connectApplication();
        });
}

void ModelScenario::step(const QString &kind, const QString &detail, const std::function<void()> &inModel,
                         const std::function<void()> &inServer)
{
    stepKinds.append(kind);
    stepTexts.append(kind + u' ' + detail);
    model.records.clear();
    model.notices.clear();
    model.requests.clear();
    model.writes = 0;
    inModel();
    inServer();
    comparison->compare();
}

Esn ModelScenario::anyEsn()
{
    return Esns[below(ConfirmedRadios)];
}

qint64 ModelScenario::randomAdvance()
{
    switch (below(8)) {
    case 0:
        return below(3000);
    case 1:
        return 17 * Second;
    case 2:
        return 16999;
    case 3:
        return 300 * Second;
    case 4:
        return 1800 * Second;
    case 5:
        return 43200 * Second;
    case 6:
        return 43200 * Second + 1;
    default:
        return static_cast<qint64>(below(20000)) * Second;
    }
}
