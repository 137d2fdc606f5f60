// Whole circuits through simulate_circuit, from basis state 0. Resetting the state is not timed.
// Gates on small registers, through members, records and lists.
#include <benchmark/benchmark.h>

#include <numbers>
#include <pblinalg/run.hpp>

#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

template <class T>
using Circuit = PybindLinAlgWCircuit<T>;

/// Layers of rotations about varying axes on all qubits, each followed by CNOTs on neighbours.
template <class T>
void add_brickwork(Circuit<T>& circuit, unsigned int layers) {
    static const char* const axes[] = {"RX", "RY", "RZ"};
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < circuit.nqubits; ++q) {
            const double angle = 0.1 * (layer + 1) + 0.01 * q;
            circuit.add_gate(axes[(layer + q) % 3], {static_cast<T>(angle)}, {q});
        }
        for (unsigned int q = layer % 2; q + 1 < circuit.nqubits; q += 2)
            circuit.add_gate("CNOT", {}, {q, q + 1});
    }
}

/// The quantum Fourier transform, its controlled phases built from PH and CNOT.
template <class T>
void add_fourier_transform(Circuit<T>& circuit, unsigned int) {
    const unsigned int n = circuit.nqubits;
    for (unsigned int target = 0; target < n; ++target) {
        circuit.add_gate("H", {}, {target});
        for (unsigned int control = target + 1; control < n; ++control) {
            const T half =
                std::ldexp(std::numbers::pi_v<T> / 2, -static_cast<int>(control - target));
            circuit.add_gate("PH", {half}, {control});
            circuit.add_gate("CNOT", {}, {control, target});
            circuit.add_gate("PH", {-half}, {target});
            circuit.add_gate("CNOT", {}, {control, target});
            circuit.add_gate("PH", {half}, {target});
        }
    }
    for (unsigned int q = 0; q < n / 2; ++q)
        circuit.add_gate("SWAP", {}, {q, n - 1 - q});
}

/// Trotter steps of the Ising chain in a transverse field.
template <class T>
void add_ising(Circuit<T>& circuit, unsigned int steps) {
    for (unsigned int step = 0; step < steps; ++step) {
        for (unsigned int q = 0; q + 1 < circuit.nqubits; ++q) {
            circuit.add_gate("CNOT", {}, {q, q + 1});
            circuit.add_gate("RZ", {T(0.2)}, {q + 1});
            circuit.add_gate("CNOT", {}, {q, q + 1});
        }
        for (unsigned int q = 0; q < circuit.nqubits; ++q)
            circuit.add_gate("RX", {T(0.3)}, {q});
    }
}

/// All qubits 0 or all 1.
template <class T>
void add_ghz(Circuit<T>& circuit, unsigned int) {
    circuit.add_gate("H", {}, {0});
    for (unsigned int q = 0; q + 1 < circuit.nqubits; ++q)
        circuit.add_gate("CNOT", {}, {q, q + 1});
}

/// Arguments: qubits, layers, threads.
template <class T>
void BM_Circuit(benchmark::State& run, void (*add_gates)(Circuit<T>&, unsigned int)) {
    State<T>& state = shared_state<T>(run.range(0), run.range(2));
    Circuit<T> circuit(state.nqubits);
    add_gates(circuit, static_cast<unsigned int>(run.range(1)));
    for (auto _ : run) {
        run.PauseTiming();
        state.reset();
        run.ResumeTiming();
        state.simulate_circuit(circuit);
    }
    run.counters["gates"] = static_cast<double>(circuit.gate_names.size());
}

/// H, RX, RZ and CNOT in turn, each on all qubits.
constexpr unsigned int n_small_gates = 1000;
template <class AddGate>
void for_each_small_gate(unsigned int n, const AddGate& add_gate) {
    for (unsigned int i = 0; i < n_small_gates; ++i)
        add_gate(i / n % 4, i % n, (i + 1) % n, 0.1 + 0.001 * i);
}

