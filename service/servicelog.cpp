// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/platform.h"
#include "service/qtservicebase.h"

namespace {

Scm::Word eventType(QtServiceBase::MessageType type)
{
    switch (type) {
    case QtServiceBase::Error:
        return Scm::EventError;
    case QtServiceBase::Warning:
        return Scm::EventWarning;
    case QtServiceBase::Information:
        return Scm::EventInformation;
    default:
        return Scm::EventSuccess;
    }
}

} // namespace

void QtServiceBase::logMessage(const QString &message, MessageType type, int id, uint category,
                               const QByteArray &data) const
{
    if (!platform.scmAvailable()) {
        return;
    }
    Scm::Handle log = platform.scm.registerEventSource(nullptr, Scm::text(name));
    if (!log) {
        return;
    }
    const Scm::Char *strings[] = {Scm::text(message)};
    QByteArray bytes = data;
    platform.scm.reportEvent(log, eventType(type), static_cast<Scm::Word>(category & 0xFFFF),
                             static_cast<Scm::Dword>(id), nullptr, 1, static_cast<Scm::Dword>(bytes.size()),
                             strings, bytes.isEmpty() ? nullptr : bytes.data());
    platform.scm.deregisterEventSource(log);
}
