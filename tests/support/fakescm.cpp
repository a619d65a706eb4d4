// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/support/fakescm.h"

#include <QThread>

#include <chrono>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

FakeScm *fake = nullptr; // set before any thread of the run, reset after the last
thread_local Scm::Dword lastErrorOfThread = 0;
int registration = 0; // its address is the status handle

QString string(const Scm::Char *text)
{
    return text ? Scm::toString(text) : u"-"_s;
}

QString hex(Scm::Dword value)
{
    return u"0x"_s + QString::number(value, 16);
}

std::optional<QString> optional(const Scm::Char *text)
{
    return text ? std::optional(Scm::toString(text)) : std::nullopt;
}

void noFunctions(Scm::Functions &)
{
}

Scm::Dword lastError()
{
    return lastErrorOfThread;
}

// With what a careless print would take for a conversion.
QString errorText(Scm::Dword code)
{
    return u"100%s sure: error %1"_s.arg(code);
}

} // namespace

struct FakeFunctions
{
    static Scm::Handle registerServiceCtrlHandler(const Scm::Char *name, Scm::ControlHandler handler)
    {
        if (!fake->call(u"registerServiceCtrlHandler"_s, string(name))) {
            return nullptr;
        }
        const std::lock_guard lock(fake->mutex);
        fake->handler = handler;
        fake->changed.notify_all();
        return &registration;
    }

    static Scm::Bool setServiceStatus(Scm::Handle handle, Scm::Status *status)
    {
        const bool accepted = fake->call(u"setServiceStatus"_s, QString::number(status->currentState));
        {
            const std::lock_guard lock(fake->mutex);
            fake->lastStatusHandle = handle;
            fake->statuses.append(*status);
        }
        if (fake->onReport) {
            fake->onReport(*status);
        }
        fake->changed.notify_all();
        return accepted;
    }

    static Scm::Bool changeServiceConfig2(Scm::Handle service, Scm::Dword level, void *info)
    {
        const QString text = string(static_cast<Scm::Description *>(info)->text);
        if (!fake->call(u"changeServiceConfig2"_s, QString::number(level) + u' ' + text)) {
            return 0;
        }
        fake->services[static_cast<FakeScm::Handle *>(service)->service].description = text;
        return 1;
    }

    static Scm::Bool closeServiceHandle(Scm::Handle handle)
    {
        auto *closed = static_cast<FakeScm::Handle *>(handle);
        {
            const std::lock_guard lock(fake->mutex);
            if (!fake->handles.remove(closed)) {
                qFatal("closing a handle that is not open");
            }
        }
        const bool done = fake->call(u"closeServiceHandle"_s, closed->kind);
        delete closed;
        return done;
    }

    static Scm::Handle createService(Scm::Handle, const Scm::Char *name, const Scm::Char *displayName,
                                     Scm::Dword access, Scm::Dword type, Scm::Dword startType,
                                     Scm::Dword errorControl, const Scm::Char *binaryPath,
                                     const Scm::Char *group, Scm::Dword *tag, const Scm::Char *dependencies,
                                     const Scm::Char *account, const Scm::Char *password)
    {
        const QString extras = group || tag || dependencies ? u" with extras"_s : QString();
        if (!fake->call(u"createService"_s, string(name) + u' ' + hex(access) + extras)) {
            return nullptr;
        }
        const QString key = string(name);
        if (fake->services.contains(key)) {
            fake->refuse(Scm::ErrorServiceExists);
            return nullptr;
        }
        FakeScm::Service service;
        service.displayName = string(displayName);
        service.binaryPath = string(binaryPath);
        service.account = optional(account);
        service.password = optional(password);
        service.type = type;
        service.startType = startType;
        service.errorControl = errorControl;
        fake->services.insert(key, service);
        return fake->open(u"service"_s, key);
    }

    static Scm::Handle openScManager(const Scm::Char *machine, const Scm::Char *database, Scm::Dword access)
    {
        const QString elsewhere = machine || database ? u" elsewhere"_s : QString();
        return fake->call(u"openScManager"_s, hex(access) + elsewhere) ? fake->open(u"manager"_s, QString())
                                                                       : nullptr;
    }

    static Scm::Bool deleteService(Scm::Handle service)
    {
        if (!fake->call(u"deleteService"_s)) {
            return 0;
        }
        fake->services.remove(static_cast<FakeScm::Handle *>(service)->service);
        return 1;
    }