/// Times `run_all`, which applies all gates once. Argument: qubits.
template <class T, class RunAll>
void time_small_gates(benchmark::State& run, const RunAll& run_all) {
    State<T>& state = shared_state<T>(run.range(0), 1);
    for (auto _ : run)
        run_all(state);
    run.SetItemsProcessed(run.iterations() * n_small_gates);
}

template <class T>
void BM_SmallMembers(benchmark::State& run) {
    const auto n = static_cast<unsigned int>(run.range(0));
    time_small_gates<T>(run, [&](State<T>& state) {
        for_each_small_gate(n, [&](unsigned int kind, unsigned int q, unsigned int r, double t) {
            switch (kind) {
                case 0:
                    return state.apply_H(q);
                case 1:
                    return state.apply_RX(q, static_cast<T>(t));
                case 2:
                    return state.apply_RZ(q, static_cast<T>(t));
                default:
                    return state.apply_CNOT(q, r);
            }
        });
    });
}

template <class T>
void BM_SmallRecord(benchmark::State& run) {
    static const char* const names[] = {"H", "RX", "RZ", "CNOT"};
    const auto n = static_cast<unsigned int>(run.range(0));
    Circuit<T> circuit(n);
    for_each_small_gate(n, [&](unsigned int kind, unsigned int q, unsigned int r, double t) {
        const bool turns = kind == 1 || kind == 2, pair = kind == 3;
        circuit.add_gate(names[kind], turns ? std::vector{static_cast<T>(t)} : std::vector<T>(),
                         pair ? std::vector{q, r} : std::vector{q});
    });
    time_small_gates<T>(run, [&](State<T>& state) { state.simulate_circuit(circuit); });
}

template <class T>
void BM_SmallList(benchmark::State& run) {
    GateList list;
    for_each_small_gate(static_cast<unsigned int>(run.range(0)),
                        [&](unsigned int kind, unsigned int q, unsigned int r, double t) {
                            if (kind == 3) {
                                list.add(GateKind::X, r, Controls({q}));
                            } else if (kind == 0) {
                                list.add(GateKind::H, q);
                            } else {
                                list.add(kind == 1 ? GateKind::RX : GateKind::RZ, q, t);
                            }
                        });
    time_small_gates<T>(run, [&](State<T>& state) { pblinalg::run(state, list); });
}

template <class T>
bool register_circuits() {
    const auto add = [](const std::string& name, void (*add_gates)(Circuit<T>&, unsigned int),
                        const std::vector<Size>& sizes) {
        set_sizes(benchmark::RegisterBenchmark(benchmark_name<T>("BM_Circuit", name).c_str(),
                                               BM_Circuit<T>, add_gates),
                  sizes);
    };
    add("brickwork", add_brickwork<T>, {{10, 1000}, {16, 200}, {24, 20}, {26, 20}});
    add("qft", add_fourier_transform<T>, {{24, 1}, {26, 1}});
    add("ising", add_ising<T>, {{24, 10}, {26, 10}});
    add("ghz", add_ghz<T>, {{24, 1}, {26, 1}});
    const std::pair<const char*, void (*)(benchmark::State&)> ways[] = {
        {"BM_SmallMembers", BM_SmallMembers<T>},
        {"BM_SmallRecord", BM_SmallRecord<T>},
        {"BM_SmallList", BM_SmallList<T>}};
    for (const auto& [family, function] : ways) {
        benchmark::RegisterBenchmark(benchmark_name<T>(family).c_str(), function)
            ->ArgName("qubits")
            ->Unit(benchmark::kMicrosecond)
            ->Arg(2)
            ->DenseRange(4, 10);
    }
    return true;
}

[[maybe_unused]] const bool registered = register_circuits<float>() && register_circuits<double>();

}  // namespace
}  // namespace pblinalg::benchmarks
