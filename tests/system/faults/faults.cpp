// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Loaded before the C library (LD_PRELOAD): counts the system calls that the process's main thread makes, and
// lets the one that it is told fail. It is told through a file that both sides map, named by
// QUILLMERE_FAULTS; control.py is the other side.

#include "tests/system/interposing.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// The order is that of control.py, for the targets too.
enum class Call : uint8_t {
    Open,
    Write,
    Pwrite,
    Fsync,
    Fdatasync,
    Ftruncate,
    Unlink,
    Sendmsg,
    Send,
    Recvmsg,
    Read,
    Pread,
    Accept4,
    Mmap,
    Fcntl,
    Unlock,
    Count
};

// What a call is about. The event loop's own descriptors and the service manager's socket are no target, nor
// is memory that no file stands behind.
enum class Target : uint8_t { Data, Net, Log, Settings, Other, Count, None };

constexpr int32_t Short = 0; // in the place of an error: about half of it is done

using Field = std::atomic<uint32_t>;
static_assert(Field::is_always_lock_free);

struct Control
{
    Field armed;
    Field call;
    Field target;
    std::atomic<int32_t> error;
    Field first; // the call that fails, counted from 1 since it was armed
    Field forGood;
    Field hits;
    Field turns;   // waits of the event loop that are over
    Field waiting; // the event loop has nothing to do
    std::array<std::array<Field, static_cast<size_t>(Target::Count)>, static_cast<size_t>(Call::Count)>
        counts;
};

constexpr int MaximumDescriptor = 4096;
std::array<Target, MaximumDescriptor> targets; // of what was opened by its name
std::array<bool, MaximumDescriptor> isKnown;

Control *mapControl()
{
    const char *path = getenv("QUILLMERE_FAULTS");
    static const auto realOpen = reinterpret_cast<int (*)(const char *, int, ...)>(dlsym(RTLD_NEXT, "open"));
    static const auto realMap =
        reinterpret_cast<void *(*)(void *, size_t, int, int, int, off_t)>(dlsym(RTLD_NEXT, "mmap"));
    static const auto realClose = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "close"));
    const int file = path ? realOpen(path, O_RDWR | O_CLOEXEC) : -1;
    void *memory = realMap(nullptr, sizeof(Control), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    if (file < 0 || memory == MAP_FAILED) {
        fprintf(stderr, "faults: QUILLMERE_FAULTS names no file\n");
        abort();
    }
    realClose(file);
    return static_cast<Control *>(memory);
}

Control &control()
{
    static Control *const only = mapControl();
    return *only;
}

bool isMainThread()
{
    return gettid() == getpid();
}

bool isBelow(const char *path, const char *variable)
{
    const char *folder = getenv(variable);
    const size_t length = folder ? strlen(folder) : 0;
    return length > 0 && strncmp(path, folder, length) == 0 && (path[length] == '/' || path[length] == '\0');
}

Target targetOf(const char *path)
{
    if (isBelow(path, "QUILLMERE_EVENTLOG")) {
        return Target::Log;
    }
    if (!isBelow(path, "QUILLMERE_APPDATA")) {
        return Target::Other;
    }
    return std::string_view(path).ends_with("/qmr.cfg") ? Target::Settings : Target::Data;
}

Target targetOf(int descriptor)
{
    if (descriptor < 0 || descriptor >= MaximumDescriptor) {
        return Target::None;
    }
    const auto index = static_cast<size_t>(descriptor);
    if (!isKnown[index]) {
        int domain = 0;
        socklen_t size = sizeof domain;
        const int error = errno;
        const bool isNet = getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
                           (domain == AF_INET || domain == AF_INET6);
        errno = error;
        return isNet ? Target::Net : Target::None;
    }
    return targets[index];
}

enum class Fate : uint8_t { Passes, Fails, IsShort };

// Counts the call. One that fails has its errno set.
Fate fate(Call call, Target target)
{
    if (target == Target::None || !isMainThread()) {
        return Fate::Passes;
    }
    Control &c = control();
    const uint32_t number = ++c.counts[static_cast<size_t>(call)][static_cast<size_t>(target)];
    if (c.armed == 0 || c.call != static_cast<uint32_t>(call) || c.target != static_cast<uint32_t>(target) ||
        number < c.first || (number > c.first && c.forGood == 0)) {
        return Fate::Passes;
    }
    ++c.hits;
    if (c.error == Short) {
        return Fate::IsShort;
    }
    errno = c.error;
    return Fate::Fails;
}

// What is left of size where the call is short: never nothing, and all of a single byte.
size_t shortened(Fate fate, size_t size)
{
    return fate == Fate::IsShort && size > 1 ? size / 2 : size;
}

template<typename Real>
int openAs(const char *path, const Real &real)
{
    const Target target = targetOf(path);
    const int descriptor = fate(Call::Open, target) == Fate::Fails ? -1 : real();
    if (descriptor >= MaximumDescriptor) {
        abort();
    }
    if (descriptor >= 0) {
        targets[static_cast<size_t>(descriptor)] = target;
        isKnown[static_cast<size_t>(descriptor)] = true;
    }
    return descriptor;
}

template<typename Real>
auto transfer(Call call, int descriptor, size_t size, const Real &real) -> decltype(real(size))
{
    const Fate decided = fate(call, targetOf(descriptor));
    return decided == Fate::Fails ? -1 : real(shortened(decided, size));
}

template<typename Real>
auto perform(Call call, Target target, const Real &real) -> decltype(real())
{
    return fate(call, target) == Fate::Fails ? -1 : real();
}

