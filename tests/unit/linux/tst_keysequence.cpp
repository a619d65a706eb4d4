// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/linux/keysequence.h"

#include <QTest>

using namespace Qt::StringLiterals;

using namespace WatchTool;

// Keys are written as one character each: ^ up, v down, < page up, > page down, [ home, ] end, # enter, !
// escape, B backspace; lower-case letters and digits are themselves.
class TestKeySequence : public QObject
{
    Q_OBJECT

    static QString text(const QList<Key> &keys)
    {
        QString result;
        for (const Key &key : keys) {
            result += key.code == Key::Code::Character ? key.character
                                                       : u" ^v<>[]#!B"_s.at(static_cast<int>(key.code));
        }
        return result;
    }

private slots:
    void knowsWhatTerminalsSend_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("keys");
        QTest::newRow("characters") << "az09"_ba << u"az09"_s;
        QTest::newRow("first and last character") << " ~"_ba << u" ~"_s;
        QTest::newRow("enter") << "\r\n"_ba << u"##"_s;
        QTest::newRow("backspace") << "\x7F\b"_ba << u"BB"_s;
        QTest::newRow("controls") << "a\x01\x1C\tb"_ba << u"ab"_s;
        QTest::newRow("not ASCII") << "a\xC3\xA4\xFF"_ba << u"a"_s;
        QTest::newRow("arrows") << "\033[A\033[B\033[C\033[D"_ba << u"^v"_s;
        QTest::newRow("arrows of an application") << "\033OA\033OB\033OC"_ba << u"^v"_s;
        QTest::newRow("home and end") << "\033[H\033[F\033OH\033OF"_ba << u"[][]"_s;
        QTest::newRow("home and end by number") << "\033[1~\033[4~\033[7~\033[8~"_ba << u"[][]"_s;
        QTest::newRow("pages") << "\033[5~\033[6~"_ba << u"<>"_s;
        QTest::newRow("with shift and control") << "\033[1;2A\033[6;5~\033[1;5H"_ba << u"^>["_s;
        QTest::newRow("insert, delete, functions") << "\033[2~\033[3~\033[15~\033OP\033[24;2~a"_ba << u"a"_s;
        QTest::newRow("functions of the console") << "\033[[A\033[[Ea"_ba << u"a"_s;
        QTest::newRow("escape, then a key") << "\033q"_ba << u"!q"_s;
        QTest::newRow("escape twice, then a key") << "\033\033q"_ba << u"!!q"_s;
        QTest::newRow("escape, then an arrow") << "\033\033[A"_ba << u"!^"_s;
        QTest::newRow("without a number") << "\033[~a"_ba << u"a"_s;
        QTest::newRow("an answer of the terminal") << "\033[?62;22ca"_ba << u"a"_s;
        QTest::newRow("zero") << QByteArray("a\0b", 3) << u"ab"_s;
    }
    void knowsWhatTerminalsSend()
    {
        QFETCH(QByteArray, bytes);
        QFETCH(QString, keys);
        KeySequence whole;
        QCOMPARE(text(whole.take(bytes)), keys);
        QVERIFY(!whole.isWaiting());
        KeySequence pieces;
        QList<Key> taken;
        for (const char byte : bytes) {
            taken += pieces.take(QByteArray(1, byte));
        }
        QCOMPARE(text(taken), keys);
        QVERIFY(!pieces.isWaiting());
    }

    void escapeAloneIsAKeyWhenNothingFollows_data()
    {
        QTest::addColumn<QByteArray>("bytes");
        QTest::newRow("escape") << "\033"_ba;
        QTest::newRow("escape and a bracket") << "\033["_ba;
        QTest::newRow("escape and a letter") << "\033O"_ba;
        QTest::newRow("half a sequence") << "\033[5"_ba;
    }
    void escapeAloneIsAKeyWhenNothingFollows()
    {
        QFETCH(QByteArray, bytes);
        KeySequence sequence;
        QCOMPARE(text(sequence.take(bytes)), QString());
        QVERIFY(sequence.isWaiting());
        QCOMPARE(text(sequence.end()), u"!"_s);
        QVERIFY(!sequence.isWaiting());
        QCOMPARE(text(sequence.take("a"_ba)), u"a"_s);
    }

    void endWithoutABeginningIsNoKey()
    {
        KeySequence sequence;
        QCOMPARE(text(sequence.end()), QString());
        QCOMPARE(text(sequence.take("\033[A"_ba)), u"^"_s);
        QCOMPARE(text(sequence.end()), QString());
    }

    // Nobody sends this; it must not be collected for ever.
    void endlessSequenceIsGivenUp()
    {
        KeySequence sequence;
        sequence.take("\033["_ba + QByteArray(1000, '1'));
        QVERIFY(!sequence.isWaiting());
        QCOMPARE(text(sequence.take("\033[A"_ba)), u"^"_s);
    }
};

QTEST_APPLESS_MAIN(TestKeySequence)
#include "tst_keysequence.moc"
