// Serial kernels whose results are exact to the last bit: fixed gates, one- and two-qubit matrices,
// diagonals. Each works on one block of the groups of a gate; the parallel split is in
// core/parallel.hpp, the choice of `set` in core/instruction_set.hpp.
#pragma once

#include "core/instruction_set.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// The groups of a gate on up to two targets.
struct GateWalk {
    orb::core::iterator::GroupMasks groups;
    unsigned int targets[2];  ///< first listed target first; unused entries are 0
};

/// Applies `Gate` to groups [begin, end) of `walk`.
/// @param state    amplitudes as interleaved parts, 64-byte aligned.
/// @param factors  the gate's coefficients as interleaved parts.
template <InstructionSet set, class Gate, class T>
void update_groups(T* state, const GateWalk& walk, Index begin, Index end, const T* factors);

/// Multiplies the amplitudes at the base indices of groups [begin, end) by
/// diagonal[extract_bits(index, target_mask)].
/// @param groups    groups of no target, controls alone.
/// @param diagonal  interleaved parts, one entry per pattern of the target bits.
template <InstructionSet set, class T>
void multiply_diagonal(T* state, const orb::core::iterator::GroupMasks& groups, Index begin,
                       Index end, const T* diagonal, Index target_mask);

/// Bytes of the registers that the code of `set` was compiled for.
template <InstructionSet set>
int compiled_register_bytes();

}  // namespace pblinalg::cpu
