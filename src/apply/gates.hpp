// From a gate and its qubits to the state: builds the walk, splits it among the workers and hands
// each block to the serial kernel of the active instruction set.
// The members that call this are in state/*_members.cpp; the arithmetic is in gates/formulas.hpp.
#pragma once

#include <cassert>

#include "core/parallel.hpp"
#include "gates/matrix_formulas.hpp"
#include "kernels/exact_kernels.hpp"

namespace pblinalg::cpu {

/// Applies `Gate` to all groups of `walk`.
template <class Gate, class T>
void update_all_groups(std::complex<T>* amplitudes, const GateWalk& walk, int nthreads,
                       MatrixSpan<T> factors) {
    assert(factors.size() >= Gate::n_factors);
    for_each_block(walk.groups.count, walk.groups.count * Gate::n_rows, nthreads,
                   [&](Index begin, Index end) {
                       dispatch([&]<InstructionSet set>() {
                           update_groups<set, Gate, T>(parts(amplitudes), walk, begin, end,
                                                       parts(factors.data()));
                       });
                   });
}

/// A gate on one target that mixes its two amplitudes.
template <class Gate>
struct Template1QBGate {
    /// @param coefficients  the gate's factors, row-major for a matrix.
    template <class T, class... Coefficients>
    static void apply_controlled(std::complex<T>* amplitudes, unsigned int qubit,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                 Coefficients... coefficients) {
        static_assert(sizeof...(coefficients) == Gate::n_factors);
        const GateWalk walk{{QubitSpan(&qubit, 1), ctrls, nqbits}, {qubit, 0}};
        const std::complex<T> factors[] = {coefficients..., std::complex<T>()};
        update_all_groups<Gate, T>(amplitudes, walk, nthreads, factors);
    }
};

/// A gate on two targets; the first one is the most significant bit of a local index.
template <class Gate>
struct Template2QBGate {
    template <class T>
    static void apply_controlled(std::complex<T>* amplitudes, unsigned int q1, unsigned int q2,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                 MatrixSpan<T> matrix = {}) {
        const unsigned int targets[] = {q1, q2};
        const GateWalk walk{{targets, ctrls, nqbits}, {q1, q2}};
        update_all_groups<Gate, T>(amplitudes, walk, nthreads, matrix);
    }
};

template <class T>
void _Gate1QB<true>::apply_controlled(std::complex<T>* amplitudes, unsigned int qubit,
                                      unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                      const std::complex<T>& m00, const std::complex<T>& m01,
                                      const std::complex<T>& m10, const std::complex<T>& m11) {
    Template1QBGate<_Gate1QB<true>>::apply_controlled(amplitudes, qubit, nqbits, nthreads, ctrls,
                                                      m00, m01, m10, m11);
}

template <class T>
void _Gate2QB<true>::apply_controlled(std::complex<T>* amplitudes, unsigned int q1, unsigned int q2,
                                      unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                      MatrixSpan<T> matrix) {
    Template2QBGate<_Gate2QB<true>>::apply_controlled(amplitudes, q1, q2, nqbits, nthreads, ctrls,
                                                      matrix);
}

/// A constant-factor diagonal gate whose row 0 is 1: Z, S, T.
template <class Gate>
struct TemplatePartialDiagGate {
    template <class T>
    static void apply_controlled(std::complex<T>* amplitudes, unsigned int qubit,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls) {
        _TemplatePartialDiagGate<Gate, true>::apply_controlled(Gate(), amplitudes, qubit, nqbits,
                                                               nthreads, ctrls);
    }
};

template <class Gate, bool constant>
template <class T>
void _TemplatePartialDiagGate<Gate, constant>::apply_controlled(const Gate& gate,
                                                                std::complex<T>* amplitudes,
                                                                unsigned int qubit,
                                                                unsigned long long nqbits,
                                                                int nthreads, QubitSpan ctrls) {
    GateWalk walk{{QubitSpan(), ctrls, nqbits}, {0, 0}};
    if (!walk.groups.require(qubit)) return;
    if constexpr (constant) {
        update_all_groups<Gate, T>(amplitudes, walk, nthreads, {});
    } else {
        update_all_groups<Gate, T>(amplitudes, walk, nthreads, MatrixSpan<T>(&gate.phase, 1));
    }
}

/// A named gate applied as a full diagonal. No other flag exists.
template <class Gate, bool>
struct TemplateNamedDiagGate;
template <class Gate>
struct TemplateNamedDiagGate<Gate, true> {
    template <class T>
    static void apply_controlled(const Gate& gate, std::complex<T>* amplitudes, unsigned int qubit,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls) {
        _DiagGate<true>::apply_controlled<T>(amplitudes, QubitSpan(&qubit, 1), nqbits, nthreads,
                                             ctrls, gate.diagonal);
    }
};

}  // namespace pblinalg::cpu
