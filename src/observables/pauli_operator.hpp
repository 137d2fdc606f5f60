// A Pauli sum as an operator on states.
#pragma once

#include <complex>
#include <pblinalg/observable.hpp>

namespace pblinalg::cpu {

/// Writes the sum of the terms, its coefficients' real parts and no constant, times `from` to `to`.
/// Terms are grouped as in `pauli_sums`: about one read and write of the states for each batch.
/// @param size  of both, at least `min_pauli_sums_size`.
/// Errors: std::bad_alloc.
template <class T>
void apply_pauli_sum(const std::complex<T>* from, std::complex<T>* to,
                     const WObservable<T>& observable, unsigned long long size, int num_threads);

}  // namespace pblinalg::cpu
