// Serial kernels that may fuse multiply and add: dense matrices on any number of targets.
#pragma once

#include "core/instruction_set.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// The groups of a gate on any number of targets, without containers.
struct MatrixWalk {
    orb::core::iterator::GroupMasks groups;
    const unsigned int* targets;
    unsigned int n_targets;
    const Index* offsets;  ///< target bits of each matrix row
};

/// Bytes of 64-byte aligned scratch that `multiply_matrix` wants of its caller, per worker.
template <InstructionSet set, class T>
std::size_t matrix_scratch_bytes(unsigned int n_targets);

/// Multiplies the amplitudes of groups [begin, end) by a dense matrix.
/// @param matrix   4^n_targets row-major entries as interleaved parts.
/// @param scratch  `matrix_scratch_bytes` bytes that no other worker uses.
template <InstructionSet set, class T>
void multiply_matrix(T* state, const MatrixWalk& walk, Index begin, Index end, const T* matrix,
                     void* scratch);

}  // namespace pblinalg::cpu
