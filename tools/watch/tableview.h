// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "tools/watch/key.h"
#include "tools/watch/selection.h"

#include <QStringList>

namespace WatchTool {

// What a person has asked to see of a table, by keys, and the lines that show it.
class TableView
{
public:
    struct Frame
    {
        int columns = 80;
        int rows = 24;
        bool coloured = false;
        bool hasKeys = true; // there is somebody to be told of them
        qint64 now = 0;      // in the table's time
        QString status = {}; // the first line
    };

    // Of a table that outlives it.
    explicit TableView(const RadioTable &table);

    // The radio was told of or has left.
    void touch(const QMR::Esn &esn) { selection.touch(esn); }
    // False: the person wants to leave.
    bool press(const Key &key);
    // As many as the frame has rows, none wider than it: the last is what is shown of how many, or the search
    // that is being typed.
    QStringList lines(const Frame &frame);

private:
    bool scroll(Key::Code code);
    bool command(char16_t character);
    void type(const Key &key);
    void setSearch(const QString &text);
    void toggle(RadioState state);
    void setOrder(Order order);
    void settle(size_t newRows);
    size_t lowestTop() const;
    QString counts() const;
    QString foot(const Frame &frame) const;

    const RadioTable &table;
    Selection selection;
    QString searchText;
    size_t top = 0;  // the first radio that is shown
    size_t rows = 1; // for radios, in the last frame
    bool isTyping = false;
    bool isFollowing = false;
    bool isHelp = false;
};

// The whole table, for where nobody can ask for anything: a heading, then a line a radio in ESN order.
QStringList plainLines(const RadioTable &table);

} // namespace WatchTool
