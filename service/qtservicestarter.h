// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/qtservicebase.h"

#include <QObject>

// Carries the service object's start() into the event loop of a run without a service manager.
class QtServiceStarter : public QObject
{
    Q_OBJECT

public:
    explicit QtServiceStarter(QtServiceBase *serviceObject) : service(serviceObject) {}

public slots:
    void slotStart() { service->start(); }

private:
    QtServiceBase *service;
};
