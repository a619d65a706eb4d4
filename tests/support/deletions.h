// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QCoreApplication>
#include <QEvent>
#include <QObject>

// Counts the objects of a class that are deleted in the event loop while it lives.
template<typename Class>
class Deletions : public QObject
{
public:
    Deletions() { QCoreApplication::instance()->installEventFilter(this); }

    int count() const { return deleted; }

    bool eventFilter(QObject *object, QEvent *event) override
    {
        deleted += event->type() == QEvent::DeferredDelete && qobject_cast<Class *>(object) ? 1 : 0;
        return false;
    }

private:
    int deleted = 0;
};
