// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tests/support/modelcomparison.h"
#include "tests/support/registrationmodel.h"
#include "tests/support/scriptedradio.h"
#include "tests/support/testserver.h"

#include <functional>
#include <memory>
#include <random>

// One random life of a server with few radios at few addresses, so that they collide, and with a database
// that somebody else locks now and then, beside the model of it. After each step the table, the queues, the
// timers, the rows, the records, the notices and the acknowledgements must be what the model says. The same
// seed gives the same life everywhere.
class ModelScenario : public QObject
{
public:
    // Whether radios speak to the server through their sockets, or its operations are called.
    enum Way { Direct, Sockets };

    ModelScenario(quint32 seed, Way way);
    Q_DISABLE_COPY_MOVE(ModelScenario)

    void takeRandomStep();
    // A last step that must be announced, so that a notice too many does not go unseen.
    void end();

    // Where the server first differed from the model; empty while it does not.
    QString difference() const { return comparison->difference(); }
    QStringList steps() const { return stepTexts; }
    QStringList kindsOfSteps() const { return stepKinds; }

    // Timers expire when the scenario says so, never by themselves.
    bool eventFilter(QObject *object, QEvent *event) override;

private:
    void storeRandomRadios();

    // What a radio says, once to the model and once to the server, and whether its answer has come.
    struct Message
    {
        QString kind;
        QString detail;
        std::function<void()> inModel;
        std::function<void()> inServer;
        std::function<bool()> isAnswered;
        ScriptedRadio *radio = nullptr;
    };
    Message anyRegistration();
    Message registration(const RegistrationModel::Registration &registration);
    Message anyDeregistration();
    Message deregistrationByAddress();
    void carryOut(const Message &message);
    // Several messages that the server finds waiting; they share a commit.
    void burst();
    void isReported();
    void timePasses();
    void discoveryExpires();
    void deadlineExpires();
    void timeoutCheckExpires();
    void restarts();
    void isLocked();
    void isUnlocked();
    void retryExpires();
    void announcesMarker();

    void step(const QString &kind, const QString &detail, const std::function<void()> &inModel,
              const std::function<void()> &inServer);
    void waitForDatagramsOf(ScriptedRadio &radio);

    quint32 below(quint32 bound) { return static_cast<quint32>(random()) % bound; }
    QMR::Esn anyEsn();
    qint64 randomAdvance();

    std::mt19937 random;
    Way way;
    TestServer server;
    RegistrationModel model;
    std::vector<std::unique_ptr<ScriptedRadio>> radios; // one an address
    std::unique_ptr<ModelComparison> comparison;
    bool retrying = false;
    QStringList stepTexts;
    QStringList stepKinds;
};
