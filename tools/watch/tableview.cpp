// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tools/watch/tableview.h"

#include "tools/follow/format.h"
#include "tools/watch/columns.h"

#include <algorithm>
#include <array>

using namespace Qt::StringLiterals;

namespace WatchTool {

namespace {

constexpr int LongestSearch = 30; // longer than anything that can be found

constexpr int OneLineEach = 3; // status, heading and foot: with fewer rows there is no heading
constexpr int AllLines = 5;    // from here on the counts are there, too

constexpr std::array States{RadioState::Unreachable, RadioState::Unconfirmed, RadioState::Pending,
                            RadioState::Registered, RadioState::Other};

// The words are those that a radio in this state has.
QString nameOf(RadioState state)
{
    switch (state) {
    case RadioState::Unreachable:
        return Follow::stateName(QMR::Unreachable, false);
    case RadioState::Unconfirmed:
        return Follow::stateName(QMR::Unconfirmed, false);
    case RadioState::Registered:
        return Follow::stateName(QMR::Registered, false);
    case RadioState::Pending:
        return Follow::stateName(0, true);
    default:
        return u"other"_s;
    }
}

QString nameOf(Order order)
{
    switch (order) {
    case Order::Change:
        return u"by last change"_s;
    case Order::Address:
        return u"by address"_s;
    case Order::State:
        return u"by state"_s;
    case Order::Esn:
        break;
    }
    return u"by ESN"_s;
}

const QStringList &help()
{
    static const QStringList lines{
        u"arrows, PageUp, PageDown, Home, End  scroll"_s,
        u"/  search: part of an ESN, beginning of a SUID or address"_s,
        u"   Enter keeps the search, Escape clears it"_s,
        u"e  sort by ESN"_s,
        u"c  sort by last change, newest first"_s,
        u"a  sort by address"_s,
        u"s  sort by state, worst first"_s,
        u"1  show the unreachable; again: no longer"_s,
        u"2  show the unconfirmed"_s,
        u"3  show the pending"_s,
        u"4  show the registered"_s,
        u"5  show those in any other state"_s,
        u"0  show all states"_s,
        u"f  follow the last change; scrolling ends it"_s,
        u"q  quit, as Ctrl-C does"_s,
        u"?  this; any key goes back"_s,
    };
    return lines;
}

} // namespace

TableView::TableView(const RadioTable &newTable) : table(newTable), selection(newTable)
{
}

bool TableView::press(const Key &key)
{
    if (isHelp) {
        isHelp = false;
        return key != Key{Key::Code::Character, u'q'};
    }
    if (scroll(key.code)) {
        isFollowing = false;
        return true;
    }
    if (isTyping) {
        type(key);
        return true;
    }
    if (key.code == Key::Code::Escape) {
        setSearch(QString());
    }
    return key.code != Key::Code::Character || command(key.character.unicode());
}

bool TableView::scroll(Key::Code code)
{
    switch (code) {
    case Key::Code::Up:
        top -= std::min<size_t>(top, 1);
        break;
    case Key::Code::Down:
        top += 1;
        break;
    case Key::Code::PageUp:
        top -= std::min(top, rows);
        break;
    case Key::Code::PageDown:
        top += rows;
        break;
    case Key::Code::Home:
        top = 0;
        break;
    case Key::Code::End:
        top = selection.size();
        break;
    default:
        return false;
    }
    top = std::min(top, lowestTop());
    return true;
}

// With it the last radio is in the last line.
size_t TableView::lowestTop() const
{
    return selection.size() - std::min(selection.size(), rows);
}

bool TableView::command(char16_t character)
{
    switch (character) {
    case u'q':
        return false;
    case u'?':
        isHelp = true;
        break;
    case u'/':
        setSearch(QString());
        isTyping = true;
        break;
    case u'f':
        isFollowing = !isFollowing;
        break;
    case u'e':
        setOrder(Order::Esn);
        break;
    case u'c':
        setOrder(Order::Change);
        break;
    case u'a':
        setOrder(Order::Address);
        break;
    case u's':
        setOrder(Order::State);
        break;
    case u'0':
        selection.showAllStates();
        top = 0;
        break;
    default:
        if (character >= u'1' && character < u'1' + States.size()) {
            toggle(States.at(character - u'1'));
        }
        break;
    }
    return true;
}

void TableView::type(const Key &key)
{
    switch (key.code) {
    case Key::Code::Character:
        setSearch(QString(searchText + key.character).left(LongestSearch));
        break;
    case Key::Code::Backspace:
        setSearch(searchText.chopped(std::min<qsizetype>(searchText.size(), 1)));
        break;
    case Key::Code::Escape:
        setSearch(QString());
        [[fallthrough]];
    default:
        isTyping = false;
        break;
    }
}

void TableView::setSearch(const QString &text)
{
    searchText = text;
    selection.setSearch(text);
    top = 0;
}

void TableView::toggle(RadioState state)
{
    selection.toggle(state);
    top = 0;
}

void TableView::setOrder(Order order)
{
    selection.setOrder(order);
    top = 0;
}

// What is in view stays in view when something changes above it; but whoever is at the top sees what comes
// there.
void TableView::settle(size_t newRows)
{
    rows = std::max<size_t>(newRows, 1);
    if (top > 0 && top < selection.size()) {
        const Selection::Place first = selection.place(top);
        selection.update();
        top = selection.indexFrom(first);
    } else {
        selection.update();
    }
    const TableRadio *last = table.last();
    if (isFollowing && last != nullptr && last->changed) {
        const std::optional<size_t> index = selection.indexOf(*last);
        if (index && (*index < top || *index >= top + rows)) {
            top = *index - std::min(*index, rows / 2);
        }
    }
    top = std::min(top, lowestTop());
}

QStringList TableView::lines(const Frame &frame)
{
    const Columns columns(frame.columns);
    QStringList head{frame.status};
    if (frame.rows >= AllLines) {
        head.append(counts());
    }
    if (isHelp) {
        settle(rows);
        head += help();
    } else {
        if (frame.rows > OneLineEach) {
            head.append(columns.heading());
        }
        const auto taken = static_cast<int>(head.size()) + 1;
        settle(static_cast<size_t>(std::max(frame.rows - taken, 0)));
    }
    QStringList lines;
    for (const QString &line : head) {
        lines.append(line.left(frame.columns));
    }
    if (!isHelp) {
        const size_t end = std::min(top + rows, selection.size());
        for (size_t index = top; index < end; ++index) {
            const TableRadio &radio = selection.radio(index);
            lines.append(columns.row(radio, &radio == table.last(), frame.now, frame.coloured));
        }
        while (lines.size() < frame.rows - 1) {
            lines.append(QString());
        }
        lines.append(foot(frame).left(frame.columns));
    }
    return lines.mid(0, std::max(frame.rows, 1));
}

QString TableView::counts() const
{
    QStringList texts;
    for (const RadioState state : States) {
        const QString text = nameOf(state) + u' ' + QString::number(table.count(state));
        if (selection.isToggled(state)) {
            texts.append(u'[' + text + u']');
        } else if (table.count(state) > 0) {
            texts.append(text);
        }
    }
    return texts.join(u", ");
}

QString TableView::foot(const Frame &frame) const
{
    if (isTyping) {
        return u'/' + searchText + u"_  Enter: keep, Escape: clear";
    }
    QStringList texts;
    if (selection.size() == 0) {
        texts.append(u"none"_s);
    } else {
        texts.append(
            u"%1-%2 of %3"_s.arg(top + 1).arg(std::min(top + rows, selection.size())).arg(selection.size()));
    }
    if (!searchText.isEmpty()) {
        texts.append(u'/' + searchText);
    }
    texts.append(nameOf(selection.order()));
    if (isFollowing) {
        texts.append(u"following"_s);
    }
    return texts.join(u", ") + (frame.hasKeys ? u"  ?: keys, q: quit"_s : QString());
}

QStringList plainLines(const RadioTable &table)
{
    const Columns columns = Columns::plain();
    QStringList lines{columns.heading()};
    for (const auto &[esn, radio] : table.all()) {
        lines.append(columns.row(radio, &radio == table.last(), 0, false));
    }
    return lines;
}

} // namespace WatchTool
