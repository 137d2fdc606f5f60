// Pauli terms estimated from shots: rotate into the term's basis, draw outcomes, score their
// parity, rotate back.
#pragma once

#include <algorithm>
#include <complex>
#include <pblinalg/gates.hpp>
#include <pblinalg/observable.hpp>
#include <utility>
#include <vector>

namespace pblinalg::cpu {

/// Drops, from the last "I" to the first, all letters from it on but only the one qubit at it.
/// Deliberate: a term that goes on after an "I" keeps the qubits of the dropped letters, which
/// count for the parity without a rotation.
template <class T>
void clean(SimpleTerm<T>& term);

/// Errors: std::length_error for a term of more than 61 qubits.
template <class T>
void require_estimable(const SimpleTerm<T>& term);

/// Calls `apply(kind, qubit)` for the gates that rotate the qubits of `term` so that its letters
/// are read in the Z basis, or back with `undo`.
template <class T, class Apply>
void for_each_basis_gate(const SimpleTerm<T>& term, bool undo, const Apply& apply) {
    for (std::size_t k = 0; k < std::min(term.qubits.size(), term.paulis.size()); ++k) {
        if (term.paulis[k] == 'X') apply(GateKind::H, term.qubits[k]);
        if (term.paulis[k] == 'Y') apply(undo ? GateKind::ZtoY : GateKind::YtoZ, term.qubits[k]);
    }
}

/// Applies the gates of `for_each_basis_gate`. A qubit without a letter of its own stays as it is.
template <class T>
void basis_change(std::complex<T>* amplitudes, const SimpleTerm<T>& term, bool undo,
                  unsigned int num_qubits, int num_threads);

/// The same on a density matrix, whose column qubit num_qubits/2 above each row qubit turns with
/// the complex conjugate.
template <class T>
void basis_change_deterministic(std::complex<T>* amplitudes, const SimpleTerm<T>& term, bool undo,
                                unsigned int num_qubits, int num_threads);

/// (coefficient * mean, coefficient * standard error) of the parities of `nshots` outcomes.
/// @param buffer  cumulative probabilities; a shot selects the first that is not below its draw.
template <class T, class RNG>
std::pair<std::complex<T>, std::complex<T>> evaluate_term(const std::vector<T>& buffer,
                                                          const std::complex<T>& coefficient,
                                                          unsigned long long nshots, RNG& rng,
                                                          int num_threads);

/// The same for a state that stands in the basis of `term`; `buffer` takes its cumulative
/// distribution, over all `num_qubits` array bits also for a density matrix.
template <class T, class RNG>
std::pair<std::complex<T>, std::complex<T>> evaluate_term(std::complex<T>* amplitudes,
                                                          std::vector<T>& buffer,
                                                          const SimpleTerm<T>& term,
                                                          unsigned long long nshots, RNG& rng,
                                                          unsigned int num_qubits, int num_threads);

/// The estimates of all terms, in order.
/// Errors: std::length_error for a term of more than 61 qubits, before any rotation.
template <class T, class RNG>
std::vector<std::pair<std::complex<T>, std::complex<T>>> _evaluate_terms(
    std::complex<T>* amplitudes, const std::vector<SimpleTerm<T>>& terms, unsigned long long nshots,
    RNG& rng, unsigned int num_qubits, int num_threads, bool density_matrix);

}  // namespace pblinalg::cpu
