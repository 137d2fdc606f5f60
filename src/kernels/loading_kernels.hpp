// Serial kernels that write a caller's data into the state: the norms and writes of state
// preparation, the negations of the phase oracle. Exact to the last bit.
#pragma once

#include "core/instruction_set.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// Groups that are summed and written together: their sums are independent, so that the processor
/// overlaps them, and they are few enough for their cache lines not to displace each other.
inline constexpr unsigned int groups_at_once = 8;

/// sums[b] += |state[bases[b] | offsets[j]]|^2 for each j in turn.
/// @param n_bases  at most `groups_at_once`.
template <InstructionSet set, class T>
void add_norms(const T* state, const Index* bases, unsigned int n_bases, const Index* offsets,
               Index n_offsets, T* sums);

/// state[bases[b] | deposit_bits(s, mask)] = amplitudes[s] * roots[b] for s in [begin, end).
/// @param amplitudes  interleaved parts, converted to T one by one before the product.
template <InstructionSet set, class T>
void write_groups(T* state, const Index* bases, unsigned int n_bases, Index mask,
                  const double* amplitudes, const T* roots, Index begin, Index end);

/// Amplitudes that share one word of marks.
inline constexpr unsigned int marks_bits = 6;
inline constexpr Index marks_per_word = Index{1} << marks_bits;

/// Negates the amplitudes of chunks [begin, end), of `marks_per_word` amplitudes each: in chunk c
/// those whose bit is set in marks[extract_bits(c, chunk_mask)].
template <InstructionSet set, class T>
void negate_marked(T* state, const Index* marks, Index chunk_mask, Index begin, Index end);

}  // namespace pblinalg::cpu
