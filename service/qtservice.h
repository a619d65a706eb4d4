// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#pragma once

#include "service/qtservicebase.h"

#include <QCoreApplication>
#include <QPointer>

// A service whose work runs in the event loop of an Application, a QCoreApplication or a class derived from
// it. The service host deletes the application when a run ends.
template<typename Application>
class QtService : public QtServiceBase
{
public:
    using QtServiceBase::QtServiceBase;

protected:
    void createApplication(int &argc, char **argv) override { app = new Application(argc, argv); }
    int executeApplication() override { return Application::exec(); }

    QPointer<Application> app;
};
