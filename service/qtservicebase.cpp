// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtservicebase.h"

#include <atomic>

namespace {

constexpr qsizetype MaximumNameLength = 255;

std::atomic<QtServiceBase *> serviceObject = nullptr; // the service manager's threads ask for it too

// The name as every platform call will see it.
QString cleaned(QString name)
{
    if (name.size() > MaximumNameLength) {
        qWarning("QtService: 'name' is longer than 255 characters.");
        name.truncate(MaximumNameLength);
    }
    if (name.contains(u'\\')) {
        qWarning("QtService: 'name' contains backslashes '\\'.");
        // Deliberately U+0000: a platform call that takes the name then sees it end at the first backslash.
        name.replace(u'\\', QChar(0));
    }
    // utf16(), which several threads call, reallocates the text of a literal.
    name.detach();
    return name;
}

} // namespace

QtServiceBase::QtServiceBase(int argc, char **argv, const QString &serviceName)
    : name(cleaned(serviceName)), controller(name)
{
    serviceObject = this;
    for (int i = 0; i < argc; ++i) {
        arguments.append(QString::fromLocal8Bit(argv[i]));
    }
}

QtServiceBase::~QtServiceBase()
{
    if (serviceObject == this) {
        serviceObject = nullptr;
    }
}

QtServiceBase *QtServiceBase::instance()
{
    return serviceObject;
}
