// Random draws from a state's generator, taken by one thread at a time.
#pragma once

#include <cstdint>

#include "core/bits.hpp"

namespace pblinalg::cpu {

/// Writes the next `count` outputs of `rng`, in generator order.
///
/// Draws of all objects in the process are serialised by OpenMP's unnamed critical section: that it
/// is this one belongs to the interface, so a caller must not draw from inside one of its own.
template <class RNG>
void take_draws(RNG& rng, std::uint64_t* out, Index count) {
#pragma omp critical
    for (Index k = 0; k < count; ++k)
        out[k] = rng();
}

/// A generator whose outputs were made before.
struct MadeDraws {
    const std::uint64_t* next;
    std::uint64_t operator()() { return *next++; }
};

/// draw / 2^64 rounded once to nearest: in [0, 1], and 1 itself for the largest draws.
template <class T>
T unit_interval(std::uint64_t draw) {
    return static_cast<T>(draw) * T(0x1p-64);
}

}  // namespace pblinalg::cpu
