// Value and gradient of a Pauli sum after an ansatz, from basis state 0. Beside each a plain run of
// the same list is timed; the counter `runs` is the gradient's time in those, `passes` in reads and
// writes of the state.
#include <benchmark/benchmark.h>

#include <chrono>
#include <pblinalg/gradient.hpp>
#include <random>

#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

/// RY and RZ with a parameter each on all qubits, then a ladder of CZ, in each layer.
GateList ansatz(unsigned int n, unsigned int layers) {
    GateList list;
    std::uint32_t parameter = 0;
    for (unsigned int layer = 0; layer < layers; ++layer) {
        for (unsigned int q = 0; q < n; ++q) {
            list.add(GateKind::RY, q, Angle::of_parameter(parameter++));
            list.add(GateKind::RZ, q, Angle::of_parameter(parameter++));
        }
        for (unsigned int q = 0; q + 1 < n; ++q)
            list.add(GateKind::Z, q + 1, Controls({q}));
    }
    return list;
}

/// `n_terms` random strings of all letters.
template <class T>
WObservable<T> pauli_sum(unsigned int n, unsigned int n_terms) {
    std::mt19937_64 generator(1);
    WObservable<T> observable{};
    for (unsigned int t = 0; t < n_terms; ++t) {
        const unsigned long long all = (1ull << n) - 1;
        const unsigned long long flips = generator() & all, signs = generator() & all;
        observable.coefficients.push_back(T(0.1) * static_cast<T>(t + 1));
        observable.flip_masks.push_back(flips);
        observable.sign_masks.push_back(signs);
        observable.phase_powers.push_back(
            static_cast<unsigned int>(__builtin_popcountll(flips & signs)));
    }
    return observable;
}

double seconds(const auto& body) {
    const auto begin = std::chrono::steady_clock::now();
    body();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

/// Arguments: qubits, threads. Four layers, 20 terms.
template <class T>
void BM_Gradient(benchmark::State& run) {
    const auto n = static_cast<unsigned int>(run.range(0));
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const GateList list = ansatz(n, 4);
    const WObservable<T> observable = pauli_sum<T>(n, 20);
    const std::vector<double> values(list.n_parameters(), 0.4);
    const auto gradient = [&] {
        state.reset();
        value_and_gradient<T>(state, list, std::span(&observable, 1), values);
    };
    gradient();
    std::vector<double> plain, whole, pass;
    for (auto _ : run) {
        run.PauseTiming();
        pass.push_back(seconds([&] { state.apply_RX(3, T(0.5)); }));
        state.reset();
        plain.push_back(seconds([&] { pblinalg::run(state, list, values); }));
        run.ResumeTiming();
        whole.push_back(seconds(gradient));
    }
    const auto median = [](std::vector<double>& times) {
        std::sort(times.begin(), times.end());
        return times[times.size() / 2];
    };
    run.counters["parameters"] = list.n_parameters();
    run.counters["runs"] = median(whole) / median(plain);
    run.counters["passes"] = median(whole) / median(pass);
    run.counters["run_ms"] = 1e3 * median(plain);
    run.counters["median_ms"] = 1e3 * median(whole);
}

template <class T>
bool register_gradients() {
    auto* const family =
        benchmark::RegisterBenchmark(benchmark_name<T>("BM_Gradient").c_str(), BM_Gradient<T>);
    family->ArgNames({"qubits", "threads"})->UseRealTime()->Unit(benchmark::kMillisecond);
    for (const int qubits : {4, 12, 20, 24}) {
        for (const int threads : {1, 2})
            family->Args({qubits, threads});
    }
    return true;
}

[[maybe_unused]] const bool registered = register_gradients<double>() && register_gradients<float>();

}  // namespace
}  // namespace pblinalg::benchmarks
