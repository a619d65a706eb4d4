// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/applicationview.h"
#include "tests/support/testserver.h"

#include <QCoreApplication>
#include <QTest>

#include <algorithm>
#include <memory>
#include <random>
#include <vector>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

using QMR::Esn;
using QMR::Suid;

namespace {

constexpr quint32 RadioCount = 1000;
constexpr size_t ApplicationCount = 200;

Esn esnOf(quint32 radio)
{
    return {{0xE5, 0, 0, 0, 0, 0, static_cast<quint8>(radio >> 8), static_cast<quint8>(radio)}};
}

// Generation: the SUID with which a radio registers changes over its life.
Suid suidOf(quint32 radio, quint32 generation)
{
    return {{1, 2, 3, 4, static_cast<quint8>(generation), static_cast<quint8>(radio >> 8),
             static_cast<quint8>(radio)}};
}

} // namespace

// Many applications follow many radios: the table that each has made of its snapshot and its notices is that
// of the database.
class TestApplicationViews : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        server = std::make_unique<TestServer>();
        server->startWithoutDiscovery();
        server->clock.workTakes(1ms);
        random.seed(20261121);
    }

    void cleanup()
    {
        views.clear();
        server.reset();
    }

    void viewsOfAllEqualTheDatabase()
    {
        while (views.size() < ApplicationCount) {
            connectView();
        }
        QTRY_VERIFY(std::all_of(views.begin(), views.end(), isConnected));
        for (quint32 radio = 0; radio < RadioCount; ++radio) {
            registers(radio, radio, false);
            letThemRead(radio);
        }
        for (quint32 step = 0; step < RadioCount; ++step) {
            changeSomething();
            letThemRead(step);
        }
        settle();
        compare();
    }

    void viewsOfThoseThatComeAndGoEqualTheDatabase()
    {
        size_t connections = 0;
        for (quint32 step = 0; step < 2 * RadioCount; ++step) {
            changeSomething();
            const quint32 what = pick(10);
            if (what < 3 && views.size() < ApplicationCount) {
                connectView();
                ++connections;
            } else if (what == 3 && !views.empty()) {
                leave(pick(static_cast<quint32>(views.size())));
            }
            letThemRead(step);
        }
        QVERIFY(connections > views.size());
        QVERIFY(views.size() > 20);
        settle();
        compare();
    }

private:
    static bool isConnected(const std::unique_ptr<ApplicationView> &view)
    {
        return view->connection().state() == QAbstractSocket::ConnectedState;
    }

    quint32 pick(quint32 bound) { return static_cast<quint32>(random() % bound); }

    void connectView() { views.push_back(std::make_unique<ApplicationView>(server->applicationPort())); }

    void leave(size_t index)
    {
        std::swap(views[index], views.back());
        views.pop_back();
    }

    // address: the last 16 bits of the radio's own.
    void registers(quint32 radio, quint32 address, bool pending)
    {
        QMR::ServiceList services(pick(4));
        std::generate(services.begin(), services.end(), [this] { return 1 + pick(3); });
        (*server)->registerRadio(esnOf(radio), 3, suidOf(radio, pick(256)), addressOf(address), 9, pending,
                                 services);
    }

    static QHostAddress addressOf(quint32 address) { return QHostAddress(0x7F010000 + address); }

    void changeSomething()
    {
        const quint32 radio = pick(RadioCount);
        const QMR::RadioPointer entry = (*server)->findRadio(esnOf(radio));
        switch (pick(8)) {
        case 0:
            registers(radio, pick(2 * RadioCount), true);
            break;
        case 1: // lets somebody else lose the address, now and then
            registers(radio, pick(2 * RadioCount), false);
            break;
        case 2:
            (*server)->deregisterRadioByAddress(addressOf(radio));
            break;
        case 3:
            if (entry) {
                (*server)->handleRadioReport(entry->esn, entry->address);
            }
            break;
        case 4:
            if (entry && !entry->address.isNull()) {
                (*server)->setAvailability(entry, QMR::Unreachable);
            }
            break;
        case 5:
            server->clock.advance(2);
            server->expireHeartbeat();
            break;
        default:
            registers(radio, radio, false);
        }
    }

    static void letThemRead(quint32 step)
    {
        if (step % 8 == 0) {
            QCoreApplication::processEvents();
        }
    }

    // No registration awaits confirmation any more, and everybody has read what was sent.
    void settle()
    {
        server->clock.advance(18);
        server->expireHeartbeat();
        QTRY_VERIFY((*server)->awaitingConfirmation().empty()); // many lapse in several turns
        QTRY_VERIFY_WITH_TIMEOUT(std::all_of(views.begin(), views.end(), isConnected), 60000);
        const Esn last{{0xFF}};
        (*server)->registerRadio(last, 3, Suid{}, QHostAddress(0x7F020000), 9, false, {});
        const auto hasLast = [&last](const std::unique_ptr<ApplicationView> &view) {
            return view->radios().contains(last);
        };
        QTRY_VERIFY_WITH_TIMEOUT(std::all_of(views.begin(), views.end(), hasLast), 60000);
        QCOMPARE(server->log.count(u"Network error: write message failed"_s), 0);
    }

    ApplicationView::Table tableOfTheDatabase() const
    {
        ApplicationView::Table table;
        const auto rows = server->query(
            u"SELECT esn, suid, ip_address, availability, (SELECT group_concat(service, '') FROM "
            "supported_services WHERE subscriber_id = subscribers.id) FROM subscribers"_s);
        for (const QVariantList &row : rows) {
            Notice notice;
            const QByteArray esn = row[0].toByteArray();
            const QByteArray suid = row[1].toByteArray();
            std::copy(esn.begin(), esn.end(), notice.esn.bytes.begin());
            std::copy(suid.begin(), suid.end(), notice.suid.bytes.begin());
            notice.address = row[2].toUInt();
            notice.availability = row[3].toInt();
            const QByteArray services = row[4].toByteArray();
            for (const char digit : services) {
                notice.services.append(static_cast<char>(digit - '0'));
            }
            table[notice.esn] = notice;
        }
        return table;
    }

    void compare()
    {
        const ApplicationView::Table expected = tableOfTheDatabase();
        QVERIFY(expected.size() > RadioCount / 4);
        for (const auto &view : views) {
            QCOMPARE(view->radios().size(), expected.size());
            for (const auto &[esn, notice] : expected) {
                const auto found = view->radios().find(esn);
                QVERIFY2(found != view->radios().end(), qPrintable(esn.text()));
                QCOMPARE(found->second, notice);
            }
        }
    }

    std::unique_ptr<TestServer> server;
    std::vector<std::unique_ptr<ApplicationView>> views;
    std::mt19937 random;
};

QTEST_GUILESS_MAIN(TestApplicationViews)
#include "tst_applicationviews.moc"
