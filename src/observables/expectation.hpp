// Exact expectation values: the defined sums, one term at a time. The members take the grouped sums
// of observables/pauli_sums.hpp and come back here for states that hold infinities or NaN.
#pragma once

#include <complex>
#include <pblinalg/observable.hpp>

namespace pblinalg::cpu {

/// <P> of one term on a pure state of `size` amplitudes: the sum of
/// Re(a[i] * conj(a[i ^ flip]) * phase), as a complex number.
template <class T>
std::complex<T> _term_value(std::complex<T>* amplitudes, WObservable<T>& observable,
                            unsigned long long size, int num_threads, unsigned long long term);

/// <P> of one term on a `dim` x `dim` density matrix: the sum of a[(i ^ flip) * dim + i] * phase.
template <class T>
std::complex<T> _term_value_density_matrix(std::complex<T>* amplitudes, WObservable<T>& observable,
                                           unsigned long long dim, int num_threads,
                                           unsigned long long term);

/// constant + sum of coefficient * <P>. On a pure state the real part of each term scales both
/// parts of its coefficient; on a density matrix the full complex product is taken.
template <class T>
std::complex<T> _expectation_value(std::complex<T>* amplitudes, WObservable<T> observable,
                                   unsigned long long size, int num_threads);
template <class T>
std::complex<T> _expectation_value_density_matrix(std::complex<T>* amplitudes,
                                                  WObservable<T> observable, unsigned long long dim,
                                                  int num_threads);

}  // namespace pblinalg::cpu