    static Scm::Handle openService(Scm::Handle, const Scm::Char *name, Scm::Dword access)
    {
        const QString key = string(name);
        if (!fake->call(u"openService"_s, key + u' ' + hex(access))) {
            return nullptr;
        }
        if (!fake->services.contains(key)) {
            fake->refuse(Scm::ErrorServiceDoesNotExist);
            return nullptr;
        }
        return fake->open(u"service"_s, key);
    }

    static Scm::Bool queryServiceStatus(Scm::Handle service, Scm::Status *status)
    {
        if (!fake->call(u"queryServiceStatus"_s)) {
            return 0;
        }
        *status = {};
        status->currentState = fake->statesToReport.isEmpty()
                                   ? fake->services[static_cast<FakeScm::Handle *>(service)->service].state
                                   : fake->statesToReport.takeFirst();
        return 1;
    }

    static Scm::Bool startServiceCtrlDispatcher(const Scm::TableEntry *table)
    {
        const QString names = string(table[0].name) + (table[1].name ? u" and more"_s : QString());
        return fake->call(u"startServiceCtrlDispatcher"_s, names) && fake->dispatch(table);
    }

    static Scm::Bool startService(Scm::Handle service, Scm::Dword argc, const Scm::Char **argv)
    {
        QStringList parameters;
        for (Scm::Dword i = 0; i < argc; ++i) {
            parameters.append(string(argv[i]));
        }
        if (!fake->call(u"startService"_s, parameters.join(u'|'))) {
            return 0;
        }
        FakeScm::Service &started = fake->services[static_cast<FakeScm::Handle *>(service)->service];
        if (started.state != Scm::StateStopped) {
            return fake->refuse(Scm::ErrorServiceAlreadyRunning);
        }
        started.state = Scm::StateStartPending;
        started.startParameters = parameters;
        return 1;
    }

    static Scm::Bool controlService(Scm::Handle service, Scm::Dword control, Scm::Status *status)
    {
        if (!fake->call(u"controlService"_s, QString::number(control))) {
            return 0;
        }
        const Scm::Dword state = fake->services[static_cast<FakeScm::Handle *>(service)->service].state;
        if (state == Scm::StateStopped) {
            return fake->refuse(Scm::ErrorServiceNotActive);
        }
        *status = {};
        status->currentState = state;
        return 1;
    }

    static Scm::Bool deregisterEventSource(Scm::Handle log)
    {
        auto *closed = static_cast<FakeScm::Handle *>(log);
        {
            const std::lock_guard lock(fake->mutex);
            if (!fake->handles.remove(closed)) {
                qFatal("deregistering a source that is not registered");
            }
        }
        const bool done = fake->call(u"deregisterEventSource"_s);
        delete closed;
        return done;
    }

    static Scm::Bool reportEvent(Scm::Handle log, Scm::Word type, Scm::Word category, Scm::Dword id,
                                 void *userSid, Scm::Word stringCount, Scm::Dword dataSize,
                                 const Scm::Char **strings, void *data)
    {
        const QString arguments = u"sid %1 strings %2 size %3 data %4"_s.arg(
            userSid ? u"some"_s : u"none"_s, QString::number(stringCount), QString::number(dataSize),
            data ? u"some"_s : u"none"_s);
        if (!fake->call(u"reportEvent"_s, arguments)) {
            return 0;
        }
        const std::lock_guard lock(fake->mutex);
        fake->written.append({static_cast<FakeScm::Handle *>(log)->service, type, category, id,
                              string(strings[0]),
                              QByteArray(static_cast<const char *>(data), static_cast<qsizetype>(dataSize))});
        return 1;
    }

    static Scm::Handle registerEventSource(const Scm::Char *server, const Scm::Char *source)
    {
        return fake->call(u"registerEventSource"_s, string(server) + u' ' + string(source))
                   ? fake->open(u"log"_s, string(source))
                   : nullptr;
    }

    static void sleep(unsigned milliseconds) { note(u"sleep"_s, milliseconds); }

