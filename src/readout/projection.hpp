// The collapse of a bare amplitude array onto one outcome of listed qubits.
#pragma once

#include <complex>
#include <string>

#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::QubitSpan;

/// The summed squared magnitudes of the amplitudes that agree with `outcome`.
/// Errors: std::bad_alloc.
template <class T>
T outcome_weight(const std::complex<T>* state, unsigned long long size, QubitSpan qubits,
                 unsigned long long outcome, int num_threads);

/// What projections say of an outcome without weight.
std::string impossible_outcome(QubitSpan qubits, unsigned long long outcome);

/// Divides the amplitudes that agree with `outcome` by the root of its `weight`, which is not 0,
/// and sets all others to 0 divided by it.
template <class T>
void collapse(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
              unsigned long long outcome, T weight, int num_threads);

/// Moves the amplitudes that agree with `outcome`, the only ones, to where `qubits` are 0.
template <class T>
void move_to_zero(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
                  unsigned long long outcome, int num_threads);

/// Divides the amplitudes that agree with `outcome` by the root of their summed squared magnitudes
/// and sets all others to 0 divided by it (0, or NaN when the sum is).
/// @param outcome  its low bits, first listed qubit most significant. A qubit listed twice takes
///                 the union of its bits; a qubit number counts modulo 64.
/// Errors: std::domain_error when the sum is exactly 0; the others are then 0.
template <class T>
void _project(std::complex<T>* state, unsigned long long size, QubitSpan qubits,
              unsigned long long outcome, int num_threads);

}  // namespace pblinalg::cpu
