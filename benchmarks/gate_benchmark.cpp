// Single gates at every position: named gates with and without controls, and matrices. Bytes count
// only the amplitudes that a gate must touch, each read once and written once.
#include <benchmark/benchmark.h>

#include <array>
#include <numbers>
#include <numeric>
#include <optional>

#include "apply/gates.hpp"
#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

using Qubits = std::vector<unsigned int>;

constexpr std::int64_t large = 24;
/// Positions on both sides of what a vector, a cache line, a page and the caches hold.
const std::vector<std::int64_t> sample_positions = {0, 1, 5, 12, 23};
const std::vector<std::int64_t> precise_positions = {0, 12, 23};

std::vector<std::int64_t> all_targets(std::int64_t qubits) {
    std::vector<std::int64_t> targets(static_cast<std::size_t>(qubits));
    std::iota(targets.begin(), targets.end(), 0);
    return targets;
}

unsigned int qubit(const benchmark::State& run, std::size_t argument) {
    return static_cast<unsigned int>(run.range(argument));
}

/// Times `apply` on the shared state, of whose amplitudes it touches one in 2^halvings.
template <class T, class Apply>
void time_gate(benchmark::State& run, std::int64_t threads, unsigned int halvings,
               const Apply& apply) {
    State<T>& state = shared_state<T>(run.range(0), threads);
    for (auto _ : run) {
        apply(state);
        benchmark::ClobberMemory();
    }
    report_amplitudes<T>(run, static_cast<std::int64_t>(state.size >> halvings));
}

// ---- One-qubit gates, with and without controls -------------------------------------------------

template <class T, auto member>
void apply_member(State<T>& state, unsigned int target, std::optional<Qubits> controls) {
    using Member = decltype(member);
    if constexpr (std::is_invocable_v<Member, State<T>&, unsigned int, T, std::optional<Qubits>>) {
        (state.*member)(target, T(0.3), std::move(controls));
    } else {
        (state.*member)(target, std::move(controls));
    }
}

struct NamedBenchmark {
    const char* gate;
    /// The gate alone touches one amplitude in 2^halvings.
    unsigned int halvings;
    void (*plain)(benchmark::State&, unsigned int halvings);
    void (*controlled)(benchmark::State&, unsigned int halvings);
};

/// Arguments: qubits, target, threads.
template <class T, auto member>
void BM_Gate(benchmark::State& run, unsigned int halvings) {
    const unsigned int target = qubit(run, 1);
    time_gate<T>(run, run.range(2), halvings,
                 [=](State<T>& state) { apply_member<T, member>(state, target, std::nullopt); });
}

/// Arguments: qubits, target, lowest control, number of controls, threads.
template <class T, auto member>
void BM_ControlledGate(benchmark::State& run, unsigned int halvings) {
    const unsigned int target = qubit(run, 1);
    Qubits controls;
    for (unsigned int next = qubit(run, 2); controls.size() < qubit(run, 3); ++next) {
        if (next != target) controls.push_back(next);
    }
    time_gate<T>(run, run.range(4), halvings + qubit(run, 3),
                 [&](State<T>& state) { apply_member<T, member>(state, target, controls); });
}

template <class T, auto member>
constexpr NamedBenchmark one_qubit(const char* gate, unsigned int halvings) {
    return {gate, halvings, BM_Gate<T, member>, BM_ControlledGate<T, member>};
}

template <class T>
constexpr NamedBenchmark one_qubit_gates[] = {
    one_qubit<T, &State<T>::apply_H>("GateH", 0),
    one_qubit<T, &State<T>::apply_X>("GateX", 0),
    one_qubit<T, &State<T>::apply_Y>("GateY", 0),
    one_qubit<T, &State<T>::apply_Z>("GateZ", 1),
    one_qubit<T, &State<T>::apply_S>("GateS", 1),
    one_qubit<T, &State<T>::apply_T>("GateT", 1),
    one_qubit<T, &State<T>::apply_PH>("GatePH", 1),
    one_qubit<T, &State<T>::apply_RX>("GateRX", 0),
    one_qubit<T, &State<T>::apply_RY>("GateRY", 0),
    one_qubit<T, &State<T>::apply_RZ>("GateRZ", 0),
    one_qubit<T, &State<T>::apply_YtoZ>("GateYtoZ", 0),
    one_qubit<T, &State<T>::apply_ZtoY>("GateZtoY", 0),
};

