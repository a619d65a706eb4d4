// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

#include "tests/fuzz/server/memoryfiles.h"

#include <sqlite3.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

// Of the GNU C library, which declares neither; no sanitizer stands before them.
extern "C" void *__libc_realloc(void *bytes, std::size_t size);
extern "C" void __libc_free(void *bytes);

namespace {

using MemoryFiles::Operation;

struct Plan
{
    Operation operation = Operation::Read;
    int succeed = 0;
    int failures = 0;
    bool isFull = false;
};

Plan plan;

bool fails(Operation operation)
{
    if (plan.failures == 0 || operation != plan.operation) {
        return false;
    }
    if (plan.succeed > 0) {
        --plan.succeed;
        return false;
    }
    --plan.failures;
    return true;
}

struct OpenFile;

struct Content
{
    std::vector<char> bytes;
    int readers = 0;
    const OpenFile *reserving = nullptr;
    const OpenFile *waiting = nullptr; // until nobody else reads
    const OpenFile *writing = nullptr;
};

// What SQLite holds of an open file: a C structure first, in memory of its own.
struct OpenFile
{
    sqlite3_file base;
    std::shared_ptr<Content> *content;
    int level;
};

std::map<std::string, std::shared_ptr<Content>> &files()
{
    static std::map<std::string, std::shared_ptr<Content>> files;
    return files;
}

OpenFile &opened(sqlite3_file *file)
{
    return *reinterpret_cast<OpenFile *>(file);
}

Content &contentOf(sqlite3_file *file)
{
    return **opened(file).content;
}

int closeFile(sqlite3_file *file)
{
    delete opened(file).content;
    return SQLITE_OK;
}

int readFile(sqlite3_file *file, void *data, int size, sqlite3_int64 offset)
{
    if (fails(Operation::Read)) {
        return SQLITE_IOERR_READ;
    }
    const std::vector<char> &bytes = contentOf(file).bytes;
    const auto there = std::clamp<sqlite3_int64>(static_cast<sqlite3_int64>(bytes.size()) - offset, 0, size);
    std::copy_n(bytes.begin() + std::min<sqlite3_int64>(offset, static_cast<sqlite3_int64>(bytes.size())),
                there, static_cast<char *>(data));
    std::memset(static_cast<char *>(data) + there, 0, static_cast<size_t>(size - there));
    return there == size ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

void put(Content &content, const void *data, int size, sqlite3_int64 offset)
{
    content.bytes.resize(std::max(content.bytes.size(), static_cast<size_t>(offset + size)));
    std::copy_n(static_cast<const char *>(data), size, content.bytes.begin() + offset);
}

// Of a write that fails half has been written.
int writeFile(sqlite3_file *file, const void *data, int size, sqlite3_int64 offset)
{
    const bool failed = fails(Operation::Write);
    put(contentOf(file), data, failed ? size / 2 : size, offset);
    const int failure = plan.isFull ? SQLITE_FULL : SQLITE_IOERR_WRITE;
    return failed ? failure : SQLITE_OK;
}

int truncateFile(sqlite3_file *file, sqlite3_int64 size)
{
    if (fails(Operation::Truncate)) {
        return SQLITE_IOERR_TRUNCATE;
    }
    contentOf(file).bytes.resize(static_cast<size_t>(size));
    return SQLITE_OK;
}

int syncFile(sqlite3_file *, int)
{
    return fails(Operation::Sync) ? SQLITE_IOERR_FSYNC : SQLITE_OK;
}

int fileSize(sqlite3_file *file, sqlite3_int64 *size)
{
    *size = static_cast<sqlite3_int64>(contentOf(file).bytes.size());
    return SQLITE_OK;
}

bool isAnothers(const OpenFile *holder, const OpenFile &file)
{
    return holder && holder != &file;
}

int lockFile(sqlite3_file *file, int level)
{
    OpenFile &own = opened(file);
    Content &content = contentOf(file);
    if (own.level >= level) {
        return SQLITE_OK;
    }
    if (own.level == SQLITE_LOCK_NONE) {
        if (isAnothers(content.waiting, own) || isAnothers(content.writing, own)) {
            return SQLITE_BUSY;
        }
        ++content.readers;
        own.level = SQLITE_LOCK_SHARED;
    }
    if (level >= SQLITE_LOCK_RESERVED) {
        if (isAnothers(content.reserving, own)) {
            return SQLITE_BUSY;
        }
        content.reserving = &own;
        own.level = SQLITE_LOCK_RESERVED;
    }
    if (level == SQLITE_LOCK_EXCLUSIVE) {
        content.waiting = &own;
        own.level = SQLITE_LOCK_PENDING;
        if (content.readers > 1) {
            return SQLITE_BUSY;
        }
        content.writing = &own;
        own.level = SQLITE_LOCK_EXCLUSIVE;
    }
    return SQLITE_OK;
}

int unlockFile(sqlite3_file *file, int level)
{
    OpenFile &own = opened(file);
    Content &content = contentOf(file);
    for (const OpenFile **holder : {&content.reserving, &content.waiting, &content.writing}) {
        *holder = *holder == &own ? nullptr : *holder;
    }
    if (own.level >= SQLITE_LOCK_SHARED && level == SQLITE_LOCK_NONE) {
        --content.readers;
    }
    own.level = std::min(own.level, level);
    return SQLITE_OK;
}

int checkReservedLock(sqlite3_file *file, int *isReserved)
{
    *isReserved = contentOf(file).reserving ? 1 : 0;
    return SQLITE_OK;
}

int fileControl(sqlite3_file *, int, void *)
{
    return SQLITE_NOTFOUND;
}

int sectorSize(sqlite3_file *)
{
    return 4096;
}

int deviceCharacteristics(sqlite3_file *)
{
    return 0;
}

constexpr sqlite3_io_methods Methods{
    1,
    closeFile,
    readFile,
    writeFile,
    truncateFile,
    syncFile,
    fileSize,
    lockFile,
    unlockFile,
    checkReservedLock,
    fileControl,
    sectorSize,
    deviceCharacteristics,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
};

// Without a name: a temporary file.
int openFile(sqlite3_vfs *, const char *name, sqlite3_file *file, int flags, int *flagsTaken)
{
    file->pMethods = nullptr;
    const bool isThere = name && files().contains(name);
    if (fails(Operation::Open) || (!isThere && (flags & SQLITE_OPEN_CREATE) == 0)) {
        return SQLITE_CANTOPEN;
    }
    std::shared_ptr<Content> content = isThere ? files()[name] : std::make_shared<Content>();
    if (name) {
        files()[name] = content;
    }
    OpenFile &own = opened(file);
    own.content = new std::shared_ptr<Content>(std::move(content));
    own.level = SQLITE_LOCK_NONE;
    own.base.pMethods = &Methods;
    if (flagsTaken) {
        *flagsTaken = flags;
    }
    return SQLITE_OK;
}

int deleteFile(sqlite3_vfs *, const char *name, int)
{
    return files().erase(name) == 1 ? SQLITE_OK : SQLITE_IOERR_DELETE_NOENT;
}

int accessFile(sqlite3_vfs *, const char *name, int, int *isThere)
{
    *isThere = files().contains(name) ? 1 : 0;
    return SQLITE_OK;
}

int fullPathname(sqlite3_vfs *, const char *name, int size, char *path)
{
    sqlite3_snprintf(size, path, "%s", name);
    return SQLITE_OK;
}

// SQLite's memory comes from the C library itself: AddressSanitizer would write accounts of each of its many
// allocations, for code that is not built with it, and that took nearly half of the time.
struct Block
{
    std::int64_t size;
    std::int64_t bytes[1];
};

constexpr int Overhead = offsetof(Block, bytes);

Block *blockOf(void *bytes)
{
    return reinterpret_cast<Block *>(static_cast<char *>(bytes) - Overhead);
}

void *grown(void *bytes, int size)
{
    auto *block = static_cast<Block *>(__libc_realloc(bytes ? blockOf(bytes) : nullptr, size + Overhead));
    if (!block) {
        return nullptr;
    }
    block->size = size;
    return block->bytes;
}

const sqlite3_mem_methods heap{[](int size) { return grown(nullptr, size); },
                               [](void *bytes) { __libc_free(blockOf(bytes)); },
                               grown,
                               [](void *bytes) { return static_cast<int>(blockOf(bytes)->size); },
                               [](int size) { return (size + 7) & ~7; },
                               [](void *) { return SQLITE_OK; },
                               [](void *) {},
                               nullptr};

} // namespace

namespace MemoryFiles {

void install()
{
    sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0); // as the server would, which comes too late for it
    sqlite3_config(SQLITE_CONFIG_SINGLETHREAD);
    sqlite3_config(SQLITE_CONFIG_MALLOC, &heap);
    static sqlite3_vfs memory = *sqlite3_vfs_find(nullptr); // its clock and its random numbers
    memory.iVersion = 1;
    memory.pNext = nullptr;
    memory.zName = "memory files";
    memory.szOsFile = static_cast<int>(sizeof(OpenFile));
    memory.xOpen = openFile;
    memory.xDelete = deleteFile;
    memory.xAccess = accessFile;
    memory.xFullPathname = fullPathname;
    sqlite3_vfs_register(&memory, 1);
}

void fail(Operation operation, int succeed, int failures, bool isFull)
{
    plan = {operation, succeed, failures, isFull};
}

void heal()
{
    plan.failures = 0;
}

} // namespace MemoryFiles