    static bool waitForStart(Semaphore &start, unsigned milliseconds)
    {
        note(u"start"_s, milliseconds);
        if (!fake->startExpires) {
            return fake->saved.waitForStart(start, milliseconds);
        }
        // Long before the wait is over the dispatcher is in its call.
        std::unique_lock lock(fake->mutex);
        fake->waitUntil(lock, [] { return fake->dispatchersRunning > 0; });
        return false;
    }

    static void registerMessageFile(const QString &source, const QString &file)
    {
        fake->call(u"registerMessageFile"_s, source);
        fake->messageFiles.insert(source, file);
    }

    static void removeMessageFile(const QString &source)
    {
        fake->call(u"removeMessageFile"_s, source);
        fake->messageFiles.remove(source);
    }

    // A dispatcher that is held would be waited for in vain.
    static bool waitForEnd(QThread &thread, unsigned milliseconds)
    {
        note(u"end"_s, milliseconds);
        return !fake->dispatcherHeld && thread.wait();
    }

    static void note(const QString &wait, unsigned milliseconds)
    {
        const std::lock_guard lock(fake->mutex);
        fake->askedWaits.append(wait + u' ' + QString::number(milliseconds));
    }
};

FakeScm::FakeScm() : saved(platform)
{
    fake = this;
    lastErrorOfThread = 0;
    platform.scm = {
        FakeFunctions::registerServiceCtrlHandler,
        FakeFunctions::setServiceStatus,
        FakeFunctions::changeServiceConfig2,
        FakeFunctions::closeServiceHandle,
        FakeFunctions::createService,
        FakeFunctions::openScManager,
        FakeFunctions::deleteService,
        FakeFunctions::openService,
        FakeFunctions::queryServiceStatus,
        FakeFunctions::startServiceCtrlDispatcher,
        FakeFunctions::startService,
        FakeFunctions::controlService,
        FakeFunctions::deregisterEventSource,
        FakeFunctions::reportEvent,
        FakeFunctions::registerEventSource,
        nullptr, // the service configuration is never asked for
        nullptr,
    };
    platform.provide = noFunctions;
    platform.lastError = lastError;
    platform.errorText = errorText;
    platform.registerMessageFile = FakeFunctions::registerMessageFile;
    platform.removeMessageFile = FakeFunctions::removeMessageFile;
    platform.sleep = FakeFunctions::sleep;
    platform.waitForStart = FakeFunctions::waitForStart;
    platform.waitForEnd = FakeFunctions::waitForEnd;
}

FakeScm::~FakeScm()
{
    {
        std::unique_lock lock(mutex);
        dispatcherHeld = false;
        ending = true;
        changed.notify_all();
        waitUntil(lock, [this] { return dispatchersRunning == 0; });
    }
    qDeleteAll(handles);
    platform = saved;
    fake = nullptr;
}

// Bounded, so that a service that hangs fails the test instead of stopping it for ever.
template<typename Condition>
void FakeScm::waitUntil(std::unique_lock<std::mutex> &lock, Condition condition)
{
    if (!changed.wait_for(lock, std::chrono::seconds(60), condition)) {
        qFatal("the service has not come to what the test waits for; calls so far:\n%s",
               qPrintable(calls.join(u'\n')));
    }
}

bool FakeScm::call(const QString &function, const QString &arguments)
{
    const std::lock_guard lock(mutex);
    calls.append(arguments.isEmpty() ? function : function + u' ' + arguments);
    const auto failure = failures.find(function);
    if (failure == failures.end() || failure->skipped-- > 0) {
        return true;
    }
    failure->skipped = 0;
    lastErrorOfThread = failure->error;
    return false;
}

Scm::Bool FakeScm::refuse(Scm::Dword error)
{
    lastErrorOfThread = error;
    return 0;
}

Scm::Handle FakeScm::open(const QString &kind, const QString &service)
{
    const std::lock_guard lock(mutex);
    auto *handle = new Handle{kind, service};
    handles.insert(handle);
    return handle;
}

