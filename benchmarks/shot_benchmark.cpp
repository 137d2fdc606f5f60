// Shots of programs with channels, and with measurements in the middle. Items are shots.
#include <pblinalg/shots.hpp>

#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

using Matrix = std::vector<std::complex<double>>;

/// Rotations on all qubits and CNOTs on neighbours.
GateList layer(unsigned int n) {
    GateList list;
    for (unsigned int q = 0; q < n; ++q)
        list.add(GateKind::RY, q, 0.3 + 0.1 * q);
    for (unsigned int q = 0; q + 1 < n; ++q)
        list.add(GateKind::X, q + 1, Controls({q}));
    return list;
}

/// Any Pauli gate with probability p / 4 each, the identity among them.
Channel depolarizing(double p) {
    const std::vector<Matrix> paulis{
        {1, 0, 0, 1}, {0, 1, 1, 0}, {0, {0, -1}, {0, 1}, 0}, {1, 0, 0, -1}};
    return Channel::mixture(1, paulis, std::vector{1 - 3 * p / 4, p / 4, p / 4, p / 4});
}

Channel damping(double p) {
    return Channel::kraus(
        1, std::vector{Matrix{1, 0, 0, std::sqrt(1 - p)}, Matrix{0, std::sqrt(p), 0, 0}});
}

/// Ten layers, the channel on every qubit after each.
ShotProgram noisy_program(unsigned int n, const Channel& channel) {
    ShotProgram program(n, n);
    for (int i = 0; i < 10; ++i) {
        program.add_gates(layer(n));
        for (unsigned int q = 0; q < n; ++q)
            program.add_channel(channel, q);
    }
    for (unsigned int q = 0; q < n; ++q)
        program.add_measurement(q, q);
    return program;
}

/// A layer, then a measurement of every fourth qubit in turn, so often as said; all qubits at last.
ShotProgram measured_program(unsigned int n, std::int64_t measurements) {
    ShotProgram program(n, n);
    for (std::int64_t i = 0; i < measurements; ++i) {
        const auto q = static_cast<unsigned int>(4 * i % n);
        program.add_gates(layer(n)).add_measurement(q, q);
        program.begin_condition(std::vector<ClassicalValue>{{q, true}});
        program.add_gates(GateList().add(GateKind::X, q)).end_condition();
    }
    program.add_gates(layer(n));
    for (unsigned int q = 0; q < n; ++q)
        program.add_measurement(q, q);
    return program;
}

template <class T>
void count(benchmark::State& run, const ShotProgram& program, std::int64_t shots,
           std::int64_t threads) {
    ShotOptions options;
    options.shots = static_cast<std::uint64_t>(shots);
    options.threads = static_cast<int>(threads);
    for (auto _ : run) {
        ++options.seed;
        benchmark::DoNotOptimize(count_shots<T>(program, {}, options));
    }
    run.SetItemsProcessed(run.iterations() * shots);
}

/// Arguments: qubits, probability of an error in millionths, shots, threads.
template <class T>
void BM_NoisyShots(benchmark::State& run, Channel (*channel)(double)) {
    const auto n = static_cast<unsigned int>(run.range(0));
    const double p = 1e-6 * static_cast<double>(run.range(1));
    count<T>(run, noisy_program(n, channel(p)), run.range(2), run.range(3));
}

/// Arguments: qubits, measurements in the middle, shots, threads.
template <class T>
void BM_MeasuredShots(benchmark::State& run) {
    const auto n = static_cast<unsigned int>(run.range(0));
    count<T>(run, measured_program(n, run.range(1)), run.range(2), run.range(3));
}

template <class T>
bool register_shots() {
    const auto noisy = [](const char* name, Channel (*channel)(double)) {
        auto* const bench = benchmark::RegisterBenchmark(
            benchmark_name<T>("BM_NoisyShots", name).c_str(), BM_NoisyShots<T>, channel);
        bench->ArgNames({"qubits", "ppm", "shots", "threads"})->UseRealTime();
        for (const std::int64_t threads : thread_counts()) {
            bench->Args({4, 10000, 10, threads});
            for (const std::int64_t ppm : {10, 1000, 10000})
                bench->Args({10, ppm, 10000, threads});
            bench->Args({20, 1000, 20, threads});
        }
    };
    noisy("depolarizing", depolarizing);
    noisy("damping", damping);
    auto* const measured = benchmark::RegisterBenchmark(
        benchmark_name<T>("BM_MeasuredShots").c_str(), BM_MeasuredShots<T>);
    measured->ArgNames({"qubits", "measurements", "shots", "threads"})->UseRealTime();
    for (const std::int64_t threads : thread_counts()) {
        measured->Args({4, 2, 10, threads});
        measured->Args({12, 3, 10000, threads});
        measured->Args({12, 30, 1000, threads});
    }
    return true;
}

[[maybe_unused]] const bool registered = register_shots<float>() && register_shots<double>();

}  // namespace
}  // namespace pblinalg::benchmarks
