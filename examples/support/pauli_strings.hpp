// Pauli strings for the examples: from letters to the masks of an observable.
#pragma once

#include <complex>
#include <pblinalg/observable.hpp>
#include <string>

namespace examples {

/// Adds `coefficient` times a Pauli string to `observable`; letter q, one of I, X, Y and Z, acts on
/// qubit q.
inline void add_pauli_string(pblinalg::WObservable<double>& observable, const std::string& letters,
                             double coefficient) {
    unsigned long long flips = 0;
    unsigned long long signs = 0;
    unsigned int phase_power = 0;
    for (unsigned int q = 0; q < letters.size(); ++q) {
        const unsigned long long qubit = 1ull << q;
        if (letters[q] == 'X' || letters[q] == 'Y') flips |= qubit;
        if (letters[q] == 'Z' || letters[q] == 'Y') signs |= qubit;
        if (letters[q] == 'Y') ++phase_power;  // Y = i X Z
    }
    observable.coefficients.emplace_back(coefficient);
    observable.flip_masks.push_back(flips);
    observable.sign_masks.push_back(signs);
    observable.phase_powers.push_back(phase_power);
}

}  // namespace examples
