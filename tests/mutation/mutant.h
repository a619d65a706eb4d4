// SPDX-FileCopyrightText: 2026 The Quillmere developers
// SPDX-License-Identifier: MIT

// What the mutated sources call: each place asks whether its mutant is the one that lives in this process.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <cstdlib>

namespace Mutation {

// The environment says which lives (QUILLMERE_MUTANT: its number), and where to note which places were passed
// (QUILLMERE_MUTANTS_PASSED: a file with a byte for each). The file is mapped, so that a process that is
// killed has noted them too.
struct State
{
    static constexpr int Most = 1 << 16;

    State()
    {
        if (const char *number = std::getenv("QUILLMERE_MUTANT")) {
            alive = std::atoi(number);
        }
        if (const char *path = std::getenv("QUILLMERE_MUTANTS_PASSED")) {
            const int file = ::open(path, O_RDWR | O_CLOEXEC);
            void *mapped = ::mmap(nullptr, Most, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
            if (mapped == MAP_FAILED) {
                std::abort();
            }
            passed = static_cast<char *>(mapped);
            ::close(file);
        }
    }

    int alive = -1;
    std::array<char, Most> nowhere{};
    char *passed = nowhere.data();
};

inline bool is(int number)
{
    static State state;
    state.passed[number] = 1;
    return number == state.alive;
}

template<typename A, typename B>
bool less(int number, const A &a, const B &b)
{
    return is(number) ? a <= b : a < b;
}

template<typename A, typename B>
bool lessOrEqual(int number, const A &a, const B &b)
{
    return is(number) ? a < b : a <= b;
}

template<typename A, typename B>
bool greater(int number, const A &a, const B &b)
{
    return is(number) ? a >= b : a > b;
}

template<typename A, typename B>
bool greaterOrEqual(int number, const A &a, const B &b)
{
    return is(number) ? a > b : a >= b;
}

template<typename A, typename B>
bool equal(int number, const A &a, const B &b)
{
    return is(number) != (a == b);
}

template<typename A, typename B>
bool unequal(int number, const A &a, const B &b)
{
    return is(number) != (a != b);
}

template<typename A, typename B>
auto plus(int number, const A &a, const B &b)
{
    return is(number) ? a - b : a + b;
}

template<typename A, typename B>
auto minus(int number, const A &a, const B &b)
{
    return is(number) ? a + b : a - b;
}

// Far enough from what it was that a test need not measure a time to notice.
template<typename T>
T constant(int number, T value)
{
    return is(number) ? static_cast<T>(value * 2 + 1) : value;
}

inline bool constant(int number, bool value)
{
    return is(number) != value;
}

} // namespace Mutation
