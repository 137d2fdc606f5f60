// Loading of data: state preparation, the phase oracle and QRAM, on registers of all kinds.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "core/bits.hpp"
#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

using cpu::bit;

/// The `count` lowest qubits upwards, or the highest ones downwards.
std::vector<unsigned int> qubits_of(unsigned int n, unsigned int count, bool high) {
    std::vector<unsigned int> qubits(count);
    std::iota(qubits.begin(), qubits.end(), 0u);
    if (high) {
        for (unsigned int& qubit : qubits)
            qubit = n - 1 - qubit;
    }
    return qubits;
}

template <class T>
void BM_StatePreparation(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const auto listed = static_cast<unsigned int>(run.range(2));
    const auto qubits = qubits_of(state.nqubits, listed, run.range(3) != 0);
    std::vector<std::complex<double>> input(bit(listed), std::pow(2.0, -0.5 * listed));
    for (auto _ : run)
        state.apply_state_preparation(input.data(), qubits);
    report_amplitudes<T>(run, static_cast<std::int64_t>(state.size));
}

template <class T>
void BM_PhaseOracle(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const auto qubits = qubits_of(state.nqubits, state.nqubits, false);
    std::mt19937_64 generator(1);
    std::vector<unsigned long long> marked(static_cast<std::size_t>(run.range(2)));
    std::generate(marked.begin(), marked.end(), [&] { return generator() % state.size; });
    for (auto _ : run)
        state.apply_phase_oracle(marked, qubits);
    report_amplitudes<T>(run, static_cast<std::int64_t>(state.size));
}

/// All qubits are listed, the data register being the highest of them.
template <class T>
void BM_Qram(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const auto width = static_cast<unsigned int>(run.range(2));
    const auto qubits = qubits_of(state.nqubits, state.nqubits, false);
    // Rows that keep an amplitude where it is, so that repeated loading does not end in denormals.
    std::vector<std::complex<double>> table(state.size);
    for (std::size_t entry = 0; entry < table.size(); entry += bit(width))
        table[entry] = 1;
    for (auto _ : run) {
        state.apply_qram(table.data(), qubits, width);
        benchmark::ClobberMemory();
    }
    report_amplitudes<T>(run, static_cast<std::int64_t>(state.size));
}

template <class T>
void BM_BinaryQram(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    const auto width = static_cast<unsigned int>(run.range(2));
    const auto qubits = qubits_of(state.nqubits, state.nqubits, false);
    std::mt19937_64 generator(1);
    std::vector<unsigned long long> words(state.size >> width);
    std::generate(words.begin(), words.end(), [&] { return generator(); });
    for (auto _ : run)
        state.apply_binary_qram(words.data(), qubits, width);
    report_amplitudes<T>(run, static_cast<std::int64_t>(state.size));
}

template <class Benchmark>
void in_milliseconds(Benchmark* benchmark) {
    benchmark->UseRealTime()->Unit(benchmark::kMillisecond);
}

#define PBLINALG_BENCHMARK(T)                                          \
    BENCHMARK(BM_StatePreparation<T>)                                  \
        ->ArgNames({"qubits", "threads", "listed", "high"})            \
        ->ArgsProduct({{22}, thread_counts(), {0, 3, 12, 22}, {0, 1}}) \
        ->Apply(in_milliseconds);                                      \
    BENCHMARK(BM_PhaseOracle<T>)                                       \
        ->ArgNames({"qubits", "threads", "marked"})                    \
        ->ArgsProduct({{22}, thread_counts(), {1, 1000, 1000000}})     \
        ->Apply(in_milliseconds);                                      \
    BENCHMARK(BM_Qram<T>)                                              \
        ->ArgNames({"qubits", "threads", "width"})                     \
        ->ArgsProduct({{22}, thread_counts(), {0, 2, 11, 20}})         \
        ->Apply(in_milliseconds);                                      \
    BENCHMARK(BM_BinaryQram<T>)                                        \
        ->ArgNames({"qubits", "threads", "width"})                     \
        ->ArgsProduct({{22}, thread_counts(), {2, 11}})                \
        ->Apply(in_milliseconds);
PBLINALG_BENCHMARK(float)
PBLINALG_BENCHMARK(double)

}  // namespace
}  // namespace pblinalg::benchmarks
