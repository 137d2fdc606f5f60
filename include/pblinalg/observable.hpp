// The records that describe observables: Pauli sums compiled to bit masks, and single Pauli terms
// given by letters.
#pragma once

#include <complex>
#include <string>
#include <vector>

namespace pblinalg {

/// A weighted sum of Pauli strings plus a constant, for exact expectation values.
///
/// Term t maps basis state |i> to i^phase_powers[t] * (-1)^popcount(sign_masks[t] & i) times
/// |i XOR flip_masks[t]>. The four lists have one entry per term. Bit q of a mask is qubit q.
template <class T>
struct WObservable {
    /// Weight of each term.
    std::vector<std::complex<T>> coefficients;
    /// Bits of the qubits that carry X or Y.
    std::vector<unsigned long long> flip_masks;
    /// Bits of the qubits that carry Z or Y.
    std::vector<unsigned long long> sign_masks;
    /// Power of the imaginary unit, taken modulo 4; a Y contributes one, since Y = iXZ.
    std::vector<unsigned int> phase_powers;
    /// Coefficient of the identity.
    std::complex<T> constant;
    /// Copied with the record; nothing reads it.
    unsigned long long trailing_word;
};

/// One weighted Pauli string, for estimates from shots.
template <class T>
struct SimpleTerm {
    /// Qubits that the term acts on; qubit q is bit q of a basis-state index.
    std::vector<unsigned int> qubits;
    /// One letter "X", "Y", "Z" or "I" per listed qubit, in the same order.
    std::string paulis;
    /// Weight of the term.
    std::complex<T> coefficient;
};

}  // namespace pblinalg
