// Peak memory: a state fills most of a machine, so nothing may need a copy of it.
#include <sys/resource.h>

#include "support/states.hpp"

namespace pblinalg::test {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool memory_is_ours = false;
#else
constexpr bool memory_is_ours = true;
#endif

/// The most memory that was ever in use, in bytes.
double peak_memory() {
    rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return 1024.0 * static_cast<double>(usage.ru_maxrss);
}

TEST(PeakMemory, StaysNearTheStateInEveryOperation) {
    if (!memory_is_ours) GTEST_SKIP() << "a sanitizer's own memory counts, too";
    using T = double;
    constexpr unsigned int n = 24;
    StateVector<T> state(n);
    state.set_num_threads(2);
    state.reset();
    const auto check = [&](const char* what) {
        const double state_bytes = static_cast<double>(state.size * sizeof(std::complex<T>));
        EXPECT_LE(peak_memory(), 1.05 * state_bytes) << what;
    };
    check("reset");

    PybindLinAlgWCircuit<T> circuit(n);
    for (unsigned int q = 0; q < n; ++q) {
        circuit.add_gate("H", {}, {q});
        circuit.add_gate("RX", {T(0.1) * static_cast<T>(q)}, {q});
        circuit.add_gate("RZ", {T(0.3)}, {q});
        if (q > 0) circuit.add_gate("CNOT", {}, {q, q / 2});
    }
    state.simulate_circuit(circuit);
    check("circuit");

    state.apply_RY(23, T(0.3));
    state.apply_SWAP(0, 23);
    std::vector<std::complex<T>> matrix(std::size_t{1} << 12, T(1) / 64);
    state.apply_nqbit_gate({0, 20, 3, 7, 23, 11}, matrix);
    check("gates");

    state.probability(5, Qubits{3, 20, 1});
    std::vector<T> distribution(1 << 10);
    state.get_distribution(distribution.data(), 0, {0, 2, 4, 6, 8, 10, 12, 14, 22, 23});
    std::vector<unsigned long long> shots(1000);
    state.sample(shots.data(), shots.size());
    state.sample_subset(shots.data(), {23, 0, 12}, shots.size());
    state.measure({4, 5});
    check("probabilities and shots");

    const std::vector<std::complex<T>> coefficients(6, T(1));
    state.terms_expectations_values({coefficients,
                                     {0, 0, 1, 1, 9u << 20, 3},
                                     {1, 6u << 20, 0, 1, 0, 3},
                                     {0, 0, 0, 1, 0, 2},
                                     {},
                                     0});
    state.evaluate_terms({{{0, 23}, "XY", T(1)}, {{4, 12}, "ZX", T(1)}}, 100);
    check("observables");

    state.project({3, 17}, 2);
    state.project_then_reset({1}, state.probability(1, Qubits{1}) > 0 ? 1 : 0);
    check("projections");
}

}  // namespace
}  // namespace pblinalg::test
