// What every test of states shares: precisions, ways to fill a state, comparison to the last bit,
// and the instruction sets of this machine. What a gate should do is in exact_reference.hpp.
#pragma once

#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <complex>
#include <cstdint>
#include <cstring>
#include <limits>
#include <pblinalg/pblinalg.hpp>
#include <random>
#include <vector>

#include "core/instruction_set.hpp"
#include "support/processors.hpp"

namespace pblinalg::test {

using Precisions = ::testing::Types<float, double>;
using Qubits = std::vector<unsigned int>;
template <class T>
using Amplitudes = std::vector<std::complex<T>>;
template <class T>
using StateVector = cpu::PybindLinAlgStateVectorCPU<T>;

/// Equal to the last bit, signs of zeros included; every NaN equals every other.
template <class T>
bool same_bits(T a, T b) {
    if (std::isnan(a) || std::isnan(b)) return std::isnan(a) && std::isnan(b);
    return std::memcmp(&a, &b, sizeof(T)) == 0;
}
template <class T>
bool same_bits(std::complex<T> a, std::complex<T> b) {
    return same_bits(a.real(), b.real()) && same_bits(a.imag(), b.imag());
}

/// Compares `expected.size()` elements, amplitudes or reals, and names the first that differs.
template <class V>
::testing::AssertionResult same_bits(const V* got, const std::vector<V>& expected) {
    if (std::memcmp(got, expected.data(), expected.size() * sizeof(V)) == 0) {
        return ::testing::AssertionSuccess();
    }
    for (std::size_t i = 0; i < expected.size(); ++i) {
        if (same_bits(got[i], expected[i])) continue;
        return ::testing::AssertionFailure()
               << std::hexfloat << "index " << i << ": " << got[i] << " instead of " << expected[i];
    }
    return ::testing::AssertionSuccess();
}
template <class T>
::testing::AssertionResult same_bits(const StateVector<T>& got, const Amplitudes<T>& expected) {
    if (got.size != expected.size()) {
        return ::testing::AssertionFailure() << got.size << " amplitudes";
    }
    return same_bits(got.state.get(), expected);
}

enum class Filling {
    ordinary,       ///< uniform in [-1, 1]
    signed_zeros,   ///< half of the parts are +0 or -0
    extremes,       ///< mixed with infinities, NaN, denormal and huge parts
    rare_extremes,  ///< one part in a thousand of those
};
inline constexpr Filling all_fillings[] = {Filling::ordinary, Filling::signed_zeros,
                                           Filling::extremes, Filling::rare_extremes};

template <class T>
T random_part(Filling filling, std::mt19937_64& generator) {
    using Limits = std::numeric_limits<T>;
    static constexpr T specials[] = {T(0),
                                     -T(0),
                                     Limits::infinity(),
                                     -Limits::infinity(),
                                     Limits::quiet_NaN(),
                                     Limits::max(),
                                     Limits::denorm_min(),
                                     -Limits::min() / 3};
    const bool special =
        filling == Filling::rare_extremes ? generator() % 1000 == 0 : generator() % 4 < 2;
    if (special && filling == Filling::signed_zeros) return specials[generator() % 2];
    if (special && filling >= Filling::extremes) return specials[generator() % 8];
    return std::uniform_real_distribution<T>(-1, 1)(generator);
}

template <class T>
Amplitudes<T> filled(std::size_t size, Filling filling, std::uint64_t seed = 1) {
    std::mt19937_64 generator(seed);
    Amplitudes<T> amplitudes(size);
    for (std::complex<T>& amplitude : amplitudes) {
        const T re = random_part<T>(filling, generator);
        amplitude = {re, random_part<T>(filling, generator)};
    }
    return amplitudes;
}

/// Amplitude i is (i, -i), so that every move shows.
template <class T>
Amplitudes<T> labelled(std::size_t size) {
    Amplitudes<T> amplitudes(size);
    for (std::size_t i = 0; i < size; ++i)
        amplitudes[i] = {T(i), -T(i)};
    return amplitudes;
}

/// Writes `amplitudes` in index order, with no help of the library.
template <class T>
void load(StateVector<T>& state, const Amplitudes<T>& amplitudes) {
    ASSERT_EQ(state.size, amplitudes.size());
    std::copy(amplitudes.begin(), amplitudes.end(), state.state.get());
}

template <class T>
Amplitudes<T> amplitudes_of(const StateVector<T>& state) {
    return {state.state.get(), state.state.get() + state.size};
}

inline unsigned int qubits_of(std::size_t size) {
    return static_cast<unsigned int>(std::bit_width(size) - 1);
}

/// Reverses the low n bits, one by one.
inline std::uint64_t reversed(std::uint64_t index, unsigned int n) {
    std::uint64_t result = 0;
    for (unsigned int q = 0; q < n; ++q)
        result |= (index >> q & 1) << (n - 1 - q);
    return result;
}

inline std::vector<cpu::InstructionSet> supported_instruction_sets() {
    std::vector<cpu::InstructionSet> sets;
    for (const auto set :
         {cpu::InstructionSet::baseline, cpu::InstructionSet::avx2, cpu::InstructionSet::avx512}) {
        if (cpu::supports(set)) sets.push_back(set);
    }
    return sets;
}

/// Runs `body` once per supported instruction set and leaves the widest one active.
template <class Body>
void for_each_instruction_set(const Body& body) {
    for (const cpu::InstructionSet set : supported_instruction_sets()) {
        SCOPED_TRACE(cpu::name_of(set));
        cpu::set_instruction_set(set);
        body();
    }
}

/// Calls `body(targets, controls)` for every ordered list of `n_targets` distinct qubits below n
/// and every set of at most `max_controls` other ones.
template <class Body>
void for_each_placement(unsigned int n, unsigned int n_targets, int max_controls,
                        const Body& body) {
    std::uint64_t codes = 1;
    for (unsigned int p = 0; p < n_targets; ++p)
        codes *= n;
    for (std::uint64_t code = 0; code < codes; ++code) {
        Qubits targets;
        std::uint64_t used = 0;
        for (std::uint64_t rest = code; targets.size() < n_targets; rest /= n) {
            targets.push_back(static_cast<unsigned int>(rest % n));
            used |= std::uint64_t{1} << targets.back();
        }
        if (std::popcount(used) != static_cast<int>(n_targets)) continue;
        for (std::uint64_t set = 0; set < std::uint64_t{1} << n; ++set) {
            if ((set & used) != 0 || std::popcount(set) > max_controls) continue;
            Qubits controls;
            for (unsigned int q = 0; q < n; ++q) {
                if (set >> q & 1) controls.push_back(q);
            }
            body(targets, controls);
        }
    }
}

}  // namespace pblinalg::test
