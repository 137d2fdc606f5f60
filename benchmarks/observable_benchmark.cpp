// Exact and sampled observables, read against a pass that only reads the state.
#include <benchmark/benchmark.h>

#include <random>

#include "core/bits.hpp"
#include "core/parallel.hpp"
#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

using cpu::count_bits;
using cpu::Index;
using cpu::low_mask;

/// Random Hermitian terms over `n_masks` random flip masks; over none, diagonal terms.
template <class T>
WObservable<T> random_observable(unsigned int n, Index n_terms, Index n_masks) {
    std::mt19937_64 generator(2);
    WObservable<T> observable{};
    for (Index t = 0; t < n_terms; ++t) {
        const bool fresh = t < n_masks;
        const Index flip = n_masks == 0 ? 0
                           : fresh      ? generator() & low_mask(n)
                                        : observable.flip_masks[t % n_masks];
        const Index signs = generator() & low_mask(n);
        observable.coefficients.emplace_back(1);
        observable.flip_masks.push_back(flip);
        observable.sign_masks.push_back(signs);
        observable.phase_powers.push_back(count_bits(flip & signs));
    }
    return observable;
}

template <class T>
void BM_ReadPass(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const T* const parts = reinterpret_cast<const T*>(state.state.get());
    for (auto _ : run) {
        cpu::for_each_block(2 * state.size, state.size, state.num_threads,
                            [=](Index begin, Index end) {
                                T sums[64 / sizeof(T)] = {};
                                for (Index i = begin; i < end; i += std::size(sums)) {
                                    for (Index k = 0; k < std::size(sums); ++k)
                                        sums[k] += parts[i + k];
                                }
                                benchmark::DoNotOptimize(sums);
                            });
    }
    run.SetBytesProcessed(run.iterations() * state.size * sizeof(std::complex<T>));
}

template <class T>
void BM_Expectation(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const auto observable = random_observable<T>(state.nqubits, static_cast<Index>(run.range(2)),
                                                 static_cast<Index>(run.range(3)));
    for (auto _ : run)
        benchmark::DoNotOptimize(state.expectation_value(observable));
}

/// Nine terms of three letters each.
template <class T>
void BM_EvaluateTerms(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    std::vector<SimpleTerm<T>> terms;
    for (unsigned int t = 0; t < 9; ++t)
        terms.push_back({{t, t + 3, t + 7}, "XYZ", T(1)});
    const auto nshots = static_cast<unsigned long long>(run.range(2));
    for (auto _ : run)
        benchmark::DoNotOptimize(state.evaluate_terms(terms, nshots));
}

template <class Benchmark>
void in_milliseconds(Benchmark* benchmark) {
    benchmark->UseRealTime()->Unit(benchmark::kMillisecond);
}

#define PBLINALG_BENCHMARK(T)                                       \
    BENCHMARK(BM_ReadPass<T>)                                       \
        ->ArgNames({"qubits", "threads"})                           \
        ->ArgsProduct({{22}, thread_counts()})                      \
        ->Apply(in_milliseconds);                                   \
    BENCHMARK(BM_Expectation<T>)                                    \
        ->ArgNames({"qubits", "threads", "terms", "flip_masks"})    \
        ->ArgsProduct({{22}, thread_counts(), {1}, {1}})            \
        ->ArgsProduct({{22}, thread_counts(), {200}, {0, 20, 200}}) \
        ->Apply(in_milliseconds);                                   \
    BENCHMARK(BM_EvaluateTerms<T>)                                  \
        ->ArgNames({"qubits", "threads", "shots"})                  \
        ->ArgsProduct({{16, 22}, thread_counts(), {1000, 1000000}}) \
        ->Apply(in_milliseconds);
PBLINALG_BENCHMARK(float)
PBLINALG_BENCHMARK(double)

}  // namespace
}  // namespace pblinalg::benchmarks