// fcntl() with whatever its third argument is. A lock that is given back is a kind of call of its own.
template<typename Real>
int controlFile(int descriptor, int command, void *argument, const Real &real)
{
    const bool isLock = command == F_SETLK || command == F_SETLKW || command == F_OFD_SETLK;
    const bool isUnlock = isLock && static_cast<const struct flock *>(argument)->l_type == F_UNLCK;
    return perform(isUnlock ? Call::Unlock : Call::Fcntl, targetOf(descriptor),
                   [&] { return real(descriptor, command, argument); });
}

// What is ready at once is no wait: whoever sees this side waiting knows that all was handled that had come.
template<typename Look, typename Wait>
int waitFor(bool isBlocking, const Look &look, const Wait &wait)
{
    if (!isBlocking || !isMainThread()) {
        return wait();
    }
    const int ready = look();
    if (ready != 0) {
        ++control().turns;
        return ready;
    }
    control().waiting = 1;
    const int result = wait();
    control().waiting = 0;
    ++control().turns;
    return result;
}

} // namespace

extern "C" {

int open(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t); // unused unless a file may be made
    va_end(rest);
    static const auto real = NEXT(open);
    return openAs(path, [&] { return real(path, flags, mode); });
}

int open64(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    static const auto real = NEXT(open64);
    return openAs(path, [&] { return real(path, flags, mode); });
}

int close(int descriptor)
{
    static const auto real = NEXT(close);
    if (descriptor >= 0 && descriptor < MaximumDescriptor) {
        isKnown[static_cast<size_t>(descriptor)] = false;
    }
    return real(descriptor);
}

ssize_t write(int descriptor, const void *data, size_t size)
{
    static const auto real = NEXT(write);
    return transfer(Call::Write, descriptor, size,
                    [&](size_t count) { return real(descriptor, data, count); });
}

ssize_t pwrite64(int descriptor, const void *data, size_t size, off64_t offset)
{
    static const auto real = NEXT(pwrite64);
    return transfer(Call::Pwrite, descriptor, size,
                    [&](size_t count) { return real(descriptor, data, count, offset); });
}

ssize_t read(int descriptor, void *data, size_t size)
{
    static const auto real = NEXT(read);
    return transfer(Call::Read, descriptor, size,
                    [&](size_t count) { return real(descriptor, data, count); });
}

ssize_t pread64(int descriptor, void *data, size_t size, off64_t offset)
{
    static const auto real = NEXT(pread64);
    return transfer(Call::Pread, descriptor, size,
                    [&](size_t count) { return real(descriptor, data, count, offset); });
}

int fsync(int descriptor)
{
    static const auto real = NEXT(fsync);
    return perform(Call::Fsync, targetOf(descriptor), [&] { return real(descriptor); });
}

int fdatasync(int descriptor)
{
    static const auto real = NEXT(fdatasync);
    return perform(Call::Fdatasync, targetOf(descriptor), [&] { return real(descriptor); });
}

int ftruncate64(int descriptor, off64_t size) noexcept
{
    static const auto real = NEXT(ftruncate64);
    return perform(Call::Ftruncate, targetOf(descriptor), [&] { return real(descriptor, size); });
}

int unlink(const char *path) noexcept
{
    static const auto real = NEXT(unlink);
    return perform(Call::Unlink, targetOf(path), [&] { return real(path); });
}

// A datagram is sent whole or not at all.
ssize_t sendmsg(int descriptor, const msghdr *message, int flags)
{
    static const auto real = NEXT(sendmsg);
    return perform(Call::Sendmsg, targetOf(descriptor), [&] { return real(descriptor, message, flags); });
}

ssize_t send(int descriptor, const void *data, size_t size, int flags)
{
    static const auto real = NEXT(send);
    return transfer(Call::Send, descriptor, size,
                    [&](size_t count) { return real(descriptor, data, count, flags); });
}

ssize_t recvmsg(int descriptor, msghdr *message, int flags)
{
    static const auto real = NEXT(recvmsg);
    return perform(Call::Recvmsg, targetOf(descriptor), [&] { return real(descriptor, message, flags); });
}

ssize_t recv(int descriptor, void *data, size_t size, int flags)
{
    static const auto real = NEXT(recv);
    return perform(Call::Recvmsg, targetOf(descriptor), [&] { return real(descriptor, data, size, flags); });
}

int accept4(int descriptor, sockaddr *address, socklen_t *size, int flags)
{
    static const auto real = NEXT(accept4);
    return perform(Call::Accept4, targetOf(descriptor),
                   [&] { return real(descriptor, address, size, flags); });
}

void *mmap64(void *wanted, size_t size, int protection, int flags, int descriptor, off64_t offset) noexcept
{
    static const auto real = NEXT(mmap64);
    return fate(Call::Mmap, targetOf(descriptor)) == Fate::Fails
               ? MAP_FAILED
               : real(wanted, size, protection, flags, descriptor, offset);
}

int fcntl(int descriptor, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    static const auto real = NEXT(fcntl);
    return controlFile(descriptor, command, argument, real);
}

int fcntl64(int descriptor, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    void *argument = va_arg(rest, void *);
    va_end(rest);
    static const auto real = NEXT(fcntl64);
    return controlFile(descriptor, command, argument, real);
}

int poll(pollfd *descriptors, nfds_t count, int timeout)
{
    static const auto real = NEXT(poll);
    return waitFor(
        timeout != 0, [&] { return real(descriptors, count, 0); },
        [&] { return real(descriptors, count, timeout); });
}

int ppoll(pollfd *descriptors, nfds_t count, const timespec *timeout, const sigset_t *mask)
{
    static const auto real = NEXT(ppoll);
    constexpr timespec AtOnce{};
    return waitFor(
        !timeout || timeout->tv_sec > 0 || timeout->tv_nsec > 0,
        [&] { return real(descriptors, count, &AtOnce, mask); },
        [&] { return real(descriptors, count, timeout, mask); });
}

} // extern "C"
