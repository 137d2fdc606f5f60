// The loop over groups inside a serial kernel, and its cut into whole vectors and a scalar rest.
#pragma once

#include "core/state_iterator.hpp"

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

/// Which way `LinesAhead` follows a walk.
enum class Ahead {
    /// In the order of addresses. A walk whose targets lie between a cache line and a few KiB apart
    /// reads several streams that the hardware takes for one and fails to fetch ahead; half of the
    /// bandwidth is lost. Followed linearly, the same lines come in at full speed.
    by_address,
    /// Each of the streams that targets further apart make, on its own. The hardware fails with
    /// them, too, where held bits leave gaps, and keeps less in flight than memory can deliver.
    by_stream,
};

/// @param target_bits  index bits that tell the vectors of a step apart.
PBLINALG_ALWAYS_INLINE constexpr Ahead way_ahead(Index target_bits) {
    constexpr Index max_target_bit = Index{1} << 9;
    return target_bits < max_target_bit ? Ahead::by_address : Ahead::by_stream;
}

/// Fetches what a walk will touch some steps ahead of it.
template <class V, Ahead way>
class LinesAhead {
  public:
    /// @param free_mask    index bits above the lanes that the walk counts through.
    /// @param target_bits  index bits that tell the vectors of a step apart.
    /// @param amplitudes   how many the whole walk touches.
    /// @param begin        first step.
    /// @param lead         vectors ahead at the least, in the order of addresses.
    PBLINALG_ALWAYS_INLINE LinesAhead(Index free_mask, Index fixed_bits, Index target_bits,
                                      Index amplitudes, Index begin, Index lead = 0)
        : mask_(way == Ahead::by_address ? free_mask | target_bits : free_mask),
          fixed_bits_(fixed_bits),
          useful_(pays_for(amplitudes)),
          next_(way == Ahead::by_address
                    ? deposit_bits((begin << count_bits(target_bits)) +
                                       (lead < page / V::bytes ? page / V::bytes : lead),
                                   mask_)
                    : deposit_bits(begin + stream_steps, mask_)) {}

    /// Whether so many amplitudes are more than caches hold.
    PBLINALG_ALWAYS_INLINE static bool pays_for(Index amplitudes) { return amplitudes >= bit(17); }

    /// Fetches the vectors of one step.
    /// @param offsets  amplitudes from the base of a step to each of its vectors.
    template <class T>
    PBLINALG_ALWAYS_INLINE void fetch(const T* state, const Index* offsets, Index n_vectors) {
        if (!useful_) return;
        for (Index i = 0; i < n_vectors; ++i) {
            const Index offset = way == Ahead::by_address ? 0 : offsets[i];
            __builtin_prefetch(state + 2 * (next_ | fixed_bits_ | offset), 1, 3);
            if (way == Ahead::by_address) next_ = next_subset(next_, mask_);
        }
        if (way == Ahead::by_stream) next_ = next_subset(next_, mask_);
    }

  private:
    static constexpr Index page = 4096;
    static constexpr Index stream_steps = 16;

    Index mask_;
    Index fixed_bits_;
    bool useful_;
    Index next_;
};

}  // namespace pblinalg::cpu
