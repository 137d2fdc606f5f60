// Derivatives of expectation values with respect to the parameters of a gate list.
#pragma once

#include <pblinalg/gate_list.hpp>
#include <pblinalg/observable.hpp>
#include <pblinalg/run.hpp>
#include <pblinalg/state_vector_cpu.hpp>
#include <span>
#include <vector>

namespace pblinalg {

/// Values and their derivatives.
struct Gradient {
    std::vector<double> values;  ///< one per observable
    /// Row-major, one row per observable and one column per parameter of the list, in units of the
    /// observable per unit of the parameter.
    std::vector<double> jacobian;
    bool stopped = false;  ///< by `between_passes`: nothing else is filled in then
};

/// The expectation values of Pauli sums after a list, and their derivatives by all parameters.
///
/// The list runs forward once. For each observable, the state and the observable applied to it then
/// run backward together, through the same tiles of the cache, and every derivative is an inner
/// product taken on the way, in double. So the cost hardly depends on the number of parameters:
/// three to five runs of the list for each observable. Runs are by rounding; the results are the
/// same bits for every number of workers. Both plans are kept with the list.
///
/// @param state  what the list acts on, a pure state of any norm; `num_threads` is its worker
///               count. It serves as memory: the amplitudes that it has afterwards are not defined.
///               Beside it one state is allocated, and one more for several observables.
/// @param list   matrices and diagonals in it are unitary; for others derivatives are not defined.
/// @param observables  real parts of coefficients and constants count.
/// @param values  one per parameter of the list, in radians where they are angles.
/// @param options  `between_passes` counts the gates of the forward and of each backward run;
///                 `accuracy` is not read.
/// Errors: std::bad_alloc; what `between_passes` throws.
template <class T>
PBLINALG_EXPORT Gradient value_and_gradient(cpu::PybindLinAlgStateVectorCPU<T>& state,
                                            const GateList& list,
                                            std::span<const WObservable<T>> observables,
                                            std::span<const double> values = {},
                                            const RunOptions& options = {});

/// The same for the squared magnitude of the overlap with a state, |<target|state>|^2, in place of
/// an expectation value: one value, one row.
/// @param target  of as many qubits as `state`.
template <class T>
PBLINALG_EXPORT Gradient overlap_and_gradient(cpu::PybindLinAlgStateVectorCPU<T>& state,
                                              const GateList& list,
                                              const cpu::PybindLinAlgStateVectorCPU<T>& target,
                                              std::span<const double> values = {},
                                              const RunOptions& options = {});

#define PBLINALG_DECLARE(T)                                                                    \
    extern template PBLINALG_EXPORT Gradient value_and_gradient<T>(                            \
        cpu::PybindLinAlgStateVectorCPU<T>&, const GateList&, std::span<const WObservable<T>>, \
        std::span<const double>, const RunOptions&);                                           \
    extern template PBLINALG_EXPORT Gradient overlap_and_gradient<T>(                          \
        cpu::PybindLinAlgStateVectorCPU<T>&, const GateList&,                                  \
        const cpu::PybindLinAlgStateVectorCPU<T>&, std::span<const double>, const RunOptions&);
PBLINALG_DECLARE(float)
PBLINALG_DECLARE(double)
#undef PBLINALG_DECLARE

}  // namespace pblinalg
