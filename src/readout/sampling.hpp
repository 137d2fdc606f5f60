// Outcomes drawn at random from the probabilities of a view, which stays as it is.
#pragma once

#include "core/state_iterator.hpp"
#include "readout/views.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::QubitSpan;

/// Draws held at once, so that memory does not grow with the number of shots.
inline constexpr unsigned long long max_draws = 1ull << 22;

/// Writes `nshots` outcomes over `qubits`, the first listed one being the most significant bit; an
/// empty list reads all qubits in caller order, likewise qubit 0 first.
///
/// Shot s takes draw s of `rng`, u = draw / 2^64 in the view's precision, and selects the first
/// element at which the running sum of probabilities, added one by one from element 0, is at least
/// u, or the last element if none is. u = 0 deliberately selects index ~0, every bit of which is 1.
/// @param chunk  shots that are answered together; the outcomes do not depend on it.
/// Errors: std::bad_alloc.
template <class RNG, sequence S>
void pick_shots_state(S view, unsigned long long* out, RNG& rng, unsigned long long nshots,
                      int num_threads, QubitSpan qubits, unsigned long long chunk = max_draws);

/// One outcome.
template <class RNG, sequence S>
unsigned long long pick_state(S view, RNG& rng, QubitSpan qubits);

}  // namespace pblinalg::cpu
