// All terms of an observable in as few passes over the state as possible.
#pragma once

#include <complex>
#include <pblinalg/observable.hpp>
#include <vector>

namespace pblinalg::cpu {

/// The real <P> of every term on a pure state of `size` amplitudes.
///
/// Terms with one flip mask share the products a[i] * conj(a[i ^ flip]); masks whose high parts
/// span a small space share the blocks of the state that are read.
///
/// @return one value per term; none at all when the state is too small for this to pay, or when an
///         amplitude is infinite, NaN or so large that its square is: products may then need the
///         recovery of infinities, and the defined sums have to be taken.
/// Errors: std::bad_alloc.
template <class T>
std::vector<T> pauli_sums(const std::complex<T>* amplitudes, const WObservable<T>& observable,
                          unsigned long long size, int num_threads);

}  // namespace pblinalg::cpu
