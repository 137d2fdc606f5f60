// Runs a circuit in few passes over the state: gates that fit together are applied to one
// cache-sized tile of amplitudes after another. Every amplitude gets the bits that it would get
// from the gates one by one.
#pragma once

#include "core/circuit_operations.hpp"

namespace pblinalg::cpu {

/// Applies `operations` in order to the 2^nqubits amplitudes of a state.
template <class T>
void run_operations(std::complex<T>* amplitudes, unsigned int nqubits,
                    std::vector<Operation<T>> operations, int num_threads);

}  // namespace pblinalg::cpu
