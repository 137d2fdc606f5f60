// Loading classical tables into a data register, row by row of an address register.
// The last `data_width` listed qubits are the data register, those before it the address; in both
// the first listed qubit is the least significant bit, opposite to a gate matrix.
#pragma once

#include <complex>
#include <vector>

namespace pblinalg::cpu {

/// Moves the amplitude of each address a from data value 0 to data value words[a].
/// @param words  2^A words for A address qubits; only the low `data_width` bits count.
/// Errors: std::bad_alloc before any amplitude changes.
template <class T>
void _binary_qram(std::complex<T>* state, const unsigned long long* words, unsigned int n_qubits,
                  const std::vector<unsigned int>& qubits, const unsigned int& data_width,
                  int num_threads);

/// Spreads the amplitude of each address over the data values, in proportion to a row of real
/// numbers and normalised by it; a row whose squares are all 0 in T is not normalised.
/// @param amplitudes  2^A rows of 2^data_width entries, of which the real parts count.
/// Errors: std::bad_alloc before any amplitude changes.
template <class T>
void _qram(std::complex<T>* state, const std::complex<double>* amplitudes, unsigned int n_qubits,
           const std::vector<unsigned int>& qubits, const unsigned int& data_width,
           int num_threads);

}  // namespace pblinalg::cpu
