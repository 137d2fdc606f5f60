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

/// Fetches what a walk will touch one page ahead of it, in the order of addresses.
///
/// A walk whose targets lie between a cache line and some tens of KiB apart reads several streams
/// that the hardware takes for one and fails to fetch ahead; half of the bandwidth is lost.
/// Followed linearly, the same lines come in at full speed. Larger distances need no help.
template <class V>
class LinesAhead {
  public:
    /// @param free_mask    index bits above the lanes that the walk counts through.
    /// @param target_bits  index bits that tell the vectors of a step apart.
    /// @param amplitudes   how many the whole walk touches.
    /// @param begin        first step.
    PBLINALG_ALWAYS_INLINE LinesAhead(Index free_mask, Index fixed_bits, Index target_bits,
                                      Index amplitudes, Index begin)
        : mask_(free_mask | target_bits),
          fixed_bits_(fixed_bits),
          useful_(amplitudes >= min_amplitudes && target_bits < max_target_bit),
          next_(deposit_bits((begin << count_bits(target_bits)) + page / V::bytes, mask_)) {}

    /// Fetches as many vectors as one step takes.
    template <class T>
    PBLINALG_ALWAYS_INLINE void fetch(const T* state, Index n_vectors) {
        if (!useful_) return;
        for (Index i = 0; i < n_vectors; ++i) {
            __builtin_prefetch(state + 2 * (next_ | fixed_bits_), 1, 3);
            next_ = next_subset(next_, mask_);
        }
    }

  private:
    static constexpr Index page = 4096;
    /// Below this the state is in cache anyway.
    static constexpr Index min_amplitudes = Index{1} << 17;
    static constexpr Index max_target_bit = Index{1} << 12;

    Index mask_;
    Index fixed_bits_;
    bool useful_;
    Index next_;
};

}  // namespace pblinalg::cpu
