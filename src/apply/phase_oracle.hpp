// The phase oracle: which amplitudes the marked values name, then one pass of negations.
#pragma once

#include <complex>
#include <span>

#include "core/state_iterator.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::QubitSpan;

/// Negates the amplitudes whose value on `qubits` is one of `marked`; the first listed number is
/// the most significant bit of a value. Deliberately, a listed number p stands for bit nqubits-1-p
/// of an array index, unlike in gates. Values that no index has mark nothing.
/// Errors: std::bad_alloc before any amplitude changes.
template <class T>
void negate_marked_values(std::complex<T>* amplitudes, unsigned int nqubits,
                          std::span<const unsigned long long> marked, QubitSpan qubits,
                          int nthreads);

}  // namespace pblinalg::cpu
