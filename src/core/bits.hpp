// Bit arithmetic on basis-state indices: masks, deposit, extract, reversal.
// Always inlined, so that code built for one instruction set never lends its copy to another.
#pragma once

#include <cstdint>
#if defined(__BMI2__)
#include <immintrin.h>
#endif

#define PBLINALG_ALWAYS_INLINE [[gnu::always_inline]] inline

namespace pblinalg::cpu {

using Index = std::uint64_t;

PBLINALG_ALWAYS_INLINE constexpr Index bit(unsigned int position) {
    return Index{1} << position;
}

/// The `width` lowest bits, 0 <= width < 64.
PBLINALG_ALWAYS_INLINE constexpr Index low_mask(unsigned int width) {
    return ~(~Index{0} << width);
}

PBLINALG_ALWAYS_INLINE constexpr unsigned int count_bits(Index x) {
#if defined(__x86_64__) && !defined(__POPCNT__)
    // The built-in would be a call: sums of 2, 4 and 8 bits side by side, then of all bytes.
    x -= (x >> 1) & 0x5555555555555555u;
    x = (x & 0x3333333333333333u) + ((x >> 2) & 0x3333333333333333u);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Fu;
    return static_cast<unsigned int>((x * 0x0101010101010101u) >> 56);
#else
    return static_cast<unsigned int>(__builtin_popcountll(x));
#endif
}

/// True when an odd number of bits is set.
PBLINALG_ALWAYS_INLINE constexpr bool has_odd_parity(Index x) {
    return __builtin_parityll(x);
}

/// The lowest set bit of `x` alone, 0 for 0.
PBLINALG_ALWAYS_INLINE constexpr Index lowest_bit(Index x) {
    return x & (~x + 1);
}

/// Spreads the low bits of `x` over the set bits of `mask`, lowest first.
PBLINALG_ALWAYS_INLINE Index deposit_bits(Index x, Index mask) {
#if defined(__BMI2__)
    return _pdep_u64(x, mask);
#else
    Index result = 0;
    for (; mask != 0 && x != 0; mask &= mask - 1, x >>= 1) {
        if (x & 1) result |= lowest_bit(mask);
    }
    return result;
#endif
}

/// Gathers the bits of `x` under `mask` into the low bits, lowest first.
PBLINALG_ALWAYS_INLINE Index extract_bits(Index x, Index mask) {
#if defined(__BMI2__)
    return _pext_u64(x, mask);
#else
    Index result = 0;
    for (Index place = 1; mask != 0; mask &= mask - 1, place <<= 1) {
        if (x & lowest_bit(mask)) result |= place;
    }
    return result;
#endif
}

/// The next larger value whose set bits lie within `mask`; wraps to 0 after the largest.
PBLINALG_ALWAYS_INLINE constexpr Index next_subset(Index subset, Index mask) {
    return ((subset | ~mask) + 1) & mask;
}

PBLINALG_ALWAYS_INLINE constexpr Index reverse_all_bits(Index x) {
    x = ((x >> 1) & 0x5555555555555555u) | ((x & 0x5555555555555555u) << 1);
    x = ((x >> 2) & 0x3333333333333333u) | ((x & 0x3333333333333333u) << 2);
    x = ((x >> 4) & 0x0F0F0F0F0F0F0F0Fu) | ((x & 0x0F0F0F0F0F0F0F0Fu) << 4);
    return __builtin_bswap64(x);
}

/// Reverses the `width` lowest bits of `x` and drops the others, 0 <= width <= 64.
PBLINALG_ALWAYS_INLINE constexpr Index reverse_bits(Index x, unsigned int width) {
    return width == 0 ? 0 : reverse_all_bits(x) >> (64 - width);
}

}  // namespace pblinalg::cpu
