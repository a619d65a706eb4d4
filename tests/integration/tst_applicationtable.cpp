// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/eventloop.h"
#include "tests/support/scriptedapplication.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QTcpSocket>
#include <QTest>

#include <map>
#include <memory>
#include <random>
#include <set>
#include <vector>

using namespace Qt::StringLiterals;
using QMR::Esn;
using QMR::RadioPointer;

namespace {

constexpr quint32 RadioCount = 20'000;
constexpr qsizetype NoticeSize = 285; // each of 255 services: 5.7 MB of table
constexpr int Turns = 300;            // of the event loop: enough for the table, were there no bound

Esn esnOf(quint32 radio)
{
    return {{0, 0, 0, 0, 0, static_cast<quint8>(radio >> 16), static_cast<quint8>(radio >> 8),
             static_cast<quint8>(radio)}};
}

// An application whose connection holds little, and which reads no more than it is told to.
class SlowApplication
{
public:
    explicit SlowApplication(quint16 serverPort)
    {
        socket.bind(QHostAddress::LocalHost);
        socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 8192);
        socket.setReadBufferSize(8192);
        socket.connectToHost(QHostAddress::LocalHost, serverPort);
    }

    void reads(qint64 size) { stream += socket.read(size); }
    const QByteArray &received() const { return stream; }
    bool hasMore() const { return socket.bytesAvailable() > 0; }

private:
    QTcpSocket socket;
    QByteArray stream;
};

// One application's notices, in order.
QList<Notice> noticesOf(const QByteArray &stream)
{
    QList<Notice> notices;
    for (qsizetype offset = 0; const std::optional<Notice> notice = noticeAt(stream, offset);
         offset += NoticeSize) {
        notices.append(*notice);
    }
    return notices;
}

bool isGone(const Notice &notice)
{
    return !notice.pending && notice.availability == 0;
}

} // namespace

// The radio table goes to an application in pieces while radios come, change and go.
class TestApplicationTable : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        random.seed(20261121);
        changes = 0;
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        witness = std::make_unique<SlowApplication>(server->applicationPort());
        QVERIFY(runsUntil([this] { return server->log.records().size() == 1; }));
        for (quint32 i = 0; i < RadioCount; ++i) {
            insert(2 * i + 1);
            if (i % 500 == 0) {
                letRead(*witness);
            }
        }
    }

    void cleanup()
    {
        slow.clear();
        witness.reset();
        server.reset();
    }

    void tableAndChangesAddUpToWhatEverybodyElseWasTold()
    {
        std::vector<qsizetype> toldBefore;
        for (int step = 0; step < 4000; ++step) {
            if (step % 100 == 0 && slow.size() < 4) {
                toldBefore.push_back(changes);
                slow.push_back(std::make_unique<SlowApplication>(server->applicationPort()));
            }
            change();
            letRead(*witness);
            for (const auto &application : slow) {
                application->reads(static_cast<qint64>(below(8192)));
            }
        }
        settle();

        const QList<Notice> told = noticesOf(witness->received());
        QCOMPARE(told.size(), changes);
        for (size_t i = 0; i < slow.size(); ++i) {
            compare(told, noticesOf(slow[i]->received()), toldBefore[i]);
        }
    }

    // The rest of the table is not made up before it can leave: what changes meanwhile is told once.
    void radioThatChangesBeforeItsTurnIsToldOfOnce()
    {
        slow.push_back(std::make_unique<SlowApplication>(server->applicationPort()));
        QVERIFY(runsUntil([this] { return slow[0]->hasMore(); }));
        for (int i = 0; i < Turns; ++i) {
            QCoreApplication::processEvents();
        }
        const RadioPointer radio = (*server)->findRadio(esnOf(2 * RadioCount - 1)); // the table's last
        set(radio, QMR::Unreachable);
        settle();

        QList<Notice> ofRadio = noticesOf(slow[0]->received());
        ofRadio.removeIf([&radio](const Notice &notice) { return notice.esn != radio->esn; });
        QCOMPARE(ofRadio.size(), 1);
        QCOMPARE(ofRadio[0].availability, QMR::Unreachable);
        QCOMPARE(ofRadio[0].suid, radio->suid);
    }

    void serverStopsInTheMiddleOfATable()
    {
        slow.push_back(std::make_unique<SlowApplication>(server->applicationPort()));
        QVERIFY(runsUntil([this] {
            slow[0]->reads(100);
            return slow[0]->received().size() >= NoticeSize;
        }));
        change();
        server->log.take();
        server->stop();
        QCOMPARE(server->log.takeMessages(),
                 (QStringList{u"Application disconnected from 127.0.0.1"_s,
                              u"Application disconnected from 127.0.0.1"_s, u"Service stopped"_s}));
    }

    // It ends while it is being sent the table, and while it could be sent more.
    void applicationLeavesInTheMiddleOfItsTable()
    {
        server->log.take();
        for (int i = 0; i < 10; ++i) {
            slow.push_back(std::make_unique<SlowApplication>(server->applicationPort()));
        }
        QVERIFY(runsUntil([this] {
            slow.back()->reads(100);
            return slow.back()->received().size() >= NoticeSize;
        }));
        slow.clear();
        QVERIFY(runsUntil(
            [this] { return server->log.count(u"Application disconnected from 127.0.0.1"_s) == 10; }));
        change();
        settle();
        QCOMPARE(noticesOf(witness->received()).size(), changes);
    }

