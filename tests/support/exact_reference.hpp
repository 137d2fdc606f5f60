// What gates do, to the last bit: plain loops that test the bits of every index, and each formula
// spelled out on std::complex in its order of operations. Nothing of the library is used.
// Closeness to the mathematical gates is the business of python/tests/test_gates.py.
#pragma once

#include <functional>

#include "support/states.hpp"

namespace pblinalg::test {

/// Changes the amplitudes a[r] of one group; the first listed target is the highest bit of r.
template <class T>
using Formula = std::function<void(std::complex<T>* a)>;

/// Changes one amplitude, the qubits of which select `row` of a diagonal.
template <class T>
using RowFormula = std::function<void(std::size_t row, std::complex<T>& a)>;

/// True when every control below n is 1 in `index`; the others fix nothing.
inline bool controls_hold(std::size_t index, const Qubits& controls, unsigned int n) {
    for (const unsigned int c : controls) {
        if (c < n && !(index >> c & 1)) return false;
    }
    return true;
}

/// Controls at or above the qubit count still halve the number of groups, lowest bases first.
template <class T>
void apply_exactly(Amplitudes<T>& state, const Qubits& targets, const Qubits& controls,
                   const Formula<T>& formula) {
    const std::size_t k = targets.size();
    std::size_t groups = state.size() >> (k + controls.size());
    std::vector<std::size_t> indices(std::size_t{1} << k);
    Amplitudes<T> group(indices.size());
    for (std::size_t base = 0; groups > 0; ++base) {
        bool is_base = controls_hold(base, controls, qubits_of(state.size()));
        for (const unsigned int target : targets)
            is_base = is_base && !(base >> target & 1);
        if (!is_base) continue;
        --groups;
        for (std::size_t r = 0; r < indices.size(); ++r) {
            indices[r] = base;
            for (std::size_t p = 0; p < k; ++p)
                indices[r] |= (r >> (k - 1 - p) & 1) << targets[p];
            group[r] = state[indices[r]];
        }
        formula(group.data());
        for (std::size_t r = 0; r < indices.size(); ++r)
            state[indices[r]] = group[r];
    }
}

/// The row that `index` selects. A qubit listed twice cancels, and of the rows that then agree the
/// one with the highest pattern, last listed qubit highest, counts.
inline std::size_t diagonal_row(std::size_t index, const Qubits& qubits) {
    const std::size_t k = qubits.size();
    std::size_t mask = 0;
    for (const unsigned int q : qubits)
        mask ^= std::size_t{1} << q;
    for (std::size_t pattern = (std::size_t{1} << k) - 1; pattern > 0; --pattern) {
        std::size_t spread = 0;
        for (std::size_t p = 0; p < k; ++p)
            spread |= (pattern >> p & 1) << qubits[p];
        if ((spread & mask) == (index & mask)) {
            return reversed(pattern, static_cast<unsigned int>(k));
        }
    }
    return 0;
}

template <class T>
void apply_diagonal_exactly(Amplitudes<T>& state, const Qubits& qubits, const Qubits& controls,
                            const RowFormula<T>& formula) {
    std::size_t visits = state.size() >> controls.size();
    for (std::size_t i = 0; visits > 0; ++i) {
        if (!controls_hold(i, controls, qubits_of(state.size()))) continue;
        --visits;
        formula(diagonal_row(i, qubits), state[i]);
    }
}

/// A dense matrix of one or two targets, or a diagonal of any size, as the matrix members see it.
template <class T>
void apply_matrix_exactly(Amplitudes<T>& state, const Qubits& targets, const Qubits& controls,
                          const Amplitudes<T>& m) {
    const std::size_t rows = std::size_t{1} << targets.size();
    bool diagonal = true;
    for (std::size_t i = 0; i < m.size(); ++i) {
        if (i % (rows + 1) != 0) diagonal = diagonal && m[i].real() == 0 && m[i].imag() == 0;
    }
    if (diagonal) {
        apply_diagonal_exactly<T>(
            state, targets, controls,
            [&](std::size_t row, std::complex<T>& a) { a = m[row * (rows + 1)] * a; });
        return;
    }
    ASSERT_LE(rows, 4u) << "the sums of larger matrices have no defined order";
    apply_exactly<T>(state, targets, controls, [&](std::complex<T>* a) {
        const Amplitudes<T> old(a, a + rows);
        for (std::size_t r = 0; r < rows; ++r) {
            a[r] = m[r * rows] * old[0];
            for (std::size_t c = 1; c < rows; ++c)
                a[r] = a[r] + m[r * rows + c] * old[c];
        }
    });
}

/// The formulas of the fixed gates.
template <class T>
struct Exact {
    using C = std::complex<T>;

