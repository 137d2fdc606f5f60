// Sweeps of parameters, and the same runs one by one; reduced density matrices.
#include <benchmark/benchmark.h>

#include <pblinalg/reduced_density_matrix.hpp>
#include <pblinalg/sweep.hpp>
#include <random>

#include "shared_state.hpp"

namespace pblinalg::benchmarks {
namespace {

/// Four layers of RY, RZ and a ladder of CZ, one parameter for each rotation, and an observable of
/// 2n terms.
template <class T>
struct Ansatz {
    GateList list;
    WObservable<T> energy{};
    std::vector<double> values;
    std::size_t rows;

    Ansatz(unsigned int n, std::size_t rows) : rows(rows) {
        std::uint32_t parameter = 0;
        for (int layer = 0; layer < 4; ++layer) {
            for (unsigned int q = 0; q < n; ++q) {
                list.add(GateKind::RY, q, Angle::of_parameter(parameter++));
                list.add(GateKind::RZ, q, Angle::of_parameter(parameter++));
            }
            for (unsigned int q = 0; q + 1 < n; ++q)
                list.add(GateKind::Z, q + 1, Controls({q}));
        }
        for (unsigned int q = 0; q < n; ++q) {
            const unsigned long long pair = 1ull << q | 1ull << (q + 1) % n;
            for (const unsigned long long flip : {0ull, 1ull << q}) {
                energy.coefficients.push_back(0.5);
                energy.flip_masks.push_back(flip);
                energy.sign_masks.push_back(flip ? 0 : pair);
                energy.phase_powers.push_back(0);
            }
        }
        std::mt19937_64 random(1);
        values.resize(rows * parameter);
        for (double& value : values)
            value = std::uniform_real_distribution<double>(-3, 3)(random);
    }

    SweepValues sets() const { return {values, rows}; }
};

/// Arguments: qubits, rows, threads.
template <class T>
void BM_Sweep(benchmark::State& run) {
    const auto n = static_cast<unsigned int>(run.range(0));
    const Ansatz<T> ansatz(n, static_cast<std::size_t>(run.range(1)));
    std::vector<double> energies(ansatz.rows);
    SweepOutput<T> output;
    output.observables = {&ansatz.energy, 1};
    output.expectations = energies.data();
    for (auto _ : run) {
        run_sweep<T>(n, ansatz.list, ansatz.sets(), output,
                     {static_cast<int>(run.range(2)), 0, {}});
        benchmark::DoNotOptimize(energies.data());
    }
    run.SetItemsProcessed(run.iterations() * run.range(1));
}

/// The same rows, each run by the caller on a state that stays.
template <class T>
void BM_SweepRowByRow(benchmark::State& run) {
    State<T>& state = shared_state<T>(run.range(0), run.range(2));
    const Ansatz<T> ansatz(state.nqubits, static_cast<std::size_t>(run.range(1)));
    for (auto _ : run) {
        for (std::size_t row = 0; row < ansatz.rows; ++row) {
            state.reset();
            pblinalg::run(state, ansatz.list, ansatz.sets().row(row));
            benchmark::DoNotOptimize(state.expectation_value(ansatz.energy));
        }
    }
    run.SetItemsProcessed(run.iterations() * run.range(1));
}

/// Every other qubit from 1 on. Arguments: qubits, listed qubits, threads.
template <class T>
void BM_ReducedDensityMatrix(benchmark::State& run) {
    const State<T>& state = shared_state<T>(run.range(0), run.range(2));
    std::vector<unsigned int> qubits;
    for (std::int64_t i = 0; i < run.range(1); ++i)
        qubits.push_back(static_cast<unsigned int>((1 + 2 * i) % state.nqubits));
    std::vector<std::complex<double>> matrix(std::size_t{1} << 2 * qubits.size());
    for (auto _ : run)
        reduced_density_matrix(state, qubits, matrix.data());
}

template <class T>
bool register_sweeps() {
    const auto add = [](const char* family, void (*function)(benchmark::State&), const char* second,
                        const std::vector<std::pair<int, int>>& sizes) {
        auto* const registered =
            benchmark::RegisterBenchmark(benchmark_name<T>(family).c_str(), function);
        registered->ArgNames({"qubits", second, "threads"})
            ->UseRealTime()
            ->Unit(benchmark::kMillisecond);
        for (const auto& [qubits, other] : sizes) {
            for (const std::int64_t threads : thread_counts())
                registered->Args({qubits, other, threads});
        }
    };
    const std::vector<std::pair<int, int>> sweeps{{4, 100}, {10, 1000}, {14, 100}, {16, 40},
                                                  {17, 20}, {18, 10},   {20, 4}};
    add("BM_Sweep", BM_Sweep<T>, "rows", sweeps);
    add("BM_SweepRowByRow", BM_SweepRowByRow<T>, "rows", sweeps);
    add("BM_ReducedDensityMatrix", BM_ReducedDensityMatrix<T>, "listed",
        {{4, 2}, {20, 1}, {20, 3}, {20, 6}, {20, 9}, {24, 2}});
    return true;
}

[[maybe_unused]] const bool registered = register_sweeps<float>() && register_sweeps<double>();

}  // namespace
}  // namespace pblinalg::benchmarks
