// Runs a circuit in few passes over the state: gates that fit together are applied to one
// cache-sized tile of amplitudes after another. Every amplitude gets the bits that it would get
// from the gates one by one.
#pragma once

#include <functional>

#include "circuits/operations.hpp"

namespace pblinalg::cpu {

/// Applies gates in order to the 2^nqubits amplitudes of a state, one piece of a circuit after
/// another: each call of `append_piece` appends the gates of the next one to an empty list, none at
/// the end.
template <class T>
void run_operations(std::complex<T>* amplitudes, unsigned int nqubits, int num_threads,
                    const std::function<void(std::vector<Operation<T>>&)>& append_piece);

}  // namespace pblinalg::cpu
