// SPDX-License-Identifier: MIT
// What scripts/mutants writes into the copy of the sources that it tests: each change of the code
// is made where its number is that of CORE_MANAGE_MUTANT, which is read once. With the file of
// CORE_MANAGE_MUTANTS_REACHED, each place that is reached sets the byte of its number there.
#pragma once
#pragma GCC system_header

#include <chrono>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace mutant
{

struct State {
    int chosen = -1;
    unsigned char* reached = nullptr;
};

inline State readState()
{
    State state;
    if (const char* const number = std::getenv("CORE_MANAGE_MUTANT")) {
        state.chosen = std::atoi(number);
    }
    if (const char* const path = std::getenv("CORE_MANAGE_MUTANTS_REACHED")) {
        const int file = open(path, O_RDWR | O_CLOEXEC);
        struct stat status {
        };
        if (file >= 0 && fstat(file, &status) == 0) {
            void* const bytes = mmap(nullptr, static_cast<std::size_t>(status.st_size),
                                     PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
            state.reached = bytes == MAP_FAILED ? nullptr : static_cast<unsigned char*>(bytes);
        }
        close(file);
    }
    return state;
}

inline bool isChosen(int number)
{
    static const State state = readState();
    if (state.reached != nullptr) {
        __atomic_store_n(state.reached + number, 1, __ATOMIC_RELAXED);
    }
    return state.chosen == number;
}

/// What the compiler works out stays as it is.
constexpr bool is(int number)
{
    return !__builtin_is_constant_evaluated() && isChosen(number);
}

template <int number, class Value>
constexpr std::decay_t<Value> constant(const Value& value)
{
    using Plain = std::decay_t<Value>;
    if (!is(number)) {
        return value;
    }
    if constexpr (std::is_same_v<Plain, bool>) {
        return !value;
    } else if constexpr (std::is_arithmetic_v<Plain>) {
        return static_cast<Plain>(value + 1);
    } else {
        return static_cast<Plain>(static_cast<std::underlying_type_t<Plain>>(value) + 1);
    }
}

template <int number, class Value>
constexpr std::decay_t<Value> tenfold(const Value& value)
{
    return is(number) ? value * 10 : value;
}

#define MUTANT_OPERATION(name, operation, other)                                                   \
    template <int number, class Left, class Right>                                                 \
    constexpr auto name(Left&& left, Right&& right)                                                \
    {                                                                                              \
        using Type = decltype(left operation right);                                               \
        return is(number) ? static_cast<Type>(left other right) : left operation right;            \
    }
MUTANT_OPERATION(equal, ==, !=)
MUTANT_OPERATION(different, !=, ==)
MUTANT_OPERATION(less, <, <=)
MUTANT_OPERATION(lessOrEqual, <=, <)
MUTANT_OPERATION(more, >, >=)
MUTANT_OPERATION(moreOrEqual, >=, >)
MUTANT_OPERATION(plus, +, -)
MUTANT_OPERATION(minus, -, +)
MUTANT_OPERATION(times, *, +)
MUTANT_OPERATION(over, /, *)
MUTANT_OPERATION(modulo, %, *)
MUTANT_OPERATION(both, &, |)
MUTANT_OPERATION(either, |, &)
MUTANT_OPERATION(exclusive, ^, &)
MUTANT_OPERATION(shiftLeft, <<, >>)
MUTANT_OPERATION(shiftRight, >>, <<)
#undef MUTANT_OPERATION

#define MUTANT_ASSIGNMENT(name, operation, other)                                                  \
    template <int number, class Left, class Right>                                                 \
    constexpr void name(Left&& left, Right&& right)                                                \
    {                                                                                              \
        if (is(number)) {                                                                          \
            left other right;                                                                      \
        } else {                                                                                   \
            left operation right;                                                                  \
        }                                                                                          \
    }
MUTANT_ASSIGNMENT(add, +=, -=)
MUTANT_ASSIGNMENT(subtract, -=, +=)
MUTANT_ASSIGNMENT(addBits, |=, &=)
MUTANT_ASSIGNMENT(keepBits, &=, |=)
#undef MUTANT_ASSIGNMENT

template <int number, class Value>
constexpr void increment(Value&& value)
{
    is(number) ? (void)--value : (void)++value;
}

template <int number, class Value>
constexpr void decrement(Value&& value)
{
    is(number) ? (void)++value : (void)--value;
}

/// The mutex, or one that nobody else has.
template <int number, class Mutex>
Mutex& locked(Mutex& mutex)
{
    thread_local Mutex own;
    return is(number) ? own : mutex;
}

} // namespace mutant
