// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/follow/search.h"

#include "tools/console.h"

#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

using namespace Qt::StringLiterals;

using namespace Follow;
using QMR::Qmra::RadioNotice;

// The cases are those of every search for radios, whatever it is written in.
class TestSearch : public QObject
{
    Q_OBJECT

    // A case's radio. Its keys are those that a radio has in JSON; what cannot be read is a failure.
    static RadioNotice radioOf(const QJsonObject &object)
    {
        RadioNotice radio;
        radio.esn = Console::parseEsn(object[u"esn"_s].toString()).value.value();
        const QString suid = object[u"wacn"_s].toString() + u'.' + object[u"system"_s].toString() + u'.' +
                             object[u"unit"_s].toString();
        radio.suid = Console::parseSuid(suid).value.value();
        if (!object[u"address"_s].isNull()) {
            radio.address =
                Console::parseAddress(object[u"address"_s].toString()).value.value().toIPv4Address();
        }
        radio.availability = QMR::Registered;
        return radio;
    }

private slots:
    void findsWhatIsAskedFor_data()
    {
        QTest::addColumn<QJsonObject>("example");
        QFile file(u":/searchcases.json"_s);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QJsonArray examples = QJsonDocument::fromJson(file.readAll()).array();
        QVERIFY(examples.size() > 50);
        for (const auto &value : examples) {
            const QJsonObject example = value.toObject();
            QTest::newRow(qPrintable(example[u"query"_s].toString() + u": " + example[u"why"_s].toString()))
                << example;
        }
    }

    void findsWhatIsAskedFor()
    {
        QFETCH(QJsonObject, example);
        QVERIFY(example[u"matches"_s].isBool());
        const Search search(example[u"query"_s].toString());
        QCOMPARE(search.matches(radioOf(example)), example[u"matches"_s].toBool());
    }

    void knowsWhetherAnythingIsAskedFor()
    {
        QVERIFY(Search().isEmpty());
        QVERIFY(Search(u" \t"_s).isEmpty());
        QVERIFY(!Search(u"0"_s).isEmpty());
        QVERIFY(!Search(u"?"_s).isEmpty());
    }
};

QTEST_APPLESS_MAIN(TestSearch)
#include "tst_search.moc"
