// What benchmarks share: states that stay allocated from one run to the next, the thread counts
// that are measured, and how names and amounts of work are reported.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <map>
#include <pblinalg/state_vector_cpu.hpp>
#include <set>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

namespace pblinalg::benchmarks {

template <class T>
using State = cpu::PybindLinAlgStateVectorCPU<T>;

/// The state of `qubits` qubits that all benchmarks of a precision use in turn. Its amplitudes hold
/// no zeros at first and keep their norm as long as benchmarks apply unitary gates to them.
template <class T>
State<T>& shared_state(std::int64_t qubits, std::int64_t threads) {
    static std::map<std::int64_t, State<T>> states;
    const auto [found, is_new] = states.try_emplace(qubits, static_cast<unsigned int>(qubits));
    State<T>& state = found->second;
    state.set_num_threads(static_cast<int>(threads));
    if (is_new) {
        const T scale = 1 / std::sqrt(static_cast<T>(state.size));
        for (unsigned long long i = 0; i < state.size; ++i)
            state.state[i] = {scale * static_cast<T>(0.5 + i % 7 / 7.0), scale * T(0.25)};
    }
    return state;
}

/// One thread and all of the machine's.
inline std::vector<std::int64_t> thread_counts() {
    const std::set<std::int64_t> counts = {1, std::max(1u, std::thread::hardware_concurrency())};
    return {counts.begin(), counts.end()};
}

/// "BM_Gate<double, GateH>" for ("BM_Gate", "GateH") in double.
template <class T>
std::string benchmark_name(std::string name, const std::string& subject = "") {
    name += std::is_same_v<T, float> ? "<float" : "<double";
    if (!subject.empty()) name.append(", ").append(subject);
    return name.append(">");
}

/// The sizes of one circuit: qubits and layers.
struct Size {
    std::int64_t qubits;
    std::int64_t layers;
};

/// Runs a benchmark of circuits for every size and number of threads.
inline void set_sizes(benchmark::internal::Benchmark* registered, const std::vector<Size>& sizes) {
    registered->ArgNames({"qubits", "layers", "threads"})
        ->Unit(benchmark::kMillisecond)
        ->UseRealTime();
    for (const Size& size : sizes) {
        for (const std::int64_t threads : thread_counts())
            registered->Args({size.qubits, size.layers, threads});
    }
}

/// Every iteration read and wrote this many amplitudes.
template <class T>
void report_amplitudes(benchmark::State& run, std::int64_t amplitudes) {
    run.SetBytesProcessed(run.iterations() * 2 * amplitudes *
                          static_cast<std::int64_t>(sizeof(std::complex<T>)));
}

}  // namespace pblinalg::benchmarks
