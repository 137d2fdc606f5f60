// Readouts of a flat-ish state without symmetry: sampling, distributions, exports, projection.
#include <benchmark/benchmark.h>

#include <memory>
#include <pblinalg/state_vector_cpu.hpp>

#include "core/aligned_array.hpp"
#include "core/parallel.hpp"

namespace pblinalg::cpu {
namespace {

/// A product state whose outcomes differ in probability.
template <class T>
struct State : PybindLinAlgStateVectorCPU<T> {
    explicit State(const benchmark::State& run)
        : PybindLinAlgStateVectorCPU<T>(static_cast<unsigned int>(run.range(0))) {
        this->set_num_threads(static_cast<int>(run.range(1)));
        this->reset();
        for (unsigned int q = 0; q < this->nqubits; ++q)
            this->apply_RY(q, T(1) + T(0.05) * static_cast<T>(q % 12));
    }
};

template <class T>
void count_bytes(benchmark::State& run, unsigned long long amplitudes) {
    run.SetBytesProcessed(
        static_cast<std::int64_t>(run.iterations() * amplitudes * sizeof(std::complex<T>)));
}

/// Reading every amplitude once: what a probability cannot beat.
template <class T>
void BM_ReadPass(benchmark::State& run) {
    const State<T> state(run);
    const T* const elements = reinterpret_cast<const T*>(state.state.get());
    for (auto _ : run) {
        benchmark::DoNotOptimize(sum_over_pieces<std::uint32_t>(
            2 * state.size, state.size, state.num_threads, [=](Index begin, Index end) {
                std::uint32_t parity = 0;
                const auto* const words = reinterpret_cast<const std::uint32_t*>(elements);
                for (Index i = begin * sizeof(T) / 4; i < end * sizeof(T) / 4; ++i)
                    parity ^= words[i];
                return parity;
            }));
    }
    count_bytes<T>(run, state.size);
}

template <class T>
void BM_Copy(benchmark::State& run) {
    const State<T> state(run);
    const auto out = new_zeroed_array<std::complex<T>>(state.size, state.num_threads);
    for (auto _ : run) {
        for_each_block(state.size, state.size, state.num_threads, [&](Index begin, Index end) {
            std::copy(state.state.get() + begin, state.state.get() + end, out.get() + begin);
        });
        benchmark::ClobberMemory();
    }
    count_bytes<T>(run, 2 * state.size);
}

/// Into a buffer that starts `past_line` amplitudes behind a cache line's boundary.
template <class T>
void BM_DenseExport(benchmark::State& run) {
    State<T> state(run);
    const auto out = new_zeroed_array<std::complex<T>>(state.size + 8, state.num_threads);
    for (auto _ : run) {
        state.get_permuted_statevector(out.get() + run.range(3), static_cast<T>(run.range(2)));
        benchmark::ClobberMemory();
    }
    count_bytes<T>(run, 2 * state.size);
}

/// A map of the 2^10 entries of a state that is 0 elsewhere.
template <class T>
void BM_SparseExport(benchmark::State& run) {
    State<T> state(run);
    for (unsigned int q = 10; q < state.nqubits; ++q)
        state.project({q}, q % 2);
    for (auto _ : run) {
        const std::unique_ptr<std::map<unsigned long long, std::complex<T>>> map(
            state.get_mapped_statevector(0));
        benchmark::DoNotOptimize(map->size());
    }
    count_bytes<T>(run, state.size);
}

template <class T>
void BM_Sample(benchmark::State& run) {
    State<T> state(run);
    const auto shots = static_cast<std::size_t>(run.range(2));
    std::vector<unsigned long long> out(shots);
    for (auto _ : run)
        state.sample(out.data(), shots);
    run.SetItemsProcessed(static_cast<std::int64_t>(run.iterations() * shots));
}

/// The distribution of every second of the upper qubits, or of the lowest ones.
template <class T>
void BM_Distribution(benchmark::State& run) {
    State<T> state(run);
    const auto listed = static_cast<unsigned int>(run.range(2));
    const bool spread = run.range(3) != 0;
    std::vector<unsigned int> qubits;
    for (unsigned int j = 0; j < listed; ++j)
        qubits.push_back(spread ? state.nqubits - 1 - j * state.nqubits / listed : j);
    std::vector<T> out(std::size_t{1} << listed);
    for (auto _ : run) {
        state.get_distribution(out.data(), 0, qubits);
        benchmark::ClobberMemory();
    }
    count_bytes<T>(run, state.size);
}

template <class T>
void BM_Probability(benchmark::State& run) {
    State<T> state(run);
    for (auto _ : run)
        benchmark::DoNotOptimize(state.probability(0, std::vector<unsigned int>{}));
    count_bytes<T>(run, state.size);
}

/// Bytes count one read of what stays and one read and write of all.
template <class T>
void BM_Project(benchmark::State& run) {
    State<T> state(run);
    const auto qubit = static_cast<unsigned int>(run.range(2));
    for (auto _ : run)
        state.project({qubit}, 0);
    count_bytes<T>(run, 5 * state.size / 2);
}

#define PBLINALG_BENCHMARK(name, ...)                                                  \
    BENCHMARK(name<float>)->__VA_ARGS__->UseRealTime()->Unit(benchmark::kMillisecond); \
    BENCHMARK(name<double>)->__VA_ARGS__->UseRealTime()->Unit(benchmark::kMillisecond);
PBLINALG_BENCHMARK(BM_ReadPass, ArgNames({"qubits", "threads"})->ArgsProduct({{24}, {1, 2}}))
PBLINALG_BENCHMARK(BM_Copy, ArgNames({"qubits", "threads"})->ArgsProduct({{24}, {1, 2}}))
PBLINALG_BENCHMARK(BM_DenseExport, ArgNames({"qubits", "threads", "threshold", "past_line"})
                                       ->ArgsProduct({{20, 24}, {1, 2}, {0, 1}, {0, 2}}))
PBLINALG_BENCHMARK(BM_SparseExport, ArgNames({"qubits", "threads"})->ArgsProduct({{24}, {1, 2}}))
PBLINALG_BENCHMARK(BM_Sample, ArgNames({"qubits", "threads", "shots"})
                                  ->ArgsProduct({{4, 12, 24}, {1, 2}, {1, 1000, 1000000}}))
PBLINALG_BENCHMARK(BM_Distribution, ArgNames({"qubits", "threads", "listed", "spread"})
                                        ->ArgsProduct({{24}, {1, 2}, {1, 2, 3, 4, 10, 20}, {0, 1}}))
PBLINALG_BENCHMARK(BM_Probability, ArgNames({"qubits", "threads"})->ArgsProduct({{24}, {1, 2}}))
PBLINALG_BENCHMARK(BM_Project, ArgNames({"qubits", "threads", "qubit"})
                                   ->ArgsProduct({{24}, {1, 2}, {0, 6, 12, 23}}))
#undef PBLINALG_BENCHMARK

}  // namespace
}  // namespace pblinalg::cpu
