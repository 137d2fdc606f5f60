// A user's program against the installed library: takes the address of every public member in both
// precisions, so that a missing definition fails to link, and runs a Bell state.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <pblinalg/pblinalg.hpp>

namespace {

/// Stores each address where the compiler must really form it.
template <class... Members>
bool all_exist(Members... members) {
    const auto exists = [](auto member) {
        volatile auto kept = member;
        return kept != nullptr;
    };
    return (exists(members) && ...);
}

template <class T>
bool state_vector_members_exist() {
    using Base = pblinalg::PybindLinAlgStateVector;
    using State = pblinalg::cpu::PybindLinAlgStateVectorCPU<T>;
    return all_exist(
        &Base::named_ctrl_gates, &Base::seed, &Base::rng, &Base::resize, &Base::reset,
        &Base::release_memory, &Base::get_named_ctrl_gates, &State::nqubits, &State::size,
        &State::state, &State::density_matrix, &State::num_threads, &State::named_ctrl_gates,
        &State::resize, &State::reset, &State::reset_to_str, &State::release_memory,
        &State::get_named_ctrl_gates, &State::set_num_threads, &State::print, &State::str,
        &State::simulate_circuit, &State::apply_H, &State::apply_X, &State::apply_Y,
        &State::apply_Z, &State::apply_S, &State::apply_T, &State::apply_PH, &State::apply_RX,
        &State::apply_RY, &State::apply_RZ, &State::apply_YtoZ, &State::apply_ZtoY,
        &State::apply_CNOT, &State::apply_CCNOT, &State::apply_CSIGN, &State::apply_SWAP,
        &State::apply_SQRTSWAP, &State::apply_ISWAP, &State::apply_1qbit_gate,
        &State::apply_2qbit_gate, &State::apply_nqbit_gate, &State::apply_1qbit_ctrl_gate,
        &State::apply_2qbit_ctrl_gate, &State::apply_nqbit_ctrl_gate, &State::project,
        &State::project_then_reset, &State::get_permuted_statevector,
        &State::get_permuted_density_matrix, &State::get_permuted_density_diag,
        &State::get_mapped_statevector, &State::get_mapped_density_diag, &State::probability,
        &State::get_distribution, &State::get_mapped_distribution, &State::sample,
        &State::sample_subset, &State::measure, &State::expectation_value,
        &State::terms_expectations_values, &State::evaluate_terms, &State::apply_state_preparation,
        &State::apply_phase_oracle, &State::apply_binary_qram, &State::apply_qram,
        &pblinalg::cpu::contains_no_first_qubits<std::complex<T>>);
}

template <class T>
bool record_members_exist() {
    using Circuit = pblinalg::PybindLinAlgWCircuit<T>;
    using Observable = pblinalg::WObservable<T>;
    using Term = pblinalg::SimpleTerm<T>;
    return all_exist(&Circuit::nqubits, &Circuit::gate_names, &Circuit::gate_qubits,
                     &Circuit::gate_params, &Circuit::add_gate, &Circuit::reset,
                     &Observable::coefficients, &Observable::flip_masks, &Observable::sign_masks,
                     &Observable::phase_powers, &Observable::constant, &Observable::trailing_word,
                     &Term::qubits, &Term::paulis, &Term::coefficient);
}

template <class T>
bool makes_bell_state() {
    pblinalg::PybindLinAlgWCircuit<T> circuit(2);
    circuit.add_gate("H", {}, {0});
    circuit.add_gate("CNOT", {}, {0, 1});
    pblinalg::cpu::PybindLinAlgStateVectorCPU<T> state(1);
    pblinalg::PybindLinAlgStateVector& base = state;
    base.resize(2);
    base.reset();
    state.simulate_circuit(circuit);
    const std::unique_ptr<std::map<unsigned long long, std::complex<T>>> kept(
        state.get_mapped_statevector(T(0)));
    const T amplitude = T(1) / std::sqrt(T(2));
    return *kept == std::map<unsigned long long, std::complex<T>>{{0, amplitude}, {3, amplitude}};
}

/// The derivative of <ZZ>, which is constant, and the overlap with the state itself.
template <class T>
bool differentiates(const pblinalg::cpu::PybindLinAlgStateVectorCPU<T>& zero,
                    const pblinalg::GateList& list) {
    using namespace pblinalg;
    const WObservable<T> observable{{T(1)}, {0}, {3}, {0}, T(0), 0};
    cpu::PybindLinAlgStateVectorCPU<T> state(2);
    state.reset();
    const std::vector<double> values{0.25};
    const Gradient of_value = value_and_gradient<T>(state, list, std::span(&observable, 1), values);
    state.reset();
    const Gradient of_overlap = overlap_and_gradient<T>(state, list, zero, values);
    return std::abs(of_value.values[0] - 1) < 1e-6 && std::abs(of_value.jacobian[0]) < 1e-6 &&
           std::abs(of_overlap.values[0] - 0.5) < 1e-6;
}

/// A parametrised list, stopped between passes and run again.
template <class T>
bool runs_a_list() {
    using namespace pblinalg;
    GateList list;
    list.add(GateKind::H, 0).add(GateKind::X, 1, Controls({0}));
    list.add(GateKind::RXX, {0, 1}, Angle::of_parameter(0));
    GateList both(list);
    both.append(list.inverse());
    cpu::PybindLinAlgStateVectorCPU<T> state(2);
    state.reset();
    const RunReport report = run(state, both, std::vector{0.25});
    return report.finished() && report.gates_done == both.size() && both.n_parameters() == 1 &&
           differentiates(state, list) && list.conjugate() != list &&
           info(GateKind::RXX).name == "RXX" &&
           std::abs(state.state[0] - std::complex<T>(1)) < T(1e-6);
}

/// Two rows of a list, and the reduced state of one of its qubits.
template <class T>
bool sweeps_and_reduces() {
    using namespace pblinalg;
    GateList list;
    list.add(GateKind::RX, 0, Angle::of_parameter(0)).add(GateKind::X, 1, Controls({0}));
    const std::vector<double> values{0, 3.14159265358979};
    std::vector<T> probabilities(4);
    SweepOutput<T> output;
    output.qubits = {1};
    output.probabilities = probabilities.data();
    std::vector<std::complex<double>> reduced(4);
    const auto job = [&](const BatchJob<T>& job) {
        reduced_density_matrix(job.state, {1}, reduced.data());
    };
    return run_sweep<T>(2, list, {values, 2}, output).finished() &&
           run_batch<T>(2, 1, job).jobs_done == 1 && seed_of_job(1, 0) != seed_of_job(1, 1) &&
           probabilities[0] == 1 && probabilities[3] > T(0.999) && reduced[0] == 1.0;
}

template <class T>
bool all_hold() {
    return state_vector_members_exist<T>() && record_members_exist<T>() && makes_bell_state<T>() &&
           runs_a_list<T>() && sweeps_and_reduces<T>();
}

bool check(bool holds, const char* claim) {
    if (!holds) std::printf("failed: %s\n", claim);
    return holds;
}

}  // namespace

int main() {
    bool passed = check(all_exist(&pblinalg::get_num_threads), "get_num_threads exists");
    passed &=
        check(std::strcmp(pblinalg::version(), PBLINALG_VERSION) == 0, "version of the headers");
    passed &= check(all_hold<float>(), "members, Bell state, gate list and sweep in float");
    passed &= check(all_hold<double>(), "members, Bell state, gate list and sweep in double");
    return passed ? 0 : 1;
}
