// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/account.h"

#include <QByteArray>
#include <QRegularExpression>

#include <pwd.h>

#include <cerrno>
#include <vector>

using namespace Qt::StringLiterals;

namespace Linux {

std::optional<QString> unitUser(const QString &account)
{
    const QByteArray name = (account.startsWith(u".\\"_s) ? account.sliced(2) : account).toLocal8Bit();
    std::vector<char> buffer(1024);
    passwd entry{};
    passwd *found = nullptr;
    while (::getpwnam_r(name.constData(), &entry, buffer.data(), buffer.size(), &found) == ERANGE) {
        buffer.resize(buffer.size() * 2);
    }
    if (!found) {
        return std::nullopt;
    }
    // systemd takes plain names only; the number is as good for the others.
    static const QRegularExpression plain(u"\\A[A-Za-z_][A-Za-z0-9_-]*\\z"_s);
    const QString user = QString::fromLocal8Bit(found->pw_name);
    return plain.match(user).hasMatch() ? user : QString::number(found->pw_uid);
}

} // namespace Linux
