// Read-only views of the amplitude array: as amplitudes, or as the diagonal of a density matrix.
// Every readout is a template over such a view.
#pragma once

#include <complex>
#include <concepts>

#include "core/bits.hpp"
#include "core/complex_math.hpp"

namespace pblinalg::cpu {

template <class Amplitude>
struct SVSequence;

/// All amplitudes; the probability of one is its squared magnitude.
template <class T>
struct SVSequence<std::complex<T>> {
    using element_type = std::complex<T>;
    using proba_type = T;
    static constexpr bool never_negative = true;  ///< probabilities are at least 0, or NaN

    const std::complex<T>* amplitudes;
    unsigned int nqubits;
    unsigned long long size;  ///< 2^nqubits

    element_type operator[](Index k) const { return amplitudes[k]; }
    static proba_type probability_of(element_type element) { return squared_magnitude(element); }
};

/// The real parts of the diagonal of a 2^nqubits x 2^nqubits matrix; they are probabilities.
template <class T>
struct DMDiagSequence {
    using element_type = T;
    using proba_type = T;
    static constexpr bool never_negative = false;

    const std::complex<T>* amplitudes;
    unsigned int nqubits;
    unsigned long long size;  ///< 2^nqubits

    element_type operator[](Index k) const { return amplitudes[k * (size + 1)].real(); }
    static proba_type probability_of(element_type element) { return element; }
};

template <class S>
concept sequence = requires(S view, Index k) {
    typename S::proba_type;
    { view[k] } -> std::same_as<typename S::element_type>;
    { S::probability_of(view[k]) } -> std::same_as<typename S::proba_type>;
};

template <class S, class V>
concept sequence_of = sequence<S> && std::same_as<typename S::element_type, V>;

template <class S, class T>
concept sequence_of_precision = sequence<S> && std::same_as<typename S::proba_type, T>;

/// Views of a state over all its `nqubits`, and over half of them as a matrix.
template <class T>
SVSequence<std::complex<T>> amplitude_view(const std::complex<T>* amplitudes,
                                           unsigned int nqubits) {
    return {amplitudes, nqubits, bit(nqubits)};
}
template <class T>
DMDiagSequence<T> diagonal_view(const std::complex<T>* amplitudes, unsigned int nqubits) {
    return {amplitudes, nqubits / 2, bit(nqubits / 2)};
}

/// Calls `body` with the view that the state's density-matrix flag selects.
template <class State, class Body>
decltype(auto) with_view(const State& state, const Body& body) {
    if (state.density_matrix) return body(diagonal_view(state.state.get(), state.nqubits));
    return body(amplitude_view(state.state.get(), state.nqubits));
}

}  // namespace pblinalg::cpu