template <class T>
void register_one_qubit_gates() {
    for (const NamedBenchmark& named : one_qubit_gates<T>) {
        benchmark::RegisterBenchmark(benchmark_name<T>("BM_Gate", named.gate).c_str(), named.plain,
                                     named.halvings)
            ->ArgNames({"qubits", "target", "threads"})
            ->ArgsProduct({{4}, all_targets(4), {1}})
            ->ArgsProduct({{10}, all_targets(10), {1}})
            ->ArgsProduct({{large}, all_targets(large), thread_counts()})
            ->UseRealTime();
        benchmark::RegisterBenchmark(benchmark_name<T>("BM_ControlledGate", named.gate).c_str(),
                                     named.controlled, named.halvings)
            ->ArgNames({"qubits", "target", "control", "controls", "threads"})
            ->ArgsProduct({{large}, precise_positions, {0, 4, 11, 20}, {1, 2}, thread_counts()})
            ->UseRealTime();
    }
}

// ---- Gates on two and three qubits --------------------------------------------------------------

template <class T, auto member>
void apply_pair(State<T>& state, unsigned int q1, unsigned int q2) {
    (state.*member)(q1, q2);
}

/// The basis changes of density matrices, which are no members of their own.
template <class T, class Gate>
void apply_basis_change(State<T>& state, unsigned int q1, unsigned int q2) {
    cpu::Template2QBGate<Gate>::template apply_controlled<T>(
        state.state.get(), q1, q2, state.nqubits, state.num_threads, cpu::QubitSpan());
}

template <class T>
struct PairGate {
    const char* gate;
    unsigned int halvings;
    void (*apply)(State<T>&, unsigned int, unsigned int);
};

template <class T>
constexpr PairGate<T> pair_gates[] = {
    {"GateCNOT", 1, apply_pair<T, &State<T>::apply_CNOT>},
    {"GateCSIGN", 2, apply_pair<T, &State<T>::apply_CSIGN>},
    {"GateSWAP", 1, apply_pair<T, &State<T>::apply_SWAP>},
    {"GateSQRTSWAP", 1, apply_pair<T, &State<T>::apply_SQRTSWAP>},
    {"GateISWAP", 1, apply_pair<T, &State<T>::apply_ISWAP>},
    {"GateHH", 0, apply_basis_change<T, cpu::GateHH>},
    {"GateZtoYZtoYConj", 0, apply_basis_change<T, cpu::GateZtoYZtoYConj>},
    {"GateYtoZYtoZConj", 0, apply_basis_change<T, cpu::GateYtoZYtoZConj>},
};

/// Arguments: qubits, first and second qubit, threads.
template <class T>
void BM_PairGate(benchmark::State& run, PairGate<T> gate) {
    const unsigned int q1 = qubit(run, 1);
    const unsigned int q2 = qubit(run, 2);
    time_gate<T>(run, run.range(3), gate.halvings,
                 [=](State<T>& state) { gate.apply(state, q1, q2); });
}

/// Arguments: qubits, first control, second control, target, threads.
template <class T>
void BM_CCNOT(benchmark::State& run) {
    time_gate<T>(run, run.range(4), 2, [&](State<T>& state) {
        state.apply_CCNOT(qubit(run, 1), qubit(run, 2), qubit(run, 3));
    });
}

