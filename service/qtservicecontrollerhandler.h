// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include <QObject>

#include <memory>

class QtServiceBase;
class ServiceRuntime;

// Lives in the main thread and turns the posted controls of a run into calls of the service object, one at a
// time.
class QtServiceControllerHandler : public QObject
{
    Q_OBJECT

public:
    QtServiceControllerHandler(QtServiceBase *serviceObject, std::shared_ptr<ServiceRuntime> serviceRuntime);

protected:
    void customEvent(QEvent *event) override;

private:
    QtServiceBase *service;
    std::shared_ptr<ServiceRuntime> runtime;
};
