// Every gate with defined bits: the call into the library, the definition and the textbook matrix.
#pragma once

#include <optional>
#include <string>

#include "kernels/gate_kernels.hpp"
#include "support/exact_reference.hpp"
#include "support/textbook_reference.hpp"

namespace pblinalg::test {

using OptionalQubits = std::optional<Qubits>;

template <class T>
struct GateCase {
    std::string name;
    unsigned int n_targets;
    bool takes_controls;
    std::function<void(StateVector<T>&, const Qubits& targets, const OptionalQubits& controls)>
        apply;
    std::function<void(Amplitudes<T>&, const Qubits& targets, const Qubits& controls)> define;
    /// Empty where no finite matrix exists.
    LongMatrix textbook;
};

inline Qubits listed(const OptionalQubits& controls) {
    return controls.value_or(Qubits());
}

/// A gate of the inside, or the inside of a gate whose member takes no controls.
template <class Gate, class T>
void apply_pair_kernel(StateVector<T>& s, const Qubits& t, const OptionalQubits& controls) {
    cpu::Template2QBGate<Gate>::template apply_controlled<T>(s.state.get(), t[0], t[1], s.nqubits,
                                                             s.num_threads, listed(controls));
}

template <class T>
std::vector<GateCase<T>> one_qubit_cases() {
    using S = StateVector<T>;
    using E = Exact<T>;
    const auto exactly = [](Formula<T> formula) {
        return [=](Amplitudes<T>& a, const Qubits& t, const Qubits& c) {
            apply_exactly<T>(a, t, c, formula);
        };
    };
    const auto by_row = [](RowFormula<T> formula) {
        return [=](Amplitudes<T>& a, const Qubits& t, const Qubits& c) {
            apply_diagonal_exactly<T>(a, t, c, formula);
        };
    };
    const auto member = [](void (S::*apply)(unsigned int, OptionalQubits)) {
        return [=](S& s, const Qubits& t, const OptionalQubits& c) { (s.*apply)(t[0], c); };
    };
    const LongComplex i(0, 1);
    const long double c = std::sqrt(0.5L);
    std::vector<GateCase<T>> cases{
        {"H", 1, true, member(&S::apply_H), exactly(E::h), {c, c, c, -c}},
        {"X", 1, true, member(&S::apply_X), exactly(E::x), {0, 1, 1, 0}},
        {"Y", 1, true, member(&S::apply_Y), exactly(E::y), {0, -i, i, 0}},
        {"Z", 1, true, member(&S::apply_Z), by_row(E::z), {1, 0, 0, -1}},
        {"S", 1, true, member(&S::apply_S), by_row(E::s), {1, 0, 0, i}},
        {"T", 1, true, member(&S::apply_T), by_row(E::t), {1, 0, 0, c + c * i}},
        {"YtoZ", 1, true, member(&S::apply_YtoZ), exactly(E::y_to_z), {c, -c * i, c, c * i}},
        {"ZtoY", 1, true, member(&S::apply_ZtoY), exactly(E::z_to_y), {c, c, c * i, -c * i}},
    };
    for (const T theta : {T(0.7), T(0), T(-4), std::numeric_limits<T>::infinity()}) {
        const auto rotation = [=](void (S::*apply)(unsigned int, T, OptionalQubits)) {
            return
                [=](S& s, const Qubits& t, const OptionalQubits& c) { (s.*apply)(t[0], theta, c); };
        };
        const long double co = std::cos(theta / 2.0L), s = std::sin(theta / 2.0L);
        const std::string angle = std::to_string(theta);
        cases.insert(cases.end(), {{"PH " + angle,
                                    1,
                                    true,
                                    rotation(&S::apply_PH),
                                    by_row(E::ph(theta)),
                                    {1, 0, 0, std::exp(i * static_cast<long double>(theta))}},
                                   {"RX " + angle,
                                    1,
                                    true,
                                    rotation(&S::apply_RX),
                                    exactly(E::rx(theta)),
                                    {co, -i * s, -i * s, co}},
                                   {"RY " + angle,
                                    1,
                                    true,
                                    rotation(&S::apply_RY),
                                    exactly(E::ry(theta)),
                                    {co, -s, s, co}},
                                   {"RZ " + angle,
                                    1,
                                    true,
                                    rotation(&S::apply_RZ),
                                    by_row(E::rz(theta)),
                                    {co - i * s, 0, 0, co + i * s}}});
        if (!std::isfinite(theta)) {
            for (std::size_t last = 1; last <= 4; ++last)
                cases[cases.size() - last].textbook.clear();
        }
    }
    return cases;
}

template <class T>
std::vector<GateCase<T>> several_qubit_cases() {
    using S = StateVector<T>;
    using E = Exact<T>;
    using A = Amplitudes<T>;
    const LongComplex i(0, 1);
    const long double c = std::sqrt(0.5L);
    const LongMatrix h{c, c, c, -c}, y_to_z{c, -c * i, c, c * i}, z_to_y{c, c, c * i, -c * i};
    const LongMatrix y_to_z_conj{c, c * i, c, -c * i}, z_to_y_conj{c, c, -c * i, c * i};
    const LongComplex p(0.5, 0.5), m(0.5, -0.5);
    LongMatrix toffoli(64);
    for (std::size_t r = 0; r < 8; ++r)
        toffoli[8 * r + (r < 6 ? r : 13 - r)] = 1;

    const auto pair = [](std::string name, auto member, auto kernel, Formula<T> formula,
                         LongMatrix textbook) {
        return GateCase<T>{
            name,
            2,
            true,
            [=](S& s, const Qubits& t, const OptionalQubits& c) {
                if (c) return kernel(s, t, c);
                member(s, t, c);
            },
            [=](A& a, const Qubits& t, const Qubits& c) { apply_exactly<T>(a, t, c, formula); },
            textbook};
    };
    const auto named = [](void (S::*apply)(unsigned int, unsigned int)) {
        return [=](S& s, const Qubits& t, const OptionalQubits&) { (s.*apply)(t[0], t[1]); };
    };
    const auto hh = apply_pair_kernel<cpu::GateHH, T>;
    const auto z_to_y_pair = apply_pair_kernel<cpu::GateZtoYZtoYConj, T>;
    const auto y_to_z_pair = apply_pair_kernel<cpu::GateYtoZYtoZConj, T>;
    return {
        {"CNOT",
         2,
         false,
         [](S& s, const Qubits& t, const OptionalQubits&) { s.apply_CNOT(t[0], t[1]); },
         [](A& a, const Qubits& t, const Qubits&) { apply_exactly<T>(a, {t[1]}, {t[0]}, E::x); },
         {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0, 1, 0}},
        {"CSIGN",
         2,
         false,
         [](S& s, const Qubits& t, const OptionalQubits&) { s.apply_CSIGN(t[0], t[1]); },
         [](A& a, const Qubits& t, const Qubits&) {
             apply_diagonal_exactly<T>(a, {t[1]}, {t[0]}, E::z);
         },
         {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0, -1}},
        {"CCNOT", 3, false,
         [](S& s, const Qubits& t, const OptionalQubits&) { s.apply_CCNOT(t[0], t[1], t[2]); },
         [](A& a, const Qubits& t, const Qubits&) {
             apply_exactly<T>(a, {t[2]}, {t[0], t[1]}, E::x);
         },
         toffoli},
        pair("SWAP", named(&S::apply_SWAP), apply_pair_kernel<cpu::GateSWAP, T>, E::swap,
             {1, 0, 0, 0, 0, 0, 1, 0, 0, 1, 0, 0, 0, 0, 0, 1}),
        pair("SQRTSWAP", named(&S::apply_SQRTSWAP), apply_pair_kernel<cpu::GateSQRTSWAP, T>,
             E::sqrt_swap, {1, 0, 0, 0, 0, p, m, 0, 0, m, p, 0, 0, 0, 0, 1}),
        pair("ISWAP", named(&S::apply_ISWAP), apply_pair_kernel<cpu::GateISWAP, T>, E::iswap,
             {1, 0, 0, 0, 0, 0, i, 0, 0, i, 0, 0, 0, 0, 0, 1}),
        pair("HH", hh, hh, E::hh, kronecker(h, h)),
        pair("ZtoYZtoYConj", z_to_y_pair, z_to_y_pair, E::z_to_y_pair,
             kronecker(z_to_y, z_to_y_conj)),
        pair("YtoZYtoZConj", y_to_z_pair, y_to_z_pair, E::y_to_z_pair,
             kronecker(y_to_z, y_to_z_conj)),
    };
}

/// Dense and diagonal matrices on one and two targets through the matrix members.
template <class T>
std::vector<GateCase<T>> matrix_cases() {
    using S = StateVector<T>;
    const T nan = std::numeric_limits<T>::quiet_NaN();
    std::vector<GateCase<T>> cases;
    const auto add = [&](const std::string& name, const Amplitudes<T>& m) {
        const unsigned int n_targets = m.size() == 4 ? 1 : 2;
        const bool finite =
            std::all_of(m.begin(), m.end(), [](auto e) { return std::isfinite(std::abs(e)); });
        cases.push_back({"matrix " + name, n_targets, true,
                         [=](S& s, const Qubits& t, const OptionalQubits& c) {
                             if (c && n_targets == 1) return s.apply_1qbit_ctrl_gate(*c, t[0], m);
                             if (c) return s.apply_2qbit_ctrl_gate(*c, t[0], t[1], m);
                             if (n_targets == 1) return s.apply_1qbit_gate(t[0], m);
                             s.apply_2qbit_gate(t[0], t[1], m);
                         },
                         [=](Amplitudes<T>& a, const Qubits& t, const Qubits& c) {
                             apply_matrix_exactly<T>(a, t, c, m);
                         },
                         finite ? LongMatrix(m.begin(), m.end()) : LongMatrix()});
    };
    for (const std::size_t entries : {4, 16}) {
        const std::size_t rows = entries == 4 ? 2 : 4;
        const std::string on = entries == 4 ? " on 1" : " on 2";
        add("ordinary" + on, filled<T>(entries, Filling::ordinary, 5));
        add("signed zeros" + on, filled<T>(entries, Filling::signed_zeros, 6));
        add("extremes" + on, filled<T>(entries, Filling::extremes, 7));
        Amplitudes<T> diagonal = filled<T>(entries, Filling::ordinary, 8);
        for (std::size_t e = 0; e < entries; ++e) {
            if (e % (rows + 1) != 0) diagonal[e] = {e % 2 ? -T(0) : T(0), -T(0)};
        }
        add("diagonal with -0 beside it" + on, diagonal);
        diagonal[entries - 2] = {0, nan};
        add("diagonal with a NaN beside it" + on, diagonal);
    }
    return cases;
}

template <class T>
std::vector<GateCase<T>> all_gate_cases() {
    std::vector<GateCase<T>> cases = one_qubit_cases<T>();
    for (const auto& more : {several_qubit_cases<T>(), matrix_cases<T>()})
        cases.insert(cases.end(), more.begin(), more.end());
    return cases;
}

}  // namespace pblinalg::test