bool FakeScm::dispatch(const Scm::TableEntry *table)
{
    std::unique_lock lock(mutex);
    if (!launched) {
        lastErrorOfThread = Scm::ErrorFailedControllerConnect;
        return false;
    }
    ++dispatchersRunning;
    changed.notify_all();
    dispatcherId = std::this_thread::get_id();
    std::thread mainFunction;
    if (!mainWithheld) {
        mainFunction = std::thread([this, entry = table[0].main, parameters = *launched]() mutable {
            std::vector<Scm::Char *> argv;
            std::vector<std::u16string> texts;
            for (const QString &parameter : parameters) {
                texts.push_back(parameter.toStdU16String());
            }
            for (std::u16string &text : texts) {
                argv.push_back(text.data());
            }
            {
                const std::lock_guard idLock(mutex);
                mainId = std::this_thread::get_id();
            }
            entry(static_cast<Scm::Dword>(argv.size()), argv.data());
            const std::lock_guard returnLock(mutex);
            mainReturned = true;
            changed.notify_all();
        });
    }
    const auto stopped = [this] {
        return !statuses.isEmpty() && statuses.last().currentState == Scm::StateStopped;
    };
    while (true) {
        changed.wait(lock, [&] {
            return ending || (!controls.isEmpty() && handler) || (stopped() && !dispatcherHeld);
        });
        if (controls.isEmpty() || !handler) {
            break;
        }
        const Scm::Dword code = controls.takeFirst();
        const Scm::ControlHandler called = handler;
        lock.unlock();
        called(code);
        lock.lock();
        ++controlsDone;
        changed.notify_all();
    }
    lock.unlock();
    if (mainFunction.joinable()) {
        mainFunction.join();
    }
    lock.lock();
    --dispatchersRunning;
    changed.notify_all();
    return true;
}

void FakeScm::fail(const QString &function, Scm::Dword error, int skipped)
{
    const std::lock_guard lock(mutex);
    failures.insert(function, {error, skipped});
}

QStringList FakeScm::takeCalls()
{
    const std::lock_guard lock(mutex);
    return std::exchange(calls, {});
}

QStringList FakeScm::callsOf(const QString &function) const
{
    const std::lock_guard lock(mutex);
    QStringList found;
    for (const QString &line : calls) {
        if (line == function || line.startsWith(function + u' ')) {
            found.append(line);
        }
    }
    return found;
}

qsizetype FakeScm::openHandles() const
{
    const std::lock_guard lock(mutex);
    return handles.size();
}

QList<LogRecord> FakeScm::events() const
{
    const std::lock_guard lock(mutex);
    return written;
}

QStringList FakeScm::sleeps() const
{
    const std::lock_guard lock(mutex);
    return askedWaits;
}

void FakeScm::makeUnavailable()
{
    platform.scm = {};
}

void FakeScm::launch(const QStringList &startParameters)
{
    const std::lock_guard lock(mutex);
    launched = startParameters;
    // A new run: what the last one left is no longer true.
    handler = nullptr;
    mainReturned = false;
    statuses.clear();
    controls.clear();
    calls.clear();
}

void FakeScm::waitForState(Scm::State state)
{
    std::unique_lock lock(mutex);
    waitUntil(lock, [this, state] { return !statuses.isEmpty() && statuses.last().currentState == state; });
}

void FakeScm::waitForControlHandler()
{
    std::unique_lock lock(mutex);
    waitUntil(lock, [this] { return handler != nullptr; });
}

void FakeScm::waitForServiceMain()
{
    std::unique_lock lock(mutex);
    waitUntil(lock, [this] { return mainReturned; });
}

void FakeScm::control(Scm::Dword code)
{
    std::unique_lock lock(mutex);
    controls.append(code);
    const unsigned number = ++controlsSent;
    changed.notify_all();
    waitUntil(lock, [this, number] { return controlsDone >= number; });
}

void FakeScm::postControl(Scm::Dword code)
{
    const std::lock_guard lock(mutex);
    controls.append(code);
    ++controlsSent;
    changed.notify_all();
}

QList<Scm::Status> FakeScm::reports() const
{
    const std::lock_guard lock(mutex);
    return statuses;
}

QList<Scm::Dword> FakeScm::reportedStates() const
{
    QList<Scm::Dword> states;
    for (const Scm::Status &status : reports()) {
        states.append(status.currentState);
    }
    return states;
}

Scm::Handle FakeScm::statusHandle() const
{
    const std::lock_guard lock(mutex);
    return lastStatusHandle;
}

std::thread::id FakeScm::dispatcherThread() const
{
    const std::lock_guard lock(mutex);
    return dispatcherId;
}

std::thread::id FakeScm::mainFunctionThread() const
{
    const std::lock_guard lock(mutex);
    return mainId;
}
