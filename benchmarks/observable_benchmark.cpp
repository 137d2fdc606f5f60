// Exact and sampled observables, read against a pass that only reads the state.
#include <benchmark/benchmark.h>

#include <pblinalg/pblinalg.hpp>
#include <random>

#include "core/bits.hpp"
#include "core/parallel.hpp"

namespace pblinalg::cpu {
namespace {

/// A state of random amplitudes, not normalised.
template <class T>
struct RandomState : PybindLinAlgStateVectorCPU<T> {
    explicit RandomState(const benchmark::State& run)
        : PybindLinAlgStateVectorCPU<T>(static_cast<unsigned int>(run.range(0))) {
        std::mt19937_64 generator(1);
        std::uniform_real_distribution<T> part(-1, 1);
        for (Index i = 0; i < this->size; ++i)
            this->state[i] = {part(generator), part(generator)};
        this->set_num_threads(static_cast<int>(run.range(1)));
    }
};

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
    const RandomState<T> state(run);
    const T* const parts = reinterpret_cast<const T*>(state.state.get());
    for (auto _ : run) {
        for_each_block(2 * state.size, state.size, state.num_threads, [=](Index begin, Index end) {
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
    RandomState<T> state(run);
    const auto observable = random_observable<T>(state.nqubits, static_cast<Index>(run.range(2)),
                                                 static_cast<Index>(run.range(3)));
    for (auto _ : run)
        benchmark::DoNotOptimize(state.expectation_value(observable));
}

/// Nine terms of three letters each.
template <class T>
void BM_EvaluateTerms(benchmark::State& run) {
    RandomState<T> state(run);
    std::vector<SimpleTerm<T>> terms;
    for (unsigned int t = 0; t < 9; ++t)
        terms.push_back({{t, t + 3, t + 7}, "XYZ", T(1)});
    const auto nshots = static_cast<unsigned long long>(run.range(2));
    for (auto _ : run)
        benchmark::DoNotOptimize(state.evaluate_terms(terms, nshots));
}

template <class Benchmark>
void with_threads(Benchmark* benchmark) {
    benchmark->UseRealTime()->Unit(benchmark::kMillisecond);
}

#define PBLINALG_BENCHMARK(T)                                    \
    BENCHMARK(BM_ReadPass<T>)                                    \
        ->ArgNames({"qubits", "threads"})                        \
        ->ArgsProduct({{22}, {1, 2}})                            \
        ->Apply(with_threads);                                   \
    BENCHMARK(BM_Expectation<T>)                                 \
        ->ArgNames({"qubits", "threads", "terms", "flip_masks"}) \
        ->ArgsProduct({{22}, {1, 2}, {1}, {1}})                  \
        ->ArgsProduct({{22}, {1, 2}, {200}, {0, 20, 200}})       \
        ->Apply(with_threads);                                   \
    BENCHMARK(BM_EvaluateTerms<T>)                               \
        ->ArgNames({"qubits", "threads", "shots"})               \
        ->ArgsProduct({{16, 22}, {1, 2}, {1000, 1000000}})       \
        ->Apply(with_threads);
PBLINALG_BENCHMARK(float)
PBLINALG_BENCHMARK(double)

}  // namespace
}  // namespace pblinalg::cpu
