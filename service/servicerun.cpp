// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// The two ways to run the server: under the service manager, and in the foreground.
#include "service/handlerthread.h"
#include "service/platform.h"
#include "service/qtserviceappeventfilter.h"
#include "service/qtservicebase.h"
#include "service/qtservicecontrollerhandler.h"
#include "service/qtservicestarter.h"
#include "service/serviceruntime.h"

#include <QAbstractEventDispatcher>
#include <QByteArray>
#include <QCoreApplication>
#include <QScopeGuard>
#include <QStringList>
#include <QTimer>

#include <memory>
#include <utility>
#include <vector>

namespace {

constexpr unsigned StartTimeout = 20000; // ms
constexpr unsigned EndTimeout = 1000;    // ms

// A command line in the local 8-bit encoding, as an application object wants it: it refers to it all its
// life.
class CommandLine
{
public:
    explicit CommandLine(const QStringList &arguments) : count(static_cast<int>(arguments.size()))
    {
        for (const QString &argument : arguments) {
            texts.push_back(argument.toLocal8Bit());
        }
        for (QByteArray &text : texts) {
            pointers.push_back(text.data());
        }
        pointers.push_back(nullptr);
    }
    Q_DISABLE_COPY_MOVE(CommandLine)

    int count = 0;
    char **vector() { return pointers.data(); }

private:
    std::vector<QByteArray> texts;
    std::vector<char *> pointers; // into texts, then a null pointer
};

// Deletes the thread if it has finished. One that has not is left alone for good, and kept where it can be
// found: its dispatcher is out of our hands, and the process is about to end.
void dismiss(std::unique_ptr<HandlerThread> &thread)
{
    static auto *const leftAlone = new std::vector<std::unique_ptr<HandlerThread>>;
    if (thread && !thread->isFinished()) {
        leftAlone->push_back(std::move(thread));
    }
}

} // namespace

int QtServiceBase::run(bool asService, const QStringList &runArguments)
{
    return asService ? runAsService(runArguments) : runInForeground(runArguments);
}

int QtServiceBase::runInForeground(const QStringList &runArguments)
{
    CommandLine line(runArguments);
    createApplication(line.count, line.vector());
    if (!QCoreApplication::instance()) {
        return -1;
    }
    QtServiceStarter starter(this);
    QTimer::singleShot(0, &starter, &QtServiceStarter::slotStart);
    const int result = executeApplication();
    delete QCoreApplication::instance();
    return result;
}

int QtServiceBase::runAsService(const QStringList &runArguments)
{
    constexpr int Failed = -1;
    const std::shared_ptr<ServiceRuntime> runtime = ServiceRuntime::create(*this);
    const auto atEnd = qScopeGuard([&runtime] { runtime->end(); });
    if (!platform.scmAvailable()) {
        return Failed;
    }
    auto thread = std::make_unique<HandlerThread>(name, runtime);
    const auto dismissal = qScopeGuard([&thread] { dismiss(thread); });
    thread->start();
    if (!platform.waitForStart(runtime->started, StartTimeout)) {
        return Failed;
    }
    if (!thread->succeeded()) {
        const bool fromConsole = thread->startedFromConsole();
        platform.waitForEnd(*thread, EndTimeout);
        return fromConsole && controller.start(runArguments.mid(1)) ? 0 : Failed;
    }

    // The application gets the service manager's start parameters, not the command line of the process.
    CommandLine line(runtime->serviceArguments());
    createApplication(line.count, line.vector());
    if (!QCoreApplication::instance()) {
        return Failed;
    }
    QCoreApplication::eventDispatcher()->installNativeEventFilter(QtServiceAppEventFilter::instance());
    auto receiver = std::make_unique<QtServiceControllerHandler>(this, runtime);
    runtime->acceptControls(receiver.get());
    const int exitCode = executeApplication();
    // A control that came too late for the event loop would wait for it for ever.
    runtime->end();
    runtime->waitForControls();
    runtime->reportStopped(static_cast<Scm::Dword>(exitCode));
    if (!thread->isFinished()) {
        platform.waitForEnd(*thread, EndTimeout);
    }
    receiver.reset();
    dismiss(thread);
    thread.reset();
    delete QCoreApplication::instance();
    return 0;
}
