// Gate lists of all kinds of gates, from basis state 0. Beside each run four RX on qubit 3 are
// timed; the counter `passes` is the run's time in those, one read and write of the state each.
#include <benchmark/benchmark.h>

#include <chrono>
#include <limits>
#include <numbers>
#include <pblinalg/run.hpp>
#include <random>

#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

/// Random angles and qubits, the same in every run.
class Source {
  public:
    double angle() { return std::uniform_real_distribution<double>(0, 6.28)(generator_); }
    unsigned int below(unsigned int n) { return static_cast<unsigned int>(generator_() % n); }
    double normal() { return std::normal_distribution<double>()(generator_); }
    /// Two different ones.
    std::pair<unsigned int, unsigned int> qubits(unsigned int n) {
        const unsigned int a = below(n);
        return {a, (a + 1 + below(n - 1)) % n};
    }

  private:
    std::mt19937_64 generator_{1};
};

using AddLayers = void (*)(GateList& list, unsigned int n, unsigned int layers, Source& source);

void add_u3_cx(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::U, q,
                     std::vector<Angle>{source.angle(), source.angle(), source.angle()});
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::X, q + 1, Controls({q}));
    }
}

void add_brickwork(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    static constexpr GateKind axes[] = {GateKind::RX, GateKind::RY, GateKind::RZ};
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(axes[(layer + q) % 3], q, source.angle());
        for (unsigned int q = layer % 2; q + 1 < n; q += 2)
            list.add(GateKind::X, q + 1, Controls({q}));
    }
}

void add_qft(GateList& list, unsigned int n, unsigned int, Source&) {
    for (unsigned int target = 0; target < n; ++target) {
        list.add(GateKind::H, target);
        for (unsigned int control = target + 1; control < n; ++control)
            list.add(GateKind::PH, target,
                     std::ldexp(std::numbers::pi, -static_cast<int>(control - target)),
                     Controls({control}));
    }
    for (unsigned int q = 0; q < n / 2; ++q)
        list.add(GateKind::SWAP, {q, n - 1 - q});
}

void add_ising(GateList& list, unsigned int n, unsigned int steps, Source&) {
    for (unsigned int step = 0; step < steps; ++step) {
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::RZZ, {q, q + 1}, 0.2);
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::RX, q, 0.3);
    }
}

/// RXX and RZZ on random pairs.
void add_pair_rotations(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int i = 0; i < layers * n / 2; ++i) {
        const auto [a, b] = source.qubits(n);
        list.add(i % 2 ? GateKind::RZZ : GateKind::RXX, {a, b}, source.angle());
    }
}

/// The hardware-efficient ansatz.
void add_ansatz(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::RY, q, source.angle()).add(GateKind::RZ, q, source.angle());
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::Z, q + 1, Controls({q}));
    }
}

void add_toffoli_h(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q)
            list.add(GateKind::H, q);
        for (unsigned int i = 0; i < n; ++i) {
            const auto [a, b] = source.qubits(n);
            unsigned int target = source.below(n);
            while (target == a || target == b)
                target = source.below(n);
            list.add(GateKind::X, target, Controls({a, b}));
        }
    }
}

/// A random unitary 4x4 matrix: Gram and Schmidt on normal entries.
std::vector<std::complex<double>> random_unitary(Source& source) {
    std::vector<std::complex<double>> m(16);
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c)
            m[4 * r + c] = {source.normal(), source.normal()};
        for (int s = 0; s <= r; ++s) {
            std::complex<double> overlap = 0;
            for (int c = 0; c < 4; ++c)
                overlap += m[4 * r + c] * std::conj(m[4 * s + c]);
            for (int c = 0; c < 4; ++c)
                m[4 * r + c] = s < r ? m[4 * r + c] - overlap * m[4 * s + c]
                                     : m[4 * r + c] / std::sqrt(overlap.real());
        }
    }
    return m;
}

void add_quantum_volume(GateList& list, unsigned int n, unsigned int layers, Source& source) {
    std::vector<unsigned int> order(n);
    for (unsigned int q = 0; q < n; ++q)
        order[q] = q;
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = n - 1; q > 0; --q)
            std::swap(order[q], order[source.below(q + 1)]);
        for (unsigned int q = 0; q + 1 < n; q += 2)
            list.add_matrix({order[q], order[q + 1]}, random_unitary(source));
    }
}

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

/// Arguments: qubits, layers, threads.
template <class T, Accuracy accuracy>
void BM_List(benchmark::State& run, AddLayers add_layers) {
    State<T>& state = shared_state<T>(run.range(0), run.range(2));
    const GateList list = list_of(run, add_layers);
    const RunOptions options{.accuracy = accuracy};
    double pass = 0, whole = 0;
    for (auto _ : run) {
        run.PauseTiming();
        pass += fastest_pass(state);
        state.reset();
        run.ResumeTiming();
        const auto begin = std::chrono::steady_clock::now();
        pblinalg::run(state, list, {}, options);
        whole += std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    }
    run.counters["gates"] = static_cast<double>(list.size());
    run.counters["passes"] = whole / pass;
    run.counters["pass_ms"] = 1e3 * pass / static_cast<double>(run.iterations());
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
            {"BM_GateByGate", BM_GateByGate<T>}};
        for (const auto& [family, function] : ways) {
            set_sizes(benchmark::RegisterBenchmark(benchmark_name<T>(family, name).c_str(),
                                                   function, add_layers),
                      sizes);
        }
    };
    add("u3_cx", add_u3_cx, {{24, 20}});
    add("pair_rotations", add_pair_rotations, {{20, 10}});
    add("qft_cp", add_qft, {{24, 1}});
    add("ansatz", add_ansatz, {{20, 10}});
    add("quantum_volume", add_quantum_volume, {{24, 10}});
    add("brickwork", add_brickwork, {{10, 1000}, {24, 20}, {26, 20}});
    add("ising", add_ising, {{24, 10}});
    add("toffoli_h", add_toffoli_h, {{20, 10}});
    return true;
}

[[maybe_unused]] const bool registered = register_lists<float>() && register_lists<double>();

}  // namespace
}  // namespace pblinalg::benchmarks
