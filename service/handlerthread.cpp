// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/handlerthread.h"

#include "service/platform.h"
#include "service/serviceruntime.h"

#include <utility>

HandlerThread::HandlerThread(QString serviceName, std::shared_ptr<ServiceRuntime> serviceRuntime)
    : name(std::move(serviceName)), runtime(std::move(serviceRuntime))
{
}

void HandlerThread::run()
{
    std::u16string tableName = name.toStdU16String();
    const Scm::TableEntry table[] = {{tableName.data(), ServiceRuntime::serviceMain}, {nullptr, nullptr}};
    if (platform.scm.startServiceCtrlDispatcher(table)) {
        return;
    }
    const Scm::Dword error = platform.lastError();
    if (error == Scm::ErrorFailedControllerConnect) {
        console = true;
    } else {
        runtime->logStartFailure(error);
    }
    success = false;
    runtime->started.release();
}
