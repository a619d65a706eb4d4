// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// Loaded before the C library (LD_PRELOAD): writes down, in order, what the process does to the files of one
// folder and what it receives and sends. QUILLMERE_TRACE names the file for it, QUILLMERE_TRACE_FOLDER the
// folder. A record is a Header and its data; disk.py reads them.

#include "tests/system/interposing.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

// NOLINTNEXTLINE(performance-enum-size): the width of the trace's field
enum class Operation : uint32_t {
    Open = 1,     // number: the flags; data: the path
    Close = 2,    //
    Write = 3,    // number: the offset; data: the bytes
    Truncate = 4, // number: the size
    Sync = 5,     // of a file or of the folder
    Unlink = 6,   // data: the path
    Rename = 7,   // data: both paths, a zero byte between them
    Received = 8, // a datagram; number: the sender's IPv4 address
    Sent = 9,     // a datagram; number: the receiver's IPv4 address
    Streamed = 10 // bytes accepted by a TCP connection
};

// In the byte order of the machine, as disk.py unpacks it.
struct Header
{
    Operation operation;
    int32_t descriptor;
    uint64_t number;
    uint64_t size;
};

constexpr int MaximumDescriptor = 4096;
std::array<bool, MaximumDescriptor> tracked; // descriptors of the folder and of its files

int openTrace()
{
    const char *path = getenv("QUILLMERE_TRACE");
    static const auto real = reinterpret_cast<int (*)(const char *, int, ...)>(dlsym(RTLD_NEXT, "open"));
    const int trace = path ? real(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600) : -1;
    if (trace < 0) {
        fprintf(stderr, "recorder: no trace in QUILLMERE_TRACE\n");
        abort();
    }
    return trace;
}

// One call a record. Leaves errno as the recorded call has left it.
void record(Operation operation, int descriptor, uint64_t number, const void *data, size_t size)
{
    static const int trace = openTrace();
    const int error = errno;
    Header header{operation, descriptor, number, size};
    const std::array<iovec, 2> parts{{{&header, sizeof header}, {const_cast<void *>(data), size}}};
    if (writev(trace, parts.data(), parts.size()) != static_cast<ssize_t>(sizeof header + size)) {
        fprintf(stderr, "recorder: the trace cannot be written\n");
        abort();
    }
    errno = error;
}

bool isInFolder(const char *path)
{
    static const std::string folder = [] {
        const char *name = getenv("QUILLMERE_TRACE_FOLDER");
        return std::string(name ? name : "");
    }();
    const size_t length = folder.size();
    return strncmp(path, folder.c_str(), length) == 0 && (path[length] == '/' || path[length] == '\0');
}

bool isTracked(int descriptor)
{
    return descriptor >= 0 && descriptor < MaximumDescriptor && tracked[static_cast<size_t>(descriptor)];
}

bool isSocket(int descriptor, int type)
{
    int domain = 0;
    int actual = 0;
    socklen_t size = sizeof domain;
    const int error = errno;
    const bool is = getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 &&
                    (domain == AF_INET || domain == AF_INET6) &&
                    getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &actual, &size) == 0 && actual == type;
    errno = error;
    return is;
}

int opened(int descriptor, const char *path, int flags)
{
    if (descriptor >= MaximumDescriptor) {
        abort();
    }
    if (descriptor >= 0 && isInFolder(path)) {
        tracked[static_cast<size_t>(descriptor)] = true;
        record(Operation::Open, descriptor, static_cast<uint64_t>(flags), path, strlen(path));
    }
    return descriptor;
}

ssize_t written(ssize_t count, int descriptor, const void *data)
{
    if (count > 0 && isTracked(descriptor)) {
        const off_t end = lseek(descriptor, 0, SEEK_CUR);
        record(Operation::Write, descriptor, static_cast<uint64_t>(end - count), data,
               static_cast<size_t>(count));
    } else if (count > 0 && isSocket(descriptor, SOCK_STREAM)) {
        record(Operation::Streamed, descriptor, 0, data, static_cast<size_t>(count));
    }
    return count;
}

int synced(int result, int descriptor)
{
    if (result == 0 && isTracked(descriptor)) {
        record(Operation::Sync, descriptor, 0, nullptr, 0);
    }
    return result;
}

