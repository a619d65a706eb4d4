// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QStringList>

#include <vector>

// A command line in the local 8-bit encoding, as an application object wants it: it refers to it all its
// life.
class CommandLine
{
public:
    explicit CommandLine(const QStringList &arguments);
    Q_DISABLE_COPY_MOVE(CommandLine)

    int count = 0;
    char **vector() { return pointers.data(); }

private:
    std::vector<QByteArray> texts;
    std::vector<char *> pointers; // into texts, then a null pointer
};
