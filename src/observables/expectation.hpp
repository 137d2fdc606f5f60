// Exact expectation values: the defined sums, one term at a time. The members take the grouped sums
// of observables/pauli_sums.hpp and come back here for states that hold infinities or NaN.
#pragma once

#include <complex>
#include <pblinalg/observable.hpp>
#include <vector>

#include "core/bits.hpp"
#include "core/complex_math.hpp"

namespace pblinalg::cpu {

/// i^power.
template <class T>
std::complex<T> phase_of(unsigned int power) {
    constexpr T re[] = {1, 0, -1, 0};
    constexpr T im[] = {0, 1, 0, -1};
    return {re[power % 4], im[power % 4]};
}

/// What one index adds to <P>: Re(left * conj(right) * phase).
/// @param left, right  the amplitudes at the index and at the flipped one.
/// @param signs        the bits of the index under the term's sign mask.
template <class T>
T term_product(std::complex<T> left, std::complex<T> right, unsigned int power, Index signs) {
    return cmul(cmul(left, std::conj(right)), phase_of<T>(power + 2 * count_bits(signs))).real();
}

/// <P> of every term on a pure state of `size` amplitudes.
template <class T>
std::vector<T> all_term_values(std::complex<T>* amplitudes, WObservable<T>& observable,
                               unsigned long long size, int num_threads);

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
