// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QAbstractNativeEventFilter>

// Keeps a service running when the user of the desktop logs off: it swallows the message with which Windows
// tells that, and passes every other.
class QtServiceAppEventFilter : public QAbstractNativeEventFilter
{
public:
    // A native message of event type "windows_generic_MSG", as far as it is read here: pointers and integers
    // of the machine's own size, so the layout is that of Windows on every platform.
    struct Message
    {
        void *window;
        quint32 message;
        quintptr wParam;
        qintptr lParam;
    };

    static QtServiceAppEventFilter *instance();

    // result may be null.
    bool nativeEventFilter(const QByteArray &eventType, void *message, qintptr *result) override;

private:
    QtServiceAppEventFilter() = default;
};
