// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "radio/identity.h"

#include <QTest>

using namespace Qt::StringLiterals;

using QMR::Esn;
using QMR::Suid;

class TestIdentity : public QObject
{
    Q_OBJECT

private slots:
    void esnTextRunsTogetherOrSeparated()
    {
        const Esn esn{{0x00, 0x11, 0xAA, 0xBB, 0x22, 0xCC, 0x33, 0xDD}};
        QCOMPARE(esn.text(), u"0011AABB22CC33DD"_s);
        QCOMPARE(esn.text(true), u"00:11:AA:BB:22:CC:33:DD"_s);
    }

    void suidTextShowsItsThreeFields()
    {
        const Suid suid{{0x12, 0x34, 0x56, 0x78, 0x9A, 0xBC, 0xDE}};
        QCOMPARE(suid.wacn(), 0x12345U);
        QCOMPARE(suid.system(), 0x678U);
        QCOMPARE(suid.unit(), 0x9ABCDEU);
        QCOMPARE(suid.text(), u"{WACN: 0x12345, System: 0x678, Unit: 0x9ABCDE}"_s);
    }

    void suidTextHasNoLeadingZeros()
    {
        QCOMPARE(Suid{}.text(), u"{WACN: 0x0, System: 0x0, Unit: 0x0}"_s);
        const Suid suid{{0x00, 0x00, 0x10, 0x02, 0x00, 0x00, 0x0F}};
        QCOMPARE(suid.text(), u"{WACN: 0x1, System: 0x2, Unit: 0xF}"_s);
    }

    void esnsCompareByteWise()
    {
        QVERIFY((Esn{{0x00, 0xFF}} < Esn{{0x01, 0x00}}));
        QVERIFY((Esn{{0x7F}} < Esn{{0x80}}));
        QVERIFY(Esn{}.isZero());
        QVERIFY(!(Esn{{0, 0, 0, 0, 0, 0, 0, 1}}.isZero()));
    }
};

QTEST_APPLESS_MAIN(TestIdentity)
#include "tst_identity.moc"
