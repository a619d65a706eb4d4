// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/capturedoutput.h"

#include <QFile>

#include <unistd.h>

using namespace Qt::StringLiterals;

CapturedOutput::CapturedOutput()
    : output(stdout, folder.filePath(u"out"_s)), error(stderr, folder.filePath(u"err"_s))
{
}

CapturedOutput::~CapturedOutput() = default;

CapturedOutput::Stream::Stream(std::FILE *stream, const QString &filePath)
    : captured(stream), path(filePath), saved(-1)
{
    std::fflush(captured);
    saved = ::dup(fileno(captured));
    std::FILE *file = std::fopen(QFile::encodeName(path).constData(), "w");
    if (saved < 0 || !file || ::dup2(fileno(file), fileno(captured)) < 0) {
        qFatal("cannot redirect to %s", qPrintable(path));
    }
    std::fclose(file);
}

CapturedOutput::Stream::~Stream()
{
    std::fflush(captured);
    ::dup2(saved, fileno(captured));
    ::close(saved);
}

QByteArray CapturedOutput::Stream::written() const
{
    std::fflush(captured);
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        qFatal("cannot read %s", qPrintable(path));
    }
    return file.readAll();
}
