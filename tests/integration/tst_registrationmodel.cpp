// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Drives the server at random against a plain model of its rules, and compares everything after each step.
//   QUILLMERE_MODEL_SEQUENCES  how many sequences to run (default 2000; every tenth over real sockets)
//   QUILLMERE_MODEL_SEED       seed of the first one (default 1; each further one has the next)
// A failure prints the sequence, and its seed, which brings it back.

#include "tests/support/modelscenario.h"

#include <QMap>
#include <QTest>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr quint32 DefaultSequences = 2000;
constexpr quint32 SequencesInARow = 100; // of the test's data, each with its own time limit
constexpr int StepsInASequence = 16;

quint32 setting(const char *variable, quint32 otherwise)
{
    return qEnvironmentVariableIsSet(variable) ? qEnvironmentVariable(variable).toUInt() : otherwise;
}

} // namespace

class TestRegistrationModel : public QObject
{
    Q_OBJECT

private slots:
    void agreesWithTheServerAfterEveryStep_data()
    {
        QTest::addColumn<quint32>("first");
        QTest::addColumn<quint32>("count");
        const quint32 seed = setting("QUILLMERE_MODEL_SEED", 1);
        const quint32 sequences = setting("QUILLMERE_MODEL_SEQUENCES", DefaultSequences);
        for (quint32 done = 0; done < sequences; done += SequencesInARow) {
            const quint32 count = std::min(SequencesInARow, sequences - done);
            QTest::addRow("%u from seed %u", count, seed + done) << seed + done << count;
        }
    }

    void agreesWithTheServerAfterEveryStep()
    {
        QFETCH(const quint32, first);
        QFETCH(const quint32, count);
        for (quint32 seed = first; seed - first < count; ++seed) {
            ModelScenario scenario(seed, seed % 10 == 0 ? ModelScenario::Sockets : ModelScenario::Direct);
            for (int step = 0; step < StepsInASequence && scenario.difference().isEmpty(); ++step) {
                scenario.takeRandomStep();
            }
            scenario.end();
            if (!scenario.difference().isEmpty()) {
                const QString reproduction =
                    u"QUILLMERE_MODEL_SEED=%1 QUILLMERE_MODEL_SEQUENCES=1 brings it back"_s.arg(seed);
                const QString steps = scenario.steps().join(u"\n    "_s);
                QFAIL(qPrintable(scenario.difference() + u"\nafter:\n    "_s + steps + u'\n' + reproduction));
            }
            for (const QString &kind : scenario.kindsOfSteps()) {
                ++taken[kind];
            }
        }
    }

    void cleanupTestCase()
    {
        for (auto kind = taken.cbegin(); kind != taken.cend(); ++kind) {
            qInfo("%6d %s", kind.value(), qPrintable(kind.key()));
        }
    }

private:
    QMap<QString, int> taken; // how often each kind of step
};

QTEST_GUILESS_MAIN(TestRegistrationModel)
#include "tst_registrationmodel.moc"
