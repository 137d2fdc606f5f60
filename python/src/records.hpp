// The records as Python holds them. Their setters check what can be checked without a state.
#pragma once

#include <optional>
#include <pblinalg/pblinalg.hpp>
#include <string>

#include "bound_state.hpp"

namespace pblinalg::python {

/// A circuit record in which every gate that the library knows is well formed for `nqubits`.
template <class T>
struct BoundCircuit : PybindLinAlgWCircuit<T>, Shared {
    using PybindLinAlgWCircuit<T>::PybindLinAlgWCircuit;

    /// The first gate that the library does not know.
    std::optional<std::string> unknown;
};

template <class T>
struct BoundObservable : WObservable<T> {};

template <class T>
struct BoundTerm : SimpleTerm<T> {};

/// "Float" or "Double".
template <class T>
inline constexpr const char* precision_suffix = sizeof(T) == sizeof(float) ? "Float" : "Double";

/// Raises ValueError unless the four lists are equally long and the masks stay below 2^qubits.
template <class T>
void check_observable(const WObservable<T>& observable, unsigned int qubits) {
    const std::size_t terms = observable.flip_masks.size();
    if (observable.coefficients.size() != terms || observable.sign_masks.size() != terms ||
        observable.phase_powers.size() != terms) {
        raise(PyExc_ValueError,
              "observable: %zu coefficients, %zu flip_masks, %zu sign_masks and %zu phase_powers; "
              "expected equally many",
              observable.coefficients.size(), terms, observable.sign_masks.size(),
              observable.phase_powers.size());
    }
    for (std::size_t t = 0; t < terms; ++t) {
        if ((observable.flip_masks[t] | observable.sign_masks[t]) >> qubits) {
            raise(
                PyExc_ValueError,
                "observable: term %zu has flip mask %llu and sign mask %llu; expected masks below "
                "2^%u",
                t, observable.flip_masks[t], observable.sign_masks[t], qubits);
        }
    }
}

}  // namespace pblinalg::python
