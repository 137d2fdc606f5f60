// Serial kernels of Pauli sums, for all terms that flip the same bits: signed sums of products of
// two amplitudes, and of amplitudes. Sums may come in any order and be fused. Which blocks of the
// state meet, and in which order, is decided in observables/pauli_sums.cpp.
#pragma once

#include "core/instruction_set.hpp"
#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

/// Partial sums kept per term; an unused rest stays 0.
template <class T>
inline constexpr Index sums_per_term = 64 / sizeof(T);

/// A block has at least this many amplitudes on every instruction set.
inline constexpr unsigned int min_pauli_block_bits = 7;

/// Two blocks of 2^bits amplitudes whose amplitudes meet in products.
template <class T>
struct BlockPair {
    const T* left;      ///< amplitudes a[i], interleaved parts, 64-byte aligned
    const T* right;     ///< those that hold a[i ^ flip]
    unsigned int bits;  ///< log2 of the amplitudes in a block
    Index left_number;  ///< i >> bits
    Index low_flip;     ///< the low `bits` bits of the flip mask
};

/// For each term t adds (-1)^popcount(sign_masks[t] & i) * a[i] * conj(a[i ^ flip]), of which the
/// real or the imaginary part is wanted, over the indices i of the left block.
/// @param sums     n_terms * sums_per_term<T> partial sums, 64-byte aligned.
/// @param scratch  as large as a block, 64-byte aligned.
template <InstructionSet set, class T>
void add_signed_products(const BlockPair<T>& blocks, bool imaginary, const Index* sign_masks,
                         Index n_terms, T* sums, T* scratch);

/// The value of one term from its partial sums.
template <InstructionSet set, class T>
T fold_signed_sums(const T* sums, Index sign_mask, bool imaginary);

/// Terms that flip the same bits, as an operator on blocks of 2^bits amplitudes.
template <class T>
struct SignedTerms {
    unsigned int bits;        ///< log2 of the amplitudes in a block
    Index low_flip;           ///< the low `bits` bits of the flip mask
    bool imaginary;           ///< whether weights are multiples of i
    const Index* sign_masks;  ///< one per term
    const T* weights;         ///< one per term
    Index n_terms;
};

/// Adds, for each term t, weights[t] * (-1)^popcount(sign_masks[t] & i) * from[i], times i if
/// imaginary, to to[i ^ flip].
/// @param from, to  blocks of interleaved parts, 64-byte aligned.
/// @param number    of the block `from` in the state: i >> bits.
template <InstructionSet set, class T>
void add_signed_amplitudes(const T* from, Index number, T* to, const SignedTerms<T>& terms);

}  // namespace pblinalg::cpu
