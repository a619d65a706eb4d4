// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "service/linux/systemd.h"

#include "service/linux/errors.h"

#include <QDeadlineTimer>

#include <systemd/sd-bus.h>

#include <unistd.h>

#include <array>
#include <cstdlib>
#include <memory>
#include <string_view>

namespace Linux {

namespace {

constexpr auto Destination = "org.freedesktop.systemd1";
constexpr auto ManagerObject = "/org/freedesktop/systemd1";
constexpr auto ManagerInterface = "org.freedesktop.systemd1.Manager";
constexpr auto UnitObjects = "/org/freedesktop/systemd1/unit";
constexpr auto PropertiesInterface = "org.freedesktop.DBus.Properties";

// A job of the same unit that has not begun makes way.
constexpr auto Replace = "replace";

struct Unref
{
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using Message = std::unique_ptr<sd_bus_message, Unref>;

// By the names: what the library takes for the number of an error is access denied for a mere failure too.
Scm::Dword errorFor(const sd_bus_error &error)
{
    struct Meaning
    {
        const char *name;
        Scm::Dword error;
    };
    static constexpr std::array<Meaning, 8> Meanings = {{
        {"org.freedesktop.systemd1.NoSuchUnit", Scm::ErrorServiceDoesNotExist},
        {"org.freedesktop.systemd1.UnitMasked", ErrorServiceDisabled},
        {SD_BUS_ERROR_ACCESS_DENIED, Scm::ErrorAccessDenied},
        {SD_BUS_ERROR_AUTH_FAILED, Scm::ErrorAccessDenied},
        {SD_BUS_ERROR_INTERACTIVE_AUTHORIZATION_REQUIRED, Scm::ErrorAccessDenied},
        {SD_BUS_ERROR_NO_REPLY, ErrorRequestTimeout},
        {SD_BUS_ERROR_TIMEOUT, ErrorRequestTimeout},
        {"System.Error.ETIMEDOUT", ErrorRequestTimeout},
    }};
    for (const Meaning &meaning : Meanings) {
        if (sd_bus_error_has_name(&error, meaning.name)) {
            return meaning.error;
        }
    }
    return ErrorManagerUnavailable;
}

// Where it has not the last error tells why.
bool succeeded(int result, sd_bus_error &error)
{
    if (result < 0) {
        fail(errorFor(error));
    }
    sd_bus_error_free(&error);
    return result >= 0;
}

Scm::State activeState(std::string_view status)
{
    for (const Scm::State state : {Scm::StatePausePending, Scm::StatePaused, Scm::StateContinuePending}) {
        if (status == statusText(state).constData()) {
            return state;
        }
    }
    return Scm::StateRunning;
}

Scm::State stateOf(std::string_view active, std::string_view status)
{
    if (active == "active" || active == "reloading") {
        return activeState(status);
    }
    if (active == "activating" || active == "maintenance") {
        return Scm::StateStartPending;
    }
    if (active == "deactivating") {
        return Scm::StateStopPending;
    }
    return Scm::StateStopped; // inactive, failed
}

// What systemd tells of a unit: a dictionary of all its properties, of which these matter.
struct Properties
{
    const char *load = "";
    const char *active = "";
    const char *sub = "";
    const char *status = "";
    std::int32_t exitCode = 0;
    QByteArray invocation;

