// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/unit/linux/fakesystemd.h"

#include "service/linux/systemd.h"

#include <QDir>
#include <QFile>

#include <systemd/sd-bus.h>

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>
#include <utility>

using namespace Qt::StringLiterals;

namespace {

int listenAt(const QByteArray &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.constData(), sizeof(address.sun_path) - 1);
    const int descriptor = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (descriptor < 0 || ::bind(descriptor, reinterpret_cast<sockaddr *>(&address), sizeof(address)) != 0 ||
        ::listen(descriptor, SOMAXCONN) != 0) {
        qFatal("cannot listen at %s", path.constData());
    }
    return descriptor;
}

// The arguments of the calls that are made here: texts, booleans, lists of texts.
QByteArray textOf(sd_bus_message *call)
{
    QByteArray text = sd_bus_message_get_member(call);
    char type = 0;
    const char *contents = nullptr;
    while (sd_bus_message_peek_type(call, &type, &contents) > 0) {
        const char *word = nullptr;
        int flag = 0;
        if (type == 'a') {
            (void)sd_bus_message_enter_container(call, 'a', "s");
            while (sd_bus_message_read(call, "s", &word) > 0) {
                text += QByteArray(" [") + word + ']';
            }
            (void)sd_bus_message_exit_container(call);
        } else if (type == 's' && sd_bus_message_read(call, "s", &word) > 0) {
            text += QByteArray(" ") + word;
        } else if (type == 'b' && sd_bus_message_read(call, "b", &flag) > 0) {
            text += flag != 0 ? " true" : " false";
        } else {
            return text + " ?";
        }
    }
    return text;
}

} // namespace

FakeSystemd::FakeSystemd()
{
    for (const QString &path : {unitFolder(), vendorFolder(), runtimeFolder()}) {
        QDir().mkpath(path);
    }
    Linux::Places &places = Linux::places();
    places.unitFolders = {QFile::encodeName(unitFolder()), QFile::encodeName(vendorFolder())};
    places.runtimeFolder = QFile::encodeName(runtimeFolder());
    places.managerSocket = QFile::encodeName(folder.filePath(u"socket"_s));
    places.busSocket = places.managerSocket;
    listener = listenAt(places.managerSocket);
    ending = ::eventfd(0, EFD_CLOEXEC);
    shows(Shown::Absent);
    thread = std::thread([this] { serve(); });
}

FakeSystemd::~FakeSystemd()
{
    ::eventfd_write(ending, 1);
    thread.join();
    ::close(listener);
    ::close(ending);
    Linux::places() = {};
}

void FakeSystemd::shows(const QByteArray &properties)
{
    const std::lock_guard lock(mutex);
    shown = properties;
    shownNext.clear();
}

void FakeSystemd::thenShows(const QByteArray &properties)
{
    const std::lock_guard lock(mutex);
    shownNext = properties;
}

void FakeSystemd::fails(const QByteArray &method, const QByteArray &error)
{
    const std::lock_guard lock(mutex);
    failures.insert(method, error);
}

void FakeSystemd::breaksAtQuery(int number)
{
    const std::lock_guard lock(mutex);
    queriesToBreak = number;
}

void FakeSystemd::listensAtTheBusOnly()
{
    Linux::places().managerSocket = QFile::encodeName(folder.filePath(u"nowhere"_s));
}

QByteArrayList FakeSystemd::calls() const
{
    const std::lock_guard lock(mutex);
    return received;
}

void FakeSystemd::serve()
{
    std::array<pollfd, 2> descriptors = {{{ending, POLLIN, 0}, {listener, POLLIN, 0}}};
    while (descriptors[0].revents == 0) {
        (void)::poll(descriptors.data(), descriptors.size(), -1);
        const int descriptor = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (descriptor >= 0) {
            ++accepted;
            serveConnection(descriptor);
        }
    }
}

