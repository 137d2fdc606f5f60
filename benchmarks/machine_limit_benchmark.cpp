// The machine's own limits, against which every other benchmark is read: memory read and written in
// place, and fused multiply-adds.
#include <benchmark/benchmark.h>

#include <cstdint>

#include "core/parallel.hpp"
#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

// A compiled copy per instruction set, chosen when the program is loaded.
#if defined(__x86_64__)
#define EVERY_INSTRUCTION_SET __attribute__((target_clones("default", "arch=haswell", "avx512f")))
#else
#define EVERY_INSTRUCTION_SET
#endif

/// One cache line, the unit that memory moves.
typedef std::uint64_t Line __attribute__((vector_size(64), may_alias));

/// Asking for lines one page ahead of the hardware gains a few percent.
EVERY_INSTRUCTION_SET void flip_signs(Line* lines, std::uint64_t signs, unsigned long long begin,
                                      unsigned long long end) {
    const Line mask = Line{} + signs;
    for (unsigned long long i = begin; i < end; ++i) {
        __builtin_prefetch(lines + i + 64, 1);
        lines[i] ^= mask;
    }
}

/// An in-place pass that reads and writes every amplitude once: what a gate cannot beat.
template <class T>
void BM_ReadWritePass(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(1));
    auto* const lines = reinterpret_cast<Line*>(state.state.get());
    constexpr std::uint64_t signs = sizeof(T) == 8 ? 0x8000'0000'0000'0000 : 0x8000'0000'8000'0000;
    const unsigned long long n_lines = state.size * sizeof(std::complex<T>) / sizeof(Line);
    for (auto _ : run) {
        cpu::for_each_block(
            n_lines, state.size, state.num_threads,
            [=](cpu::Index begin, cpu::Index end) { flip_signs(lines, signs, begin, end); });
        benchmark::ClobberMemory();
    }
    report_amplitudes<T>(run, static_cast<std::int64_t>(state.size));
}

constexpr int n_rounds = 500'000;

/// `n_rounds` fused multiply-adds on each of 1 KiB of accumulators, which stay in registers.
template <class T>
[[gnu::always_inline]] inline void multiply_add(T* results) {
    typedef T Vector __attribute__((vector_size(64)));
    constexpr int n_vectors = 16;
    Vector sums[n_vectors];
    for (int i = 0; i < n_vectors; ++i)
        sums[i] = Vector{} + T(i);
    const Vector factor = Vector{} + T(0.75);
    const Vector term = Vector{} + results[0];
    for (int round = 0; round < n_rounds; ++round) {
        for (int i = 0; i < n_vectors; ++i)
            sums[i] = sums[i] * factor + term;
    }
    for (int i = 1; i < n_vectors; ++i)
        sums[0] += sums[i];
    results[0] = sums[0][0];
}

EVERY_INSTRUCTION_SET void multiply_add_all(float* results) {
    multiply_add(results);
}
EVERY_INSTRUCTION_SET void multiply_add_all(double* results) {
    multiply_add(results);
}

/// The rate of fused multiply-adds of real numbers: what bounds dense gates on many qubits.
template <class T>
void BM_FusedMultiplyAdd(benchmark::State& run) {
    const int threads = static_cast<int>(run.range(0));
    for (auto _ : run) {
        cpu::run_team(threads, [](int, int) {
            T result = 1;
            multiply_add_all(&result);
            benchmark::DoNotOptimize(result);
        });
    }
    constexpr double per_thread = 1024 / sizeof(T) * n_rounds;
    run.counters["fused_multiply_adds"] =
        benchmark::Counter(per_thread * threads, benchmark::Counter::kIsIterationInvariantRate);
}

template <class T>
void register_limits() {
    benchmark::RegisterBenchmark(benchmark_name<T>("BM_ReadWritePass").c_str(), BM_ReadWritePass<T>)
        ->ArgNames({"qubits", "threads"})
        ->ArgsProduct({{4, 10}, {1}})
        ->ArgsProduct({{16, 24, 26}, thread_counts()})
        ->UseRealTime();
    benchmark::RegisterBenchmark(benchmark_name<T>("BM_FusedMultiplyAdd").c_str(),
                                 BM_FusedMultiplyAdd<T>)
        ->ArgNames({"threads"})
        ->ArgsProduct({thread_counts()})
        ->UseRealTime();
}

[[maybe_unused]] const bool registered =
    (register_limits<float>(), register_limits<double>(), true);

}  // namespace
}  // namespace pblinalg::benchmarks
