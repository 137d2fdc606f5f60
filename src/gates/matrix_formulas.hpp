// The general gates and the diagonal kernels. `_Gate1QB`, `_Gate2QB`, `_DiagGate` and
// `_TemplatePartialDiagGate` carry reserved names (underscore and capital) that binding layers know
// them by; this header is the only place that declares such names.
// Each struct's `true` flag selects the one form that exists.
#pragma once

#include <span>

#include "core/state_iterator.hpp"
#include "gates/formulas.hpp"

namespace pblinalg::cpu {

using orb::core::iterator::QubitSpan;

template <class T>
using MatrixSpan = std::span<const std::complex<T>>;

/// Any 2x2 matrix, row-major: [[f0, f1], [f2, f3]].
template <bool>
struct _Gate1QB;
template <>
struct _Gate1QB<true> : GateShape<1, 4, true> {
    template <class V>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const typename V::Factor* f) {
        const V a0 = a[0];
        const V a1 = a[1];
        a[0] = cmul(f[0], a0) + cmul(f[1], a1);
        a[1] = cmul(f[2], a0) + cmul(f[3], a1);
    }

    template <class T>
    static void apply_controlled(std::complex<T>* amplitudes, unsigned int qubit,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                 const std::complex<T>& m00, const std::complex<T>& m01,
                                 const std::complex<T>& m10, const std::complex<T>& m11);
};

/// Any 4x4 matrix, row-major; each row is summed from its first column to its last.
template <bool>
struct _Gate2QB;
template <>
struct _Gate2QB<true> : GateShape<2, 16, true> {
    /// @param f  indexed like an array of factors.
    template <class V, class Factors>
    PBLINALG_ALWAYS_INLINE static void update(V* a, const Factors& f) {
        const V a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3];
        for (int r = 0; r < 4; ++r) {
            a[r] = cmul(f[4 * r], a0) + cmul(f[4 * r + 1], a1) + cmul(f[4 * r + 2], a2) +
                   cmul(f[4 * r + 3], a3);
        }
    }

    template <class T>
    static void apply_controlled(std::complex<T>* amplitudes, unsigned int q1, unsigned int q2,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                 MatrixSpan<T> matrix);
};

/// Multiplies the amplitudes whose target bit is 1. `constant` is true for gates without a
/// coefficient of their own.
template <class Gate, bool constant>
struct _TemplatePartialDiagGate {
    template <class T>
    static void apply_controlled(const Gate& gate, std::complex<T>* amplitudes, unsigned int qubit,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls);
};

/// Multiplies every amplitude by the diagonal entry that its target bits select.
///
/// `diag` has 2^k entries for k targets, the first listed one being the most significant bit of an
/// entry's number; missing ones count as 0. A qubit listed twice cancels: neither copy selects.
template <bool>
struct _DiagGate;
template <>
struct _DiagGate<true> {
    /// Errors: std::runtime_error for more than 256 entries, before any amplitude changes.
    template <class T>
    static void apply(std::complex<T>* amplitudes, QubitSpan qubits, unsigned long long nqbits,
                      int nthreads, MatrixSpan<T> diag);
    /// Takes a diagonal of any size.
    template <class T>
    static void apply_controlled(std::complex<T>* amplitudes, QubitSpan qubits,
                                 unsigned long long nqbits, int nthreads, QubitSpan ctrls,
                                 MatrixSpan<T> diag);
};

}  // namespace pblinalg::cpu