template <class T>
void register_pair_gates() {
    for (const PairGate<T>& gate : pair_gates<T>) {
        const std::string name = benchmark_name<T>("BM_PairGate", gate.gate);
        auto* const registered = benchmark::RegisterBenchmark(name.c_str(), BM_PairGate<T>, gate)
                                     ->ArgNames({"qubits", "q1", "q2", "threads"})
                                     ->UseRealTime();
        for (const std::int64_t threads : thread_counts()) {
            for (const std::int64_t q1 : sample_positions) {
                for (const std::int64_t q2 : sample_positions) {
                    if (q1 != q2) registered->Args({large, q1, q2, threads});
                }
            }
        }
        registered->Args({4, 0, 3, 1})->Args({10, 0, 9, 1});
    }
    auto* const ccnot =
        benchmark::RegisterBenchmark(benchmark_name<T>("BM_Gate", "GateCCNOT").c_str(), BM_CCNOT<T>)
            ->ArgNames({"qubits", "control1", "control2", "target", "threads"})
            ->UseRealTime();
    for (const std::int64_t threads : thread_counts()) {
        ccnot->Args({large, 0, 1, 2, threads})->Args({large, 5, 12, 0, threads});
        ccnot->Args({large, 0, 22, 12, threads})->Args({large, 21, 22, 23, threads});
    }
}

// ---- Matrices -----------------------------------------------------------------------------------

/// The Fourier matrix of `n_targets` qubits: unitary, and no entry is 0.
template <class T>
std::vector<std::complex<T>> fourier_matrix(unsigned int n_targets) {
    const std::size_t size = std::size_t{1} << n_targets;
    std::vector<std::complex<T>> matrix;
    for (std::size_t entry = 0; entry < size * size; ++entry) {
        const std::size_t turn = (entry / size) * (entry % size) % size;
        const double angle = 2 * std::numbers::pi * static_cast<double>(turn) / size;
        matrix.emplace_back(std::polar(1 / std::sqrt(static_cast<double>(size)), angle));
    }
    return matrix;
}

/// Arguments: qubits, lowest target, number of controls, threads. The targets are consecutive, the
/// controls are the next qubits above them, or the lowest ones where none are left above.
template <class T>
void BM_DenseGate(benchmark::State& run, unsigned int n_targets) {
    const unsigned int nqubits = qubit(run, 0);
    Qubits targets(n_targets);
    std::iota(targets.begin(), targets.end(), qubit(run, 1));
    Qubits controls(qubit(run, 2));
    const unsigned int above = targets.back() + 1;
    const bool fits_above = above + controls.size() <= nqubits;
    std::iota(controls.begin(), controls.end(), fits_above ? above : 0u);
    const std::vector<std::complex<T>> matrix = fourier_matrix<T>(n_targets);

    time_gate<T>(run, run.range(3), qubit(run, 2), [&](State<T>& state) {
        if (!controls.empty()) {
            state.apply_nqbit_ctrl_gate(controls, targets, matrix);
        } else if (targets.size() == 1) {
            state.apply_1qbit_gate(targets[0], matrix);
        } else if (targets.size() == 2) {
            state.apply_2qbit_gate(targets[0], targets[1], matrix);
        } else {
            state.apply_nqbit_gate(targets, matrix);
        }
    });
    // A complex product is four real ones.
    const double products =
        4 * std::ldexp(1.0, static_cast<int>(nqubits - qubit(run, 2) + n_targets));
    run.counters["fused_multiply_adds"] =
        benchmark::Counter(products, benchmark::Counter::kIsIterationInvariantRate);
}

template <class T>
void register_dense_gates() {
    for (unsigned int n_targets = 1; n_targets <= 6; ++n_targets) {
        const std::string name = benchmark_name<T>("BM_DenseGate", std::to_string(n_targets));
        auto* const dense =
            benchmark::RegisterBenchmark(name.c_str(), BM_DenseGate<T>, n_targets)
                ->ArgNames({"qubits", "lowest", "controls", "threads"})
                ->ArgsProduct({{large}, {0, 5, 12, large - n_targets}, {0, 1, 2}, thread_counts()})
                ->Args({10, 3, 0, 1})
                ->UseRealTime();
        if (n_targets <= 4) dense->Args({4, 0, 0, 1});
    }
}

template <class T>
bool register_gates() {
    register_one_qubit_gates<T>();
    register_pair_gates<T>();
    register_dense_gates<T>();
    return true;
}

[[maybe_unused]] const bool registered = register_gates<float>() && register_gates<double>();

}  // namespace
}  // namespace pblinalg::benchmarks