    // False where the message is not such a dictionary.
    bool read(sd_bus_message *message)
    {
        if (sd_bus_message_enter_container(message, 'a', "{sv}") < 0) {
            return false;
        }
        int entered = 0;
        while ((entered = sd_bus_message_enter_container(message, 'e', "sv")) > 0) {
            const char *name = nullptr;
            if (sd_bus_message_read(message, "s", &name) < 0 || !readValue(message, name) ||
                sd_bus_message_exit_container(message) < 0) {
                return false;
            }
        }
        return entered == 0;
    }

private:
    bool readValue(sd_bus_message *message, std::string_view name)
    {
        const auto text = [message](const char *&value) {
            return sd_bus_message_read(message, "v", "s", &value) >= 0;
        };
        if (name == "LoadState") {
            return text(load);
        }
        if (name == "ActiveState") {
            return text(active);
        }
        if (name == "SubState") {
            return text(sub);
        }
        if (name == "StatusText") {
            return text(status);
        }
        if (name == "ExecMainStatus") {
            return sd_bus_message_read(message, "v", "i", &exitCode) >= 0;
        }
        if (name == "InvocationID") {
            const void *bytes = nullptr;
            size_t size = 0;
            if (sd_bus_message_enter_container(message, 'v', "ay") < 0 ||
                sd_bus_message_read_array(message, 'y', &bytes, &size) < 0) {
                return false;
            }
            invocation = QByteArray(static_cast<const char *>(bytes), static_cast<qsizetype>(size));
            return sd_bus_message_exit_container(message) >= 0;
        }
        return sd_bus_message_skip(message, "v") >= 0;
    }
};

} // namespace

Places &places()
{
    static Places thisMachine;
    return thisMachine;
}

QByteArray runtimeDirectory(const QString &unit)
{
    return places().runtimeFolder + '/' + unit.toLatin1();
}

Systemd::Systemd(const QString &unitName) : unit(unitName.toLatin1() + ".service")
{
    const QDeadlineTimer deadline(places().timeoutMilliseconds);
    // systemd itself listens to root only.
    if (::geteuid() == 0) {
        connectTo(places().managerSocket, false, deadline);
    }
    if (!bus) {
        connectTo(places().busSocket, true, deadline);
    }
}

Systemd::~Systemd()
{
    sd_bus_close_unref(bus);
}

void Systemd::connectTo(const QByteArray &socket, bool isBus, const QDeadlineTimer &deadline)
{
    const QByteArray address = "unix:path=" + socket;
    const auto limit = static_cast<std::uint64_t>(places().timeoutMilliseconds) * 1000;
    bool works = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.constData()) >= 0 &&
                 sd_bus_set_bus_client(bus, isBus ? 1 : 0) >= 0 &&
                 sd_bus_set_method_call_timeout(bus, limit) >= 0 && sd_bus_start(bus) >= 0;
    // A call would wait for the connection as long as the library pleases.
    while (works && sd_bus_is_ready(bus) == 0) {
        const auto left = static_cast<std::uint64_t>(deadline.remainingTime()) * 1000;
        works = left > 0 && sd_bus_process(bus, nullptr) >= 0 &&
                (sd_bus_is_ready(bus) != 0 || sd_bus_wait(bus, left) >= 0);
    }
    if (!works) {
        bus = sd_bus_close_unref(bus);
    }
}

template<typename... Arguments>
bool Systemd::callManager(const char *method, const char *types, Arguments... arguments)
{
    if (!bus) {
        fail(ErrorManagerUnavailable);
        return false;
    }
    sd_bus_error error{};
    const int result = sd_bus_call_method(bus, Destination, ManagerObject, ManagerInterface, method, &error,
                                          nullptr, types, arguments...);
    return succeeded(result, error);
}

bool Systemd::query(UnitState &state)
{
    char *path = nullptr;
    if (!bus || sd_bus_path_encode(UnitObjects, unit.constData(), &path) < 0) {
        fail(ErrorManagerUnavailable);
        return false;
    }
    sd_bus_error error{};
    sd_bus_message *answer = nullptr;
    // An empty interface: the properties of all.
    const int result =
        sd_bus_call_method(bus, Destination, path, PropertiesInterface, "GetAll", &error, &answer, "s", "");
    std::free(path);
    const Message message(answer);
    Properties shown;
    if (!succeeded(result, error)) {
        return false;
    }
    if (!shown.read(answer)) {
        fail(ErrorManagerUnavailable);
        return false;
    }
    const std::string_view load = shown.load;
    state.state = stateOf(shown.active, shown.status);
    state.isMasked = load == "masked";
    state.isLoaded = !load.empty() && load != "not-found";
    // Newer ones tell "auto-restart-queued" too.
    state.waitsForRestart = std::string_view(shown.sub).starts_with("auto-restart");
    state.hasReported = *shown.status != '\0';
    state.exitCode = static_cast<Scm::Dword>(shown.exitCode);
    state.invocation = shown.invocation;
    return true;
}

bool Systemd::start()
{
    return callManager("StartUnit", "ss", unit.constData(), Replace);
}

bool Systemd::stop()
{
    return callManager("StopUnit", "ss", unit.constData(), Replace);
}

bool Systemd::enable()
{
    constexpr int OnlyUntilReboot = 0;
    constexpr int OverOtherLinks = 0;
    return callManager("EnableUnitFiles", "asbb", 1, unit.constData(), OnlyUntilReboot, OverOtherLinks) &&
           reload();
}

bool Systemd::disable()
{
    constexpr int OnlyUntilReboot = 0;
    return callManager("DisableUnitFiles", "asb", 1, unit.constData(), OnlyUntilReboot);
}

bool Systemd::forgetFailure()
{
    return callManager("ResetFailedUnit", "s", unit.constData());
}

bool Systemd::reload()
{
    return callManager("Reload", "");
}

QByteArray statusText(Scm::Dword state)
{
    switch (state) {
    case Scm::StateStopped:
        return "Stopped";
    case Scm::StateStartPending:
        return "Starting";
    case Scm::StateStopPending:
        return "Stopping";
    case Scm::StateRunning:
        return "Running";
    case Scm::StateContinuePending:
        return "Resuming";
    case Scm::StatePausePending:
        return "Pausing";
    case Scm::StatePaused:
        return "Paused";
    default:
        return {};
    }
}

} // namespace Linux
