// Every gate with defined bits: the call into the library and the definition.
#pragma once

#include <optional>
#include <string>

#include "apply/gates.hpp"
#include "support/exact_reference.hpp"

namespace pblinalg::test {

using OptionalQubits = std::optional<Qubits>;

template <class T>
using Call = std::function<void(StateVector<T>&, const Qubits& targets, const OptionalQubits&)>;
template <class T>
using Definition =
    std::function<void(Amplitudes<T>&, const Qubits& targets, const Qubits& controls)>;

template <class T>
struct GateCase {
    std::string name;
    unsigned int n_targets;
    bool takes_controls;
    Call<T> apply;
    Definition<T> define;
};

inline Qubits listed(const OptionalQubits& controls) {
    return controls.value_or(Qubits());
}

template <class T>
Definition<T> exactly(Formula<T> formula) {
    return [=](auto& a, auto& t, auto& c) { apply_exactly<T>(a, t, c, formula); };
}
template <class T>
Definition<T> by_row(RowFormula<T> formula) {
    return [=](auto& a, auto& t, auto& c) { apply_diagonal_exactly<T>(a, t, c, formula); };
}

/// The last listed qubit is the target, those before it are controls.
template <class T>
Definition<T> under_the_others(Definition<T> define) {
    return [=](Amplitudes<T>& a, const Qubits& t, const Qubits&) {
        define(a, {t.back()}, Qubits(t.begin(), t.end() - 1));
    };
}

template <class T>
std::vector<GateCase<T>> one_qubit_cases() {
    using S = StateVector<T>;
    using E = Exact<T>;
    const auto member = [](void (S::*apply)(unsigned int, OptionalQubits)) -> Call<T> {
        return [=](S& s, auto& t, auto& c) { (s.*apply)(t[0], c); };
    };
    std::vector<GateCase<T>> cases{
        {"H", 1, true, member(&S::apply_H), exactly<T>(E::h)},
        {"X", 1, true, member(&S::apply_X), exactly<T>(E::x)},
        {"Y", 1, true, member(&S::apply_Y), exactly<T>(E::y)},
        {"Z", 1, true, member(&S::apply_Z), by_row<T>(E::z)},
        {"S", 1, true, member(&S::apply_S), by_row<T>(E::s)},
        {"T", 1, true, member(&S::apply_T), by_row<T>(E::t)},
        {"YtoZ", 1, true, member(&S::apply_YtoZ), exactly<T>(E::y_to_z)},
        {"ZtoY", 1, true, member(&S::apply_ZtoY), exactly<T>(E::z_to_y)},
    };
    for (const T theta : {T(0.7), T(0), T(-4), std::numeric_limits<T>::infinity()}) {
        const auto add = [&](const char* name, void (S::*apply)(unsigned int, T, OptionalQubits),
                             Definition<T> define) {
            const Call<T> call = [=](S& s, auto& t, auto& c) { (s.*apply)(t[0], theta, c); };
            cases.push_back({name, 1, true, call, define});
            cases.back().name += " by " + std::to_string(theta);
        };
        add("PH", &S::apply_PH, by_row<T>(E::ph(theta)));
        add("RX", &S::apply_RX, exactly<T>(E::rx(theta)));
        add("RY", &S::apply_RY, exactly<T>(E::ry(theta)));
        add("RZ", &S::apply_RZ, by_row<T>(E::rz(theta)));
    }
    return cases;
}

template <class T>
std::vector<GateCase<T>> several_qubit_cases() {
    using S = StateVector<T>;
    using E = Exact<T>;
    const auto member = [](void (S::*apply)(unsigned int, unsigned int)) -> Call<T> {
        return [=](S& s, auto& t, auto&) { (s.*apply)(t[0], t[1]); };
    };
    const auto kernel = []<class Gate>(Gate) -> Call<T> {
        return [](S& s, auto& t, auto& c) {
            cpu::Template2QBGate<Gate>::template apply_controlled<T>(
                s.state.get(), t[0], t[1], s.nqubits, s.num_threads, listed(c));
        };
    };
    const Call<T> ccnot = [](S& s, auto& t, auto&) { s.apply_CCNOT(t[0], t[1], t[2]); };
    const auto cnot_bits = under_the_others(exactly<T>(E::x));
    const auto csign_bits = under_the_others(by_row<T>(E::z));

    return {
        {"CNOT", 2, false, member(&S::apply_CNOT), cnot_bits},
        {"CCNOT", 3, false, ccnot, cnot_bits},
        {"CSIGN", 2, false, member(&S::apply_CSIGN), csign_bits},
        {"SWAP", 2, false, member(&S::apply_SWAP), exactly<T>(E::swap)},
        {"SQRTSWAP", 2, false, member(&S::apply_SQRTSWAP), exactly<T>(E::sqrt_swap)},
        {"ISWAP", 2, false, member(&S::apply_ISWAP), exactly<T>(E::iswap)},
        {"controlled SWAP", 2, true, kernel(cpu::GateSWAP()), exactly<T>(E::swap)},
        {"controlled SQRTSWAP", 2, true, kernel(cpu::GateSQRTSWAP()), exactly<T>(E::sqrt_swap)},
        {"controlled ISWAP", 2, true, kernel(cpu::GateISWAP()), exactly<T>(E::iswap)},
        {"HH", 2, true, kernel(cpu::GateHH()), exactly<T>(E::hh)},
        {"ZtoY pair", 2, true, kernel(cpu::GateZtoYZtoYConj()), exactly<T>(E::z_to_y_pair)},
        {"YtoZ pair", 2, true, kernel(cpu::GateYtoZYtoZConj()), exactly<T>(E::y_to_z_pair)},
    };
}

/// Matrices on one and two targets through the matrix members.
template <class T>
std::vector<GateCase<T>> matrix_cases() {
    using S = StateVector<T>;
    std::vector<GateCase<T>> cases;
    for (const unsigned int n_targets : {1u, 2u}) {
        const auto add = [&](const std::string& name, const Amplitudes<T>& m) {
            const Call<T> call = [=](S& s, auto& t, auto& c) {
                if (n_targets == 1 && c) return s.apply_1qbit_ctrl_gate(*c, t[0], m);
                if (n_targets == 1) return s.apply_1qbit_gate(t[0], m);
                if (c) return s.apply_2qbit_ctrl_gate(*c, t[0], t[1], m);
                s.apply_2qbit_gate(t[0], t[1], m);
            };
            cases.push_back({name + " on " + std::to_string(n_targets), n_targets, true, call,
                             [=](auto& a, auto& t, auto& c) { apply_matrix_exactly(a, t, c, m); }});
        };
        const std::size_t entries = std::size_t{1} << 2 * n_targets;
        auto beside = filled<T>(entries, Filling::ordinary, 8);
        for (std::size_t e = 0; e < entries; ++e) {
            if (e % ((1u << n_targets) + 1) != 0) beside[e] = {e % 2 ? -T(0) : T(0), -T(0)};
        }
        add("matrix", filled<T>(entries, Filling::ordinary, 5));
        add("signed zeros", filled<T>(entries, Filling::signed_zeros, 6));
        add("extremes", filled<T>(entries, Filling::extremes, 7));
        add("diagonal with -0 beside it", beside);
        beside[entries - 2] = {0, std::numeric_limits<T>::quiet_NaN()};
        add("diagonal with a NaN beside it", beside);
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
