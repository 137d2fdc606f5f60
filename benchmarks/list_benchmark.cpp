// Gate lists of all kinds of gates, from basis state 0 or a random state. Beside each run four RX
// on qubit 3 are timed; the counter `passes` is the run's time in those, one read and write of the
// state each. Planning alone.
#include <benchmark/benchmark.h>

#include <chrono>
#include <limits>
#include <numbers>
#include <pblinalg/run.hpp>
#include <random>

#include "circuits/plan.hpp"
#include "circuits/simplify.hpp"
#include "gate_lists.hpp"
#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

template <class T>
double fastest_pass(State<T>& state) {
    using Clock = std::chrono::steady_clock;
    double fastest = std::numeric_limits<double>::max();
    for (int i = 0; i < 4; ++i) {
        const auto begin = Clock::now();
        state.apply_RX(3, T(0.5));
        fastest = std::min(fastest, std::chrono::duration<double>(Clock::now() - begin).count());
    }
    return fastest;
}

GateList list_of(const benchmark::State& run, AddLayers add_layers) {
    GateList list;
    Source source;
    add_layers(list, static_cast<unsigned int>(run.range(0)),
               static_cast<unsigned int>(run.range(1)), source);
    return list;
}

enum class Start { basis_state, random_state };

template <class T>
void fill_at_random(State<T>& state) {
    std::mt19937_64 generator(1);
    std::uniform_real_distribution<T> part(-1, 1);
    const T scale = std::sqrt(T(1.5) / static_cast<T>(state.size));
    for (unsigned long long i = 0; i < state.size; ++i)
        state.state[i] = {scale * part(generator), scale * part(generator)};
}

/// Arguments: qubits, layers, threads.
template <class T, Accuracy accuracy, Start start = Start::basis_state>
void BM_List(benchmark::State& run, AddLayers add_layers) {
    State<T>& state = shared_state<T>(run.range(0), run.range(2));
    const GateList list = list_of(run, add_layers);
    const RunOptions options{.accuracy = accuracy};
    double pass = 0, whole = 0;
    // Each run goes on from what the one before has left.
    if (start == Start::random_state) fill_at_random(state);
    for (auto _ : run) {
        run.PauseTiming();
        pass += fastest_pass(state);
        if (start == Start::basis_state) state.reset();
        run.ResumeTiming();
        const auto begin = std::chrono::steady_clock::now();
        pblinalg::run(state, list, {}, options);
        whole += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
    run.counters["gates"] = static_cast<double>(list.size());
    run.counters["passes"] = whole / pass;
    run.counters["pass_ms"] = 1e3 * pass / static_cast<double>(run.iterations());
}

/// What a run does once per list, size of state and accuracy. On one worker, whatever `threads`.
template <class T, Accuracy accuracy>
void BM_Planning(benchmark::State& run, AddLayers add_layers) {
    const auto n = static_cast<unsigned int>(run.range(0));
    const GateList list = list_of(run, add_layers);
    const cpu::PlanShape shape = cpu::plan_shape<T>(n, static_cast<int>(run.range(2)), accuracy);
    for (auto _ : run) {
        cpu::Program<T> program = cpu::lowered<T>(list, n);
        if (accuracy == Accuracy::rounding) cpu::simplify(program);
        const cpu::Plan<T> plan(std::move(program), shape);
        benchmark::DoNotOptimize(plan.program().operations.data());
    }
    run.SetItemsProcessed(run.iterations() * static_cast<std::int64_t>(list.size()));
}

/// The same gates, each in a list of its own: what they cost without planning together.
template <class T>
void BM_GateByGate(benchmark::State& run, AddLayers add_layers) {
    State<T>& state = shared_state<T>(run.range(0), run.range(2));
    const GateList list = list_of(run, add_layers);
    std::vector<GateList> gates(list.size());
    for (std::size_t i = 0; i < gates.size(); ++i)
        gates[i].append(list[i]);
    for (auto _ : run) {
        for (const GateList& gate : gates)
            pblinalg::run(state, gate);
    }
}

/// Building: 10,000 rotations appended one by one.
void BM_ListBuilding(benchmark::State& run) {
    constexpr unsigned int n_gates = 10000;
    for (auto _ : run) {
        GateList list;
        for (unsigned int i = 0; i < n_gates; ++i)
            list.add(GateKind::RX, i % 10, 0.1 * i);
        benchmark::DoNotOptimize(list.size());
    }
    run.SetItemsProcessed(run.iterations() * n_gates);
}
BENCHMARK(BM_ListBuilding)->Unit(benchmark::kMicrosecond);

template <class T>
bool register_lists() {
    const auto add = [](const std::string& name, AddLayers add_layers,
                        const std::vector<Size>& sizes) {
        const std::pair<const char*, void (*)(benchmark::State&, AddLayers)> ways[] = {
            {"BM_List", BM_List<T, Accuracy::exact>},
            {"BM_ListByRounding", BM_List<T, Accuracy::rounding>},
            {"BM_ListByRoundingFromRandom", BM_List<T, Accuracy::rounding, Start::random_state>},
            {"BM_Planning", BM_Planning<T, Accuracy::exact>},
            {"BM_PlanningByRounding", BM_Planning<T, Accuracy::rounding>},
            {"BM_GateByGate", BM_GateByGate<T>}};
        for (const auto& [family, function] : ways) {
            set_sizes(benchmark::RegisterBenchmark(benchmark_name<T>(family, name).c_str(),
                                                   function, add_layers),
                      sizes);
        }
    };
    add("u3_cx", add_u3_cx, {{20, 20}, {24, 20}});
    add("pair_rotations", add_pair_rotations, {{20, 10}});
    add("qft_cp", add_qft, {{20, 1}, {24, 1}});
    add("ansatz", add_ansatz, {{20, 10}});
    add("quantum_volume", add_quantum_volume, {{24, 10}});
    add("brickwork", add_brickwork, {{10, 1000}, {20, 20}, {24, 20}, {26, 20}});
    add("ising", add_ising, {{24, 10}});
    add("toffoli_h", add_toffoli_h, {{20, 10}});
    return true;
}

[[maybe_unused]] const bool registered = register_lists<float>() && register_lists<double>();

}  // namespace
}  // namespace pblinalg::benchmarks
