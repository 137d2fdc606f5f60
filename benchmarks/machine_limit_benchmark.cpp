// The machine's own limits, against which every other benchmark is read.
#include <benchmark/benchmark.h>

#include <complex>

#include "core/aligned_array.hpp"
#include "core/parallel.hpp"

namespace pblinalg::cpu {
namespace {

/// An in-place pass that reads and writes every amplitude once: what a gate cannot beat.
template <class T>
void BM_ReadWritePass(benchmark::State& run) {
    const Index size = bit(static_cast<unsigned int>(run.range(0)));
    const int threads = static_cast<int>(run.range(1));
    const auto array = new_zeroed_array<std::complex<T>>(size, threads);
    T* const elements = reinterpret_cast<T*>(array.get());
    for (auto _ : run) {
        for_each_block(2 * size, size, threads, [=](Index begin, Index end) {
            for (Index i = begin; i < end; ++i)
                elements[i] = -elements[i];
        });
        benchmark::ClobberMemory();
    }
    run.SetBytesProcessed(run.iterations() * 2 * size * sizeof(std::complex<T>));
}

BENCHMARK(BM_ReadWritePass<float>)
    ->ArgNames({"qubits", "threads"})
    ->ArgsProduct({{24}, {1, 2}})
    ->UseRealTime();
BENCHMARK(BM_ReadWritePass<double>)
    ->ArgNames({"qubits", "threads"})
    ->ArgsProduct({{24}, {1, 2}})
    ->UseRealTime();

}  // namespace
}  // namespace pblinalg::cpu
