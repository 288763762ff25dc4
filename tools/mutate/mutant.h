// What the source of a build for ./kestra mutate calls where it was changed: each place holds all of its mutants, and
// one of them, or none, is chosen when a program starts. Included into every file of that build by the compiler.
// Portable, any thread.
#pragma once

namespace kestra::mutant {

#ifdef KESTRA_MUTANTS
extern int chosen;          ///< number of the mutant that is alive; -1: none
extern unsigned char* seen; ///< a byte each, 1 where a program has come by

/// Is this mutant alive? Never in what the compiler computes.
constexpr bool on(int id) noexcept {
    if (__builtin_is_constant_evaluated()) return false;
    seen[id] = 1;
    return chosen == id;
}
#else // what shares headers with the product and is not to change: the simulated card's driver
constexpr bool on(int) noexcept {
    return false;
}
#endif

constexpr int plus(int id) noexcept {
    return on(id) ? 1 : 0;
}
constexpr int minus(int id) noexcept {
    return on(id) ? -1 : 0;
}
constexpr bool negate(int id, bool condition) noexcept {
    return on(id) ? !condition : condition;
}

/// Another value than is returned.
template <class T>
constexpr T other(int id, T value) noexcept {
    return on(id) ? static_cast<T>(!value) : value;
}

// An operator, and what its mutants make of it: NAME(id, left, right).
#define KESTRA_MUTANT_PAIR(name, op, one, two)                                                                         \
    template <class L, class R>                                                                                        \
    constexpr bool name(int id, const L& left, const R& right) {                                                       \
        if (on(id)) return left one right;                                                                             \
        if (on(id + 1)) return left two right;                                                                         \
        return left op right;                                                                                          \
    }
KESTRA_MUTANT_PAIR(less, <, <=, >=)
KESTRA_MUTANT_PAIR(lessEqual, <=, <, >)
KESTRA_MUTANT_PAIR(greater, >, >=, <=)
KESTRA_MUTANT_PAIR(greaterEqual, >=, >, <)
#undef KESTRA_MUTANT_PAIR

#define KESTRA_MUTANT_ONE(name, op, one)                                                                               \
    template <class L, class R>                                                                                        \
    constexpr auto name(int id, const L& left, const R& right) {                                                       \
        return on(id) ? static_cast<decltype(left op right)>(left one right) : left op right;                          \
    }
KESTRA_MUTANT_ONE(equal, ==, !=)
KESTRA_MUTANT_ONE(unequal, !=, ==)
KESTRA_MUTANT_ONE(add, +, -)
KESTRA_MUTANT_ONE(subtract, -, +)
KESTRA_MUTANT_ONE(multiply, *, +)
KESTRA_MUTANT_ONE(divide, /, *)
KESTRA_MUTANT_ONE(modulo, %, /)
KESTRA_MUTANT_ONE(bitAnd, &, |)
KESTRA_MUTANT_ONE(bitOr, |, &)
KESTRA_MUTANT_ONE(bitXor, ^, &)
KESTRA_MUTANT_ONE(shiftLeft, <<, >>)
KESTRA_MUTANT_ONE(shiftRight, >>, <<)
#undef KESTRA_MUTANT_ONE

} // namespace kestra::mutant
