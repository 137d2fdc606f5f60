// The state of some qubits when the others are not looked at.
#pragma once

#include <complex>
#include <pblinalg/export.hpp>
#include <pblinalg/state_vector_cpu.hpp>
#include <vector>

namespace pblinalg {

/// Writes the reduced density matrix of the listed qubits, the trace over all others, from a state
/// vector or from a density matrix (`density_matrix`).
///
/// Entry (a, b) is the sum over r of psi(a, r) conj(psi(b, r)), a and b being values of the listed
/// qubits, r one of the others. Sums are taken in double, in pieces that the sizes alone decide on,
/// so that every request for workers gets the same bits on one instruction set. The imaginary parts
/// of the diagonal are exactly 0; nothing is normalised.
///
/// Cost: one pass over the state and 2^(n+k+1) multiply-adds for k of n qubits; 2^(2k) sums of 16
/// bytes, up to 64 times where k is small. From a density matrix: a read of 2^(n/2+k) entries.
///
/// @param qubits  distinct; the first listed one is the most significant bit of a and b.
/// @param out     2^(2k) entries, row-major: (a, b) at a * 2^k + b.
/// Errors: std::bad_alloc.
template <class T>
PBLINALG_EXPORT void reduced_density_matrix(const cpu::PybindLinAlgStateVectorCPU<T>& state,
                                            const std::vector<unsigned int>& qubits,
                                            std::complex<double>* out);

extern template PBLINALG_EXPORT void reduced_density_matrix<float>(
    const cpu::PybindLinAlgStateVectorCPU<float>&, const std::vector<unsigned int>&,
    std::complex<double>*);
extern template PBLINALG_EXPORT void reduced_density_matrix<double>(
    const cpu::PybindLinAlgStateVectorCPU<double>&, const std::vector<unsigned int>&,
    std::complex<double>*);

}  // namespace pblinalg
