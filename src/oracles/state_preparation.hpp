// State preparation: a caller's amplitudes on some qubits, weighted by what stood there.
#pragma once

#include <complex>
#include <vector>

namespace pblinalg::cpu {

/// For every value of the other qubits, replaces the amplitudes on `qubits` by `amplitudes` times
/// the root of the summed squared magnitudes that were there.
///
/// @param amplitudes  2^m entries for m listed qubits; the lowest-numbered listed qubit is bit 0
///                    of an entry's number, whatever the order of the list.
/// @param qubits      their order is that of the sum: first listed qubit most significant.
/// Errors: std::bad_alloc before any amplitude changes.
template <class T>
void _state_preparation(std::complex<T>* state, const std::complex<double>* amplitudes,
                        unsigned int n_qubits, const std::vector<unsigned int>& qubits,
                        int num_threads);

}  // namespace pblinalg::cpu
