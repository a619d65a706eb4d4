// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtserviceappeventfilter.h"

#include <QByteArray>

namespace {

constexpr quint32 EndSession = 0x16;             // WM_ENDSESSION
constexpr quint32 EndSessionLogOff = 0x80000000; // ENDSESSION_LOGOFF

} // namespace

QtServiceAppEventFilter *QtServiceAppEventFilter::instance()
{
    static QtServiceAppEventFilter filter;
    return &filter;
}

bool QtServiceAppEventFilter::nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result)
{
    if (eventType != "windows_generic_MSG" && eventType != "windows_dispatcher_MSG") {
        return false;
    }
    const auto *received = static_cast<const Message *>(message);
    if (received->message != EndSession || !(static_cast<quint32>(received->lParam) & EndSessionLogOff)) {
        return false;
    }
    // The dispatcher asks for no answer.
    if (result) {
        *result = 1;
    }
    return true;
}
