// All terms of an observable in as few passes over the state as possible.
#pragma once

#include <complex>
#include <pblinalg/observable.hpp>
#include <vector>

namespace pblinalg::cpu {

/// Smaller states do not fill the vectors of every instruction set.
inline constexpr unsigned long long min_pauli_sums_size = 128;

/// The real <P> of every term on a pure state of `size` amplitudes.
///
/// Terms with one flip mask share the products a[i] * conj(a[i ^ flip]); masks whose high parts
/// span a small space share the blocks of the state that are read.
///
/// @return one value per term, not finite when an amplitude that it depends on is infinite or NaN:
///         products may then need the recovery of infinities, and the defined sum has to be taken.
/// @param size  at least `min_pauli_sums_size`.
/// Errors: std::bad_alloc.
template <class T>
std::vector<T> pauli_sums(const std::complex<T>* amplitudes, const WObservable<T>& observable,
                          unsigned long long size, int num_threads);

/// The terms of each pass that `pauli_sums` makes over the state, by position. A pass taken alone
/// gives its terms the same bits.
template <class T>
std::vector<std::vector<unsigned long long>> passes_of_terms(const WObservable<T>& observable,
                                                             unsigned long long size);

}  // namespace pblinalg::cpu
