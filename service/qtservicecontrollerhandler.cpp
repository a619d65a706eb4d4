// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/qtservicecontrollerhandler.h"

#include "service/qtservicebase.h"
#include "service/serviceruntime.h"

#include <QCoreApplication>
#include <QEvent>

#include <utility>

QtServiceControllerHandler::QtServiceControllerHandler(QtServiceBase *serviceObject,
                                                       std::shared_ptr<ServiceRuntime> serviceRuntime)
    : service(serviceObject), runtime(std::move(serviceRuntime))
{
}

void QtServiceControllerHandler::customEvent(QEvent *event)
{
    const auto control = static_cast<Scm::Dword>(event->type() - ServiceRuntime::EventBase);
    switch (control) {
    case Scm::ControlStop:
        service->stop();
        QCoreApplication::quit();
        break;
    case Scm::ControlPause:
        service->pause();
        break;
    case Scm::ControlContinue:
        service->resume();
        break;
    case Scm::ControlStartUp:
        service->start();
        break;
    default:
        if (control >= Scm::ControlUserFirst && control <= Scm::ControlUserLast) {
            service->processCommand(static_cast<int>(control - Scm::ControlUserFirst));
        }
        break;
    }
    runtime->controlHandled();
}
