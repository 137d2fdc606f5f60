// The walk over amplitude groups: which indices a gate with controls touches, in which order.
// Kernels that vectorise the walk derive their own steps from it (kernels/vector_walk.hpp).
#pragma once

#include <span>
#include <vector>

#include "core/bits.hpp"

// The name by which the iterator is known; all else of the core is in pblinalg::cpu.
namespace orb::core::iterator {

using pblinalg::cpu::Index;
using QubitSpan = std::span<const unsigned int>;

/// The base indices of all groups, without the offsets inside a group, so that gates on one or two
/// targets, whose offsets follow from the targets, need no allocation.
///
/// Group i, 0 <= i < count, has base index fixed_bits | deposit_bits(i, free_mask): targets 0,
/// controls 1, everything else counted through in increasing order.
struct GroupMasks {
    Index free_mask;      ///< bits that the group counter fills
    Index fixed_bits;     ///< control bits, 1 in every visited index
    std::uint64_t count;  ///< number of groups

    /// @param qubits  targets.
    /// @param ctrls   controls; one at or above `nqbits` sets no bit but is counted, so that only
    ///                the lower half of the groups is visited.
    GroupMasks(QubitSpan qubits, QubitSpan ctrls, std::uint64_t nqbits)
        : free_mask(~(~Index{0} << (nqbits % 64))),
          fixed_bits(0),
          count(Index{1} << ((nqbits - qubits.size() - ctrls.size()) % 64)) {
        using pblinalg::cpu::bit;
        for (const unsigned int qubit : qubits)
            free_mask &= ~bit(qubit);
        for (const unsigned int ctrl : ctrls) {
            if (ctrl >= nqbits) continue;
            free_mask &= ~bit(ctrl);
            fixed_bits |= bit(ctrl);
        }
    }

    Index base(std::uint64_t group) const {
        return fixed_bits | pblinalg::cpu::deposit_bits(group, free_mask);
    }

    /// True when both values of `qubit` occur in the base indices.
    bool counts_through(unsigned int qubit) const {
        using namespace pblinalg::cpu;
        if (!(free_mask & bit(qubit))) return false;
        // Controls at or above the qubit count leave the counter short of the upper free bits.
        const unsigned int counter_bit = count_bits(free_mask & low_mask(qubit));
        return count >> counter_bit > 1;
    }

    /// Takes a free bit that `counts_through` out of the walk: half the groups, the bit 0 in all.
    void take_out(unsigned int qubit) {
        free_mask &= ~pblinalg::cpu::bit(qubit);
        count /= 2;
    }

    /// Keeps only the groups whose base index has `qubit` set.
    /// @return false when there are none.
    bool require(unsigned int qubit) {
        if (fixed_bits & pblinalg::cpu::bit(qubit)) return true;
        if (!counts_through(qubit)) return false;
        take_out(qubit);
        fixed_bits |= pblinalg::cpu::bit(qubit);
        return true;
    }
};

/// The groups of a gate on any number of targets.
struct StateIterator : GroupMasks {
    std::uint64_t n_offsets;     ///< 2^k for k targets
    std::vector<Index> offsets;  ///< offsets[r]: target bits of matrix row r, first target highest

    StateIterator(QubitSpan qubits, QubitSpan ctrls, std::uint64_t nqbits)
        : GroupMasks(qubits, ctrls, nqbits),
          n_offsets(Index{1} << qubits.size()),
          offsets(n_offsets, 0) {
        // Doubling: the last listed target is bit 0 of the row.
        Index filled = 1;
        for (std::size_t p = qubits.size(); p-- > 0; filled *= 2) {
            for (Index r = 0; r < filled; ++r) {
                offsets[filled + r] = offsets[r] | pblinalg::cpu::bit(qubits[p]);
            }
        }
    }
};

}  // namespace orb::core::iterator
