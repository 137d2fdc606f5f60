// A loop whose counter the compiler knows, so that arrays of vectors stay in registers.
#pragma once

#include <utility>

#include "core/bits.hpp"

namespace pblinalg::cpu {

/// Calls `body.operator()<i>()` for i = 0 .. n - 1.
template <unsigned int n, class Body>
PBLINALG_ALWAYS_INLINE void unrolled(const Body& body) {
    [&]<unsigned int... i>(std::integer_sequence<unsigned int, i...>)
        __attribute__((always_inline)) {
        (body.template operator()<i>(), ...);
    }
    (std::make_integer_sequence<unsigned int, n>());
}

}  // namespace pblinalg::cpu
