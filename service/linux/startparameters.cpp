// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/startparameters.h"

#include "service/linux/errors.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace Linux {

namespace {

constexpr auto FileName = "start-parameters";
constexpr qsizetype MaximumSize = 1 << 20;

// No link leads anywhere else: the service's account may own this folder.
int openFolder(const QByteArray &folder)
{
    return ::open(folder.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
}

bool writeFile(const QByteArray &runtimeDirectory, const QByteArray &content)
{
    if (::mkdir(runtimeDirectory.constData(), S_IRWXU) != 0 && errno != EEXIST) {
        return false;
    }
    const int folder = openFolder(runtimeDirectory);
    if (folder < 0) {
        return false;
    }
    // The account may put something there in between: only a file that this makes is written to.
    ::unlinkat(folder, FileName, 0);
    bool isWritten = false;
    const int file = ::openat(folder, FileName, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (file >= 0) {
        const ssize_t count = ::write(file, content.constData(), static_cast<size_t>(content.size()));
        isWritten = ::close(file) == 0 && count == content.size();
        if (!isWritten) {
            ::unlinkat(folder, FileName, 0); // a start takes all of them or none
        }
    }
    ::close(folder);
    return isWritten;
}

} // namespace

bool storeStartParameters(const QByteArray &runtimeDirectory, const QStringList &parameters)
{
    QByteArray content;
    for (const QString &parameter : parameters) {
        content += parameter.toUtf8() + '\0';
    }
    if (content.size() > MaximumSize) {
        fail(ErrorInvalidParameter);
        return false;
    }
    if (!writeFile(runtimeDirectory, content)) {
        fail(Scm::ErrorAccessDenied);
        return false;
    }
    return true;
}

QStringList takeStartParameters(const QByteArray &runtimeDirectory)
{
    const int folder = openFolder(runtimeDirectory);
    if (folder < 0) {
        return {};
    }
    QByteArray content;
    const int file = ::openat(folder, FileName, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (file >= 0) {
        std::array<char, 4096> buffer{};
        ssize_t count = 0;
        while (content.size() <= MaximumSize && (count = ::read(file, buffer.data(), buffer.size())) > 0) {
            content.append(buffer.data(), count);
        }
        ::close(file);
        ::unlinkat(folder, FileName, 0);
    }
    ::close(folder);
    if (content.size() > MaximumSize) {
        return {}; // nobody stored that
    }
    QStringList parameters;
    for (qsizetype end = 0; (end = content.indexOf('\0')) >= 0; content.remove(0, end + 1)) {
        parameters.append(QString::fromUtf8(content.first(end)));
    }
    return parameters;
}

} // namespace Linux
