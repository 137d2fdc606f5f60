// Serial kernels on squared magnitudes: one by one, summed, added up by measurement outcome, and
// the division that makes them sum to 1 again.
// The order of additions is part of each contract. The parallel split is left to the readouts.
#pragma once

#include "core/instruction_set.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// norms[i] = squared magnitude of amplitude i, for i in [0, count).
/// @param amplitudes  interleaved parts, the first one at an index that is a multiple of 64 or 0.
/// @param norms       64-byte aligned.
/// @param next        as many amplitudes that will be read after these: fetched meanwhile.
template <InstructionSet set, class T>
void square_magnitudes(const T* amplitudes, Index count, T* norms, const T* next);

/// The indices fixed_bits | deposit_bits(k, free_mask), k < 2^(bits of free_mask).
struct IndexWalk {
    Index free_mask;
    Index fixed_bits;

    Index count() const { return bit(count_bits(free_mask)); }
};

/// The sum, in no particular order, of the squared magnitudes at steps [begin, end) of `walk`.
/// @param size   the number of amplitudes, a power of two.
/// @param begin  a multiple of 64, as is `end` unless it is the end of the walk.
template <InstructionSet set, class T>
T sum_square_magnitudes(const T* amplitudes, Index size, const IndexWalk& walk, Index begin,
                        Index end);

/// The indices with `pattern` under `mask`.
struct Selection {
    Index mask;
    Index pattern;

    PBLINALG_ALWAYS_INLINE bool holds(Index index) const { return (index & mask) == pattern; }
};

/// Divides both parts of the amplitudes in `kept` by `by` and sets those of all others to 0 / by,
/// at indices [begin, end).
/// @param size   the number of amplitudes, a power of two.
/// @param begin  a multiple of 64, as is `end` unless it is `size`.
template <InstructionSet set, class T>
void divide_matching(T* amplitudes, Index size, const Selection& kept, Index begin, Index end,
                     T by);

/// Where the values of an outcome lie in a tile: that of outcome s and free pattern f at position
/// outcome_offsets[s] + free_offsets[f]. Both counts are powers of two.
struct OutcomeTile {
    const unsigned int* outcome_offsets;
    Index n_outcomes;
    const unsigned int* free_offsets;
    Index n_free;
};

/// Adds the values of each outcome to its sum, one after the other in the order of `free_offsets`.
template <InstructionSet set, class T>
void add_by_outcome(T* sums, const T* values, const OutcomeTile& tile);

}  // namespace pblinalg::cpu
