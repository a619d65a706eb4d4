// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// SQLite's files in this process's memory, so that no life waits for a disk, and with faults: what SQLite
// asks of them fails when that is wanted.
#pragma once

#include <QtGlobal>

namespace MemoryFiles {

enum class Operation : quint8 { Read, Write, Sync, Truncate, Open };

// To be called before the first connection is opened: from then on all files are of this kind.
void install();

// Of the operations of this kind the first ones succeed, and then so many fail with SQLite's result code for
// it; a write may find the disk full instead.
void fail(Operation operation, int succeed, int failures, bool isFull);
void heal();

} // namespace MemoryFiles