private:
    quint32 below(quint32 limit) { return std::uniform_int_distribution<quint32>(0, limit - 1)(random); }

    // No two changes look the same. The rows are none of this test's affair: there are none.
    void insert(quint32 number)
    {
        const auto radio = std::make_shared<QMR::RadioEntry>();
        radio->esn = esnOf(number);
        radio->address = QHostAddress(0x0A000000 + number);
        radio->lastDiscoveryAttempt = server->clock.now();
        radio->supportedServices = QMR::ServiceList(255, 1);
        radio->pendingServices = radio->supportedServices;
        (*server)->insertRadio(radio);
        set(radio, QMR::Registered);
    }

    void set(const RadioPointer &radio, quint32 availability)
    {
        ++changes;
        for (int i = 0; i < 4; ++i) {
            radio->suid.bytes[static_cast<size_t>(i)] = static_cast<quint8>(changes >> (8 * i));
        }
        radio->pendingSuid = radio->suid;
        (*server)->setAvailability(radio, availability);
        server->log.take();
    }

    void change()
    {
        const quint32 number = below(2 * RadioCount);
        const RadioPointer radio = (*server)->findRadio(esnOf(number));
        if (!radio) {
            insert(number);
        } else if (below(4) == 0) {
            set(radio, QMR::Deregistered);
        } else {
            set(radio, 1 + below(3));
        }
    }

    static void letRead(SlowApplication &application)
    {
        QCoreApplication::processEvents();
        application.reads(1 << 20);
    }

    // Everybody has received all, which ends with a change of the last radio.
    void settle()
    {
        insert(2 * RadioCount + 1);
        const QByteArray last(reinterpret_cast<const char *>(esnOf(2 * RadioCount + 1).bytes.data()), 8);
        const auto hasAll = [&last](const auto &application) {
            application->reads(1 << 20);
            return application->received().size() % NoticeSize == 0 &&
                   application->received().last(NoticeSize).sliced(8, 8) == last;
        };
        QVERIFY(runsUntil([&] { return hasAll(witness) && std::ranges::all_of(slow, hasAll); }));
    }

    // told: every change there was. received: of one application, which connected when so many had been told.
    static void compare(const QList<Notice> &told, const QList<Notice> &received, qsizetype toldBefore)
    {
        std::map<Esn, QList<qsizetype>> history;
        for (qsizetype i = 0; i < told.size(); ++i) {
            history[told[i].esn].append(i);
        }
        std::map<QMR::Suid, qsizetype> indexOf;
        for (qsizetype i = 0; i < told.size(); ++i) {
            indexOf[told[i].suid] = i;
        }

        qsizetype inTable = 1;
        std::set<Esn> ofTable{received[0].esn};
        while (inTable < received.size() && received[inTable].esn > received[inTable - 1].esn) {
            ofTable.insert(received[inTable++].esn);
        }
        std::map<Esn, QList<qsizetype>> seen;
        qsizetype last = -1;
        qsizetype shownByTable = 0;
        for (qsizetype i = 0; i < received.size(); ++i) {
            QVERIFY(indexOf.contains(received[i].suid));
            const qsizetype index = indexOf.at(received[i].suid);
            QCOMPARE(received[i], told[index]);
            seen[received[i].esn].append(index);
            if (i >= inTable) {
                QVERIFY2(index > last, "a change overtook another");
                last = index;
            } else if (index >= toldBefore) {
                ++shownByTable;
            }
        }
        for (const auto &[esn, indexes] : history) {
            const QList<qsizetype> &mine = seen[esn];
            // All of its changes from some time on; before that it had not been reached, or was not there.
            QCOMPARE(mine, indexes.last(mine.size()));
            if (mine.isEmpty()) {
                QVERIFY2(isGone(told[indexes.constLast()]), "a radio is missing");
            } else if (mine.size() < indexes.size() && !ofTable.contains(esn)) {
                QVERIFY2(isGone(told[indexes[indexes.size() - mine.size() - 1]]), "a change was left out");
            }
        }
        // Some changes came before the table had reached their radio, and some waited for its end.
        QVERIFY(shownByTable > 0);
        QVERIFY(inTable < received.size());
    }

    std::mt19937 random;
    qsizetype changes = 0;
    std::unique_ptr<TestServer> server;
    std::unique_ptr<SlowApplication> witness;
    std::vector<std::unique_ptr<SlowApplication>> slow;
};

QTEST_GUILESS_MAIN(TestApplicationTable)
#include "tst_applicationtable.moc"