int truncated(int result, int descriptor, off64_t size)
{
    if (result == 0 && isTracked(descriptor)) {
        record(Operation::Truncate, descriptor, static_cast<uint64_t>(size), nullptr, 0);
    }
    return result;
}

// The last four bytes of an IPv4-mapped IPv6 address are the IPv4 address.
void datagram(Operation operation, int descriptor, const msghdr *message, ssize_t count)
{
    if (count < 0 || message->msg_iovlen != 1 || !isSocket(descriptor, SOCK_DGRAM)) {
        return;
    }
    uint32_t address = 0;
    if (message->msg_namelen == sizeof(sockaddr_in6)) {
        const auto *peer = static_cast<const sockaddr_in6 *>(message->msg_name);
        memcpy(&address, &peer->sin6_addr.s6_addr[12], sizeof address);
    } else if (message->msg_namelen == sizeof(sockaddr_in)) {
        address = static_cast<const sockaddr_in *>(message->msg_name)->sin_addr.s_addr;
    }
    record(operation, descriptor, ntohl(address), message->msg_iov->iov_base, static_cast<size_t>(count));
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
    return opened(real(path, flags, mode), path, flags);
}

int open64(const char *path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = va_arg(rest, mode_t);
    va_end(rest);
    static const auto real = NEXT(open64);
    return opened(real(path, flags, mode), path, flags);
}

int close(int descriptor)
{
    static const auto real = NEXT(close);
    if (isTracked(descriptor)) {
        tracked[static_cast<size_t>(descriptor)] = false;
        record(Operation::Close, descriptor, 0, nullptr, 0);
    }
    return real(descriptor);
}

ssize_t write(int descriptor, const void *data, size_t size)
{
    static const auto real = NEXT(write);
    return written(real(descriptor, data, size), descriptor, data);
}

ssize_t send(int descriptor, const void *data, size_t size, int flags)
{
    static const auto real = NEXT(send);
    return written(real(descriptor, data, size, flags), descriptor, data);
}

ssize_t pwrite64(int descriptor, const void *data, size_t size, off64_t offset)
{
    static const auto real = NEXT(pwrite64);
    const ssize_t count = real(descriptor, data, size, offset);
    if (count > 0 && isTracked(descriptor)) {
        record(Operation::Write, descriptor, static_cast<uint64_t>(offset), data, static_cast<size_t>(count));
    }
    return count;
}

int ftruncate(int descriptor, off_t size) noexcept
{
    static const auto real = NEXT(ftruncate);
    return truncated(real(descriptor, size), descriptor, size);
}

int ftruncate64(int descriptor, off64_t size) noexcept
{
    static const auto real = NEXT(ftruncate64);
    return truncated(real(descriptor, size), descriptor, size);
}

int fsync(int descriptor)
{
    static const auto real = NEXT(fsync);
    return synced(real(descriptor), descriptor);
}

int fdatasync(int descriptor)
{
    static const auto real = NEXT(fdatasync);
    return synced(real(descriptor), descriptor);
}

int unlink(const char *path) noexcept
{
    static const auto real = NEXT(unlink);
    const int result = real(path);
    if (result == 0 && isInFolder(path)) {
        record(Operation::Unlink, -1, 0, path, strlen(path));
    }
    return result;
}

int rename(const char *from, const char *to) noexcept
{
    static const auto real = NEXT(rename);
    const int result = real(from, to);
    if (result == 0 && (isInFolder(from) || isInFolder(to))) {
        const std::string both = from + std::string(1, '\0') + to;
        record(Operation::Rename, -1, 0, both.data(), both.size());
    }
    return result;
}

ssize_t recvmsg(int descriptor, msghdr *message, int flags)
{
    static const auto real = NEXT(recvmsg);
    const ssize_t count = real(descriptor, message, flags);
    if (!(flags & MSG_PEEK)) {
        datagram(Operation::Received, descriptor, message, count);
    }
    return count;
}

ssize_t sendmsg(int descriptor, const msghdr *message, int flags)
{
    static const auto real = NEXT(sendmsg);
    // Before it leaves: whoever has received it finds it in the trace. A datagram is sent whole or not at
    // all.
    datagram(Operation::Sent, descriptor, message, static_cast<ssize_t>(message->msg_iov->iov_len));
    return real(descriptor, message, flags);
}

} // extern "C"
