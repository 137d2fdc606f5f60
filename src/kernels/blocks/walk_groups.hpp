// The loop over groups inside a serial kernel, and its cut into whole vectors and a scalar rest.
#pragma once

#include "kernels/state_iterator.hpp"

namespace pblinalg::cpu {

/// Calls `step(base)` for steps [begin, end) of a walk whose counter fills `free_mask`.
template <class Step>
PBLINALG_ALWAYS_INLINE void walk_groups(Index free_mask, Index fixed_bits, Index begin, Index end,
                                        const Step& step) {
    Index base = deposit_bits(begin, free_mask);
    for (Index group = begin; group < end; ++group) {
        step(base | fixed_bits);
        base = next_subset(base, free_mask);
    }
}

/// The part of the groups [begin, end) that whole vector steps of 2^group_bits groups cover.
/// Empty ranges lie at `end`, so that [begin, range.begin) and [range.end, end) are the rest.
struct VectorRange {
    Index begin;
    Index end;
    unsigned int group_bits;

    PBLINALG_ALWAYS_INLINE VectorRange(const orb::core::iterator::GroupMasks& groups, Index first,
                                       Index last, unsigned int group_bits)
        : begin(last), end(last), group_bits(group_bits) {
        const Index partial = low_mask(group_bits);
        if (groups.count <= partial) return;
        const Index whole_begin = (first + partial) & ~partial;
        const Index whole_end = last & ~partial;
        if (whole_begin < whole_end) {
            begin = whole_begin;
            end = whole_end;
        }
    }

    PBLINALG_ALWAYS_INLINE bool empty() const { return begin == end; }
    PBLINALG_ALWAYS_INLINE Index first_step() const { return begin >> group_bits; }
    PBLINALG_ALWAYS_INLINE Index last_step() const { return end >> group_bits; }
};

}  // namespace pblinalg::cpu