// One connection after the other, as the service's functions make them.
void FakeSystemd::serveConnection(int descriptor)
{
    sd_bus *bus = nullptr;
    sd_id128_t identity{};
    (void)sd_id128_randomize(&identity);
    (void)sd_bus_new(&bus);
    (void)sd_bus_set_fd(bus, descriptor, descriptor);
    (void)sd_bus_set_server(bus, 1, identity);
    (void)sd_bus_add_filter(
        bus, nullptr,
        [](sd_bus_message *message, void *self, sd_bus_error *) {
            return static_cast<FakeSystemd *>(self)->answer(message);
        },
        this);
    std::array<pollfd, 2> descriptors = {{{ending, POLLIN, 0}, {descriptor, POLLIN, 0}}};
    isBroken = false;
    bool goesOn = sd_bus_start(bus) >= 0;
    while (goesOn && descriptors[0].revents == 0) {
        int done = 0;
        while (!isSilent && !isBroken && (done = sd_bus_process(bus, nullptr)) > 0) {
        }
        goesOn = done >= 0 && !isBroken && (isSilent || sd_bus_is_open(bus) > 0);
        if (goesOn) {
            descriptors[1].events = isSilent ? 0 : static_cast<short>(sd_bus_get_events(bus));
            (void)::poll(descriptors.data(), descriptors.size(), -1);
            goesOn = (descriptors[1].revents & POLLHUP) == 0 || !isSilent;
        }
    }
    sd_bus_close_unref(bus);
}

int FakeSystemd::answer(sd_bus_message *call)
{
    std::uint8_t type = 0;
    if (sd_bus_message_get_type(call, &type) < 0 || type != SD_BUS_MESSAGE_METHOD_CALL) {
        return 0;
    }
    const std::string_view method = sd_bus_message_get_member(call);
    if (method == "Hello") {
        return sd_bus_reply_method_return(call, "s", ":1.1");
    }
    const bool isProperties = method == "GetAll";
    const std::string_view object = sd_bus_message_get_path(call);
    const std::string_view interface = sd_bus_message_get_interface(call);
    if (isProperties
            ? object != "/org/freedesktop/systemd1/unit/quill_2dmere_2eservice" ||
                  interface != "org.freedesktop.DBus.Properties"
            : object != "/org/freedesktop/systemd1" || interface != "org.freedesktop.systemd1.Manager") {
        return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_UNKNOWN_OBJECT, "no such object");
    }
    const std::lock_guard lock(mutex);
    if (isProperties && queriesToBreak > 0 && --queriesToBreak == 0) {
        isBroken = true;
        return 1;
    }
    if (!isProperties) {
        received.append(textOf(call));
    }
    const QByteArray error = failures.value(QByteArray(method.data(), static_cast<qsizetype>(method.size())));
    if (!error.isEmpty()) {
        return sd_bus_reply_method_errorf(call, error.constData(), "as the test wants it");
    }
    return isProperties ? answerProperties(call) : sd_bus_reply_method_return(call, "");
}

int FakeSystemd::answerProperties(sd_bus_message *call)
{
    if (shown == "nothing") {
        return sd_bus_reply_method_return(call, "");
    }
    sd_bus_message *reply = nullptr;
    (void)sd_bus_message_new_method_return(call, &reply);
    (void)sd_bus_message_open_container(reply, 'a', "{sv}");
    // Something that nobody asked for is always among them.
    (void)sd_bus_message_append(reply, "{sv}", "Names", "as", 1, "quill-mere.service");
    const QByteArrayList lines = shown.split('\n');
    for (const QByteArray &line : lines) {
        const QByteArray name = line.first(std::max<qsizetype>(line.indexOf('='), 0));
        const QByteArray value = line.sliced(line.indexOf('=') + 1);
        if (value == "true") {
            (void)sd_bus_message_append(reply, "{sv}", name.constData(), "b", 1);
        } else if (name == "ExecMainStatus") {
            (void)sd_bus_message_append(reply, "{sv}", "ExecMainStatus", "i", value.toInt());
        } else if (name == "InvocationID") {
            (void)sd_bus_message_append(reply, "{sv}", "InvocationID", "ay", 1, value.toInt());
        } else if (!name.isEmpty()) {
            (void)sd_bus_message_append(reply, "{sv}", name.constData(), "s", value.constData());
        }
    }
    (void)sd_bus_message_close_container(reply);
    if (!shownNext.isEmpty()) {
        shown = std::exchange(shownNext, {});
    }
    const int sent = sd_bus_send(nullptr, reply, nullptr);
    sd_bus_message_unref(reply);
    return sent;
}

void FakeSystemd::writeFile(const QString &path, const QByteArray &content) const
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size()) {
        qFatal("cannot write %s", qPrintable(path));
    }
}

QByteArray FakeSystemd::readFile(const QString &path) const
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
