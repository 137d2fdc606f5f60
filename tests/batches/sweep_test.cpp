// Sweeps: every row is what a run and readouts of its own give, and stops leave whole rows.
#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Sweeps : public ::testing::Test {};
TYPED_TEST_SUITE(Sweeps, Precisions);

GateList ansatz(unsigned int n) {
    GateList list;
    for (unsigned int q = 0; q < n; ++q)
        list.add(GateKind::RY, q, Angle::of_parameter(q % 2, 1 + 0.01 * q));
    for (unsigned int q = 1; q < n; ++q)
        list.add(GateKind::RXX, {q - 1, q}, Angle::of_parameter(2));
    return list;
}

TYPED_TEST(Sweeps, GiveInRowsWhatRunsOfTheirOwnGive) {
    using T = TypeParam;
    constexpr std::size_t n_rows = 6;
    // Four values a row; the list uses three of them.
    std::vector<double> values(4 * n_rows);
    for (std::size_t i = 0; i < values.size(); ++i)
        values[i] = 0.1 + 0.37 * static_cast<double>(i % 7);
    const std::vector<WObservable<T>> observables{{{1, 2}, {1, 0}, {4, 3}, {0, 0}, 3, 0},
                                                  {{-1}, {5}, {0}, {0}, 0, 0}};
    constexpr std::size_t n_shots = 9;
    for (const unsigned int n : {3u, min_shared_batch_qubits}) {
        const GateList list = ansatz(n);
        const std::size_t size = std::size_t{1} << n;
        for (const auto& [threads, accuracy] :
             {std::pair{1, Accuracy::exact}, {3, Accuracy::exact}, {3, Accuracy::rounding}}) {
            std::vector<double> expectations(2 * n_rows);
            std::vector<T> probabilities(4 * n_rows), totals(n_rows);
            std::vector<unsigned long long> shots(n_shots * n_rows);
            Amplitudes<T> states(size * n_rows);
            const SweepOutput<T> output{.observables = observables,
                                        .expectations = expectations.data(),
                                        .qubits = {2, 0},
                                        .probabilities = probabilities.data(),
                                        .n_shots = n_shots,
                                        .shots = shots.data(),
                                        .totals = totals.data(),
                                        .states = states.data()};
            const auto report =
                run_sweep<T>(n, list, {values, n_rows}, output, {threads, 5, {}, accuracy});
            EXPECT_EQ(report.jobs_done, n_rows);
            for (std::size_t row = 0; row < n_rows; ++row) {
                SCOPED_TRACE(::testing::Message() << n << " qubits, row " << row);
                StateVector<T> state(n);
                state.set_num_threads(threads);
                state.reset();
                run(state, list, std::span(values).subspan(4 * row, 4), {{}, accuracy});
                for (std::size_t o = 0; o < 2; ++o) {
                    EXPECT_EQ(expectations[2 * row + o],
                              state.expectation_value(observables[o]).real());
                }
                std::vector<T> distribution(4), total(1);
                state.get_distribution(distribution.data(), 0, {2, 0});
                state.get_distribution(total.data(), 0, {});
                EXPECT_TRUE(same_bits(probabilities.data() + 4 * row, distribution));
                EXPECT_TRUE(same_bits(totals.data() + row, total));
                state.rng.seed(seed_of_job(5, row));
                std::vector<unsigned long long> drawn(n_shots);
                state.sample_subset(drawn.data(), {2, 0}, n_shots);
                EXPECT_TRUE(std::equal(drawn.begin(), drawn.end(), shots.data() + n_shots * row));
                Amplitudes<T> exported(size);
                state.get_permuted_statevector(exported.data(), 0);
                EXPECT_TRUE(same_bits(states.data() + size * row, exported));
            }
        }
    }
}

TEST(Sweeps, StopWithinTheRunOfALargeRow) {
    constexpr unsigned int n = min_shared_batch_qubits;
    // Long enough that a stop leaves gates undone.
    GateList list = ansatz(n);
    list.append(list).append(list).append(list);
    const std::vector<double> values(3 * 4, 0.5);
    std::vector<double> totals(4, -1);
    SweepOutput<double> output;
    output.totals = totals.data();
    int calls_after_first = 0;
    // The second call after row 0 comes from between two passes of row 1.
    const auto between = [&](std::size_t done) { return done < 1 || ++calls_after_first < 2; };
    const auto report = run_sweep<double>(n, list, {values, 4}, output, {2, 0, between});
    EXPECT_TRUE(report.stopped);
    EXPECT_EQ(report.jobs_done, 1u);
    EXPECT_EQ(calls_after_first, 2);
    EXPECT_NEAR(totals[0], 1, 1e-12);
    EXPECT_EQ(totals[1], -1);
    EXPECT_EQ(run_sweep<double>(n, list, {{}, 0}, output).jobs_done, 0u);
}

}  // namespace
}  // namespace pblinalg::test
