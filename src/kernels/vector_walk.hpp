// How vector code walks the groups of a gate: which amplitudes share a vector, and where the
// vectors of a group lie. Derived from the definition of the walk in core/state_iterator.hpp.
#pragma once

#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// One step of the walk takes 2^k vectors, in which 2^group_bits consecutive groups lie.
///
/// A target above the lanes is a plain offset. A target below `lane_bits` lies inside a vector; it
/// is exchanged (Vector::transpose) with the lowest free bit above the lanes, its companion, which
/// then tells the vectors of the step apart. A bit that is neither target nor free is held at its
/// value in `fixed_bits`: inside a vector by a choice of lanes, above it as a fixed bit.
template <class V>
struct VectorWalk {
    static constexpr Index lane_mask = (Index{1} << V::lane_bits) - 1;

    unsigned int group_bits;  ///< log2 of the groups in one step
    Index free_mask;          ///< index bits that the step counter fills
    Index fixed_bits;         ///< held bits above the lanes
    Index held_lane_bits;     ///< bits of the lane number that are held
    Index held_lane_value;    ///< what they are held at

    PBLINALG_ALWAYS_INLINE explicit VectorWalk(const orb::core::iterator::GroupMasks& groups)
        : group_bits(count_bits(groups.free_mask & lane_mask)),
          free_mask(groups.free_mask & ~lane_mask),
          fixed_bits(groups.fixed_bits & ~lane_mask),
          held_lane_bits(~groups.free_mask & lane_mask),
          held_lane_value(groups.fixed_bits & lane_mask) {}

    PBLINALG_ALWAYS_INLINE static bool in_lanes(unsigned int target) {
        return target < V::lane_bits;
    }

    /// The index bit that tells the two vectors of `target` apart. To be called once per target.
    PBLINALG_ALWAYS_INLINE Index take_target(unsigned int target) {
        if (!in_lanes(target)) return bit(target);
        held_lane_bits &= ~bit(target);
        const Index companion = lowest_bit(free_mask);
        free_mask ^= companion;
        ++group_bits;
        return companion;
    }

    PBLINALG_ALWAYS_INLINE bool chooses_lanes() const { return held_lane_bits != 0; }

    /// The lanes to write, whatever bits of their number are in `but`.
    PBLINALG_ALWAYS_INLINE typename V::Bits chosen_lanes(Index but = 0) const {
        return V::lanes_where(held_lane_bits & ~but, held_lane_value & ~but);
    }

    /// Exchanges the lane bit of target `p` of `n_targets` in the vectors a[0 .. 2^n_targets).
    PBLINALG_ALWAYS_INLINE static void transpose_target(V* a, unsigned int target, unsigned int p,
                                                        unsigned int n_targets) {
        const unsigned int row_bit = 1u << (n_targets - 1 - p);
        for (unsigned int r = 0; r < (1u << n_targets); ++r) {
            if (!(r & row_bit)) V::transpose(a[r], a[r | row_bit], target);
        }
    }
};

}  // namespace pblinalg::cpu
