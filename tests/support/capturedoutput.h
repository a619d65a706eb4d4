// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QByteArray>
#include <QTemporaryDir>

#include <cstdio>

// Takes what this process writes to standard output and standard error while it lives.
class CapturedOutput
{
public:
    CapturedOutput();
    ~CapturedOutput();
    Q_DISABLE_COPY_MOVE(CapturedOutput)

    QByteArray out() const { return output.written(); }
    QByteArray err() const { return error.written(); }

private:
    class Stream
    {
    public:
        Stream(std::FILE *stream, const QString &filePath);
        ~Stream();
        Q_DISABLE_COPY_MOVE(Stream)
        QByteArray written() const;

    private:
        std::FILE *captured;
        QString path;
        int saved;
    };

    QTemporaryDir folder;
    Stream output;
    Stream error;
};