    static T c() { return T(1) / std::sqrt(T(2)); }
    static C scaled(C a, T by) { return {a.real() * by, a.imag() * by}; }
    static C negated(C a) { return {-a.real(), -a.imag()}; }

    static void h(C* a) {
        const C a0 = a[0], a1 = a[1];
        a[0] = scaled(a0 + a1, c());
        a[1] = scaled(a0 - a1, c());
    }
    static void x(C* a) { std::swap(a[0], a[1]); }
    static void y(C* a) {
        const C a0 = a[0], a1 = a[1];
        a[0] = {a1.imag(), -a1.real()};
        a[1] = {-a0.imag(), a0.real()};
    }
    static Formula<T> rx(T theta) {
        const C stay(std::cos(theta * T(0.5)), 0), flip(0, -std::sin(theta * T(0.5)));
        return [=](C* a) {
            const C a0 = a[0], a1 = a[1];
            a[0] = stay * a0 + flip * a1;
            a[1] = flip * a0 + stay * a1;
        };
    }
    static Formula<T> ry(T theta) {
        const C stay(std::cos(theta * T(0.5)), 0), flip(std::sin(theta * T(0.5)), 0);
        return [=](C* a) {
            const C a0 = a[0], a1 = a[1];
            a[0] = stay * a0 - flip * a1;
            a[1] = flip * a0 + stay * a1;
        };
    }
    static void y_to_z(C* a) {
        const C a0 = a[0], a1 = a[1];
        a[0] = scaled(a0, c()) - a1 * C(0, c());
        a[1] = scaled(a0, c()) + a1 * C(0, c());
    }
    static void z_to_y(C* a) {
        const C a0 = a[0], a1 = a[1];
        a[0] = scaled(a0 + a1, c());
        a[1] = (a0 - a1) * C(0, c());
    }

    static void z(std::size_t row, C& a) { a = row == 1 ? negated(a) : a; }
    static void s(std::size_t row, C& a) { a = row == 1 ? C(0, 1) * a : a; }
    static void t(std::size_t row, C& a) { a = row == 1 ? C(c(), c()) * a : a; }
    static RowFormula<T> ph(T theta) {
        const C phase = std::exp(C(0, 1) * theta);
        return [=](std::size_t row, C& a) { a = row == 1 ? phase * a : a; };
    }
    static RowFormula<T> rz(T theta) {
        const T co = std::cos(theta * T(0.5)), s = std::sin(theta * T(0.5));
        return [=](std::size_t row, C& a) { a = C(co, row == 1 ? s : -s) * a; };
    }

    static void swap(C* a) { std::swap(a[1], a[2]); }
    static void sqrt_swap(C* a) {
        const C a1 = a[1], a2 = a[2], stay(T(0.5), T(0.5)), cross(T(0.5), T(-0.5));
        a[1] = stay * a1 + cross * a2;
        a[2] = cross * a1 + stay * a2;
    }
    static void iswap(C* a) {
        const C a1 = a[1], a2 = a[2];
        a[1] = C(0, 1) * a2;
        a[2] = C(0, 1) * a1;
    }
    static void hh(C* a) {
        const C a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3], half(T(0.5), 0);
        a[0] = (a0 + a1 + a2 + a3) * half;
        a[1] = (a0 - a1 + a2 - a3) * half;
        a[2] = (a0 + a1 - a2 - a3) * half;
        a[3] = (a0 - a1 - a2 + a3) * half;
    }
    static void z_to_y_pair(C* a) {
        const C a0 = a[0], a1 = a[1], a2 = a[2], a3 = a[3], half(T(0.5), 0), half_i(0, T(0.5));
        a[0] = (a0 + a1 + a2 + a3) * half;
        a[1] = (a1 - a0 - a2 + a3) * half_i;
        a[2] = (a0 + a1 - a2 - a3) * half_i;
        a[3] = (a0 - a1 - a2 + a3) * half;
    }
    static void y_to_z_pair(C* a) {
        const C half(T(0.5), 0), half_i(0, T(0.5));
        const C p0 = a[0] * half, p1 = a[1] * half_i, p2 = a[2] * half_i, p3 = a[3] * half;
        a[0] = p0 + p1 - p2 + p3;
        a[1] = p0 - p1 - p2 - p3;
        a[2] = p0 + p1 + p2 - p3;
        a[3] = p0 - p1 + p2 + p3;
    }
};

}  // namespace pblinalg::test
