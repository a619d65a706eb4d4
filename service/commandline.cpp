// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/commandline.h"

CommandLine::CommandLine(const QStringList &arguments) : count(static_cast<int>(arguments.size()))
{
    for (const QString &argument : arguments) {
        texts.push_back(argument.toLocal8Bit());
    }
    for (QByteArray &text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
}
