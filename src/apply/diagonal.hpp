// Diagonals over a list of qubits: from the caller's order of entries to the order in which the
// kernels read them. The kernels themselves are declared in gates/matrix_formulas.hpp.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "gates/matrix_formulas.hpp"

namespace pblinalg::cpu {

/// The XOR of the qubits' bits: a qubit listed twice cancels out.
Index gate_mask(QubitSpan qubits);

/// Which matrix row applies to a pattern of gate bits.
///
/// @param mask  `gate_mask` of the qubits; bit j of a slot is the value of the j-th lowest of them.
/// @return 2^k rows for k qubits, by slot; the first listed qubit is a row's most significant bit.
/// Errors: std::length_error for 62 or more qubits.
std::vector<std::uint32_t> get_sorted_indices(QubitSpan qubits, Index mask);

/// Writes the entries of `diag` in slot order: out[s] belongs to the gate bits s, read in
/// increasing bit position. Slots whose entry a short `diag` lacks are left as they are.
template <class Amplitude>
void fill_sorted_diag(Amplitude* out, QubitSpan qubits, std::span<const Amplitude> diag,
                      Index mask);

/// Multiplies the amplitudes of `groups`, which have controls alone, by
/// sorted_diag[extract_bits(index, mask)].
template <class T>
void multiply_sorted_diag(std::complex<T>* amplitudes,
                          const orb::core::iterator::GroupMasks& groups, int nthreads,
                          const std::complex<T>* sorted_diag, Index mask);

extern template void fill_sorted_diag<std::complex<float>>(std::complex<float>*, QubitSpan,
                                                           MatrixSpan<float>, Index);
extern template void fill_sorted_diag<std::complex<double>>(std::complex<double>*, QubitSpan,
                                                            MatrixSpan<double>, Index);

}  // namespace pblinalg::cpu
