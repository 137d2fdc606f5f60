// Batches: every job gets the bits of a run of its own, whatever way it goes over the workers;
// stops and exceptions.
#include <atomic>
#include <set>
#include <stdexcept>

#include "core/parallel.hpp"
#include "support/states.hpp"

namespace pblinalg::test {
namespace {

template <class T>
class Batches : public ::testing::Test {};
TYPED_TEST_SUITE(Batches, Precisions);

constexpr unsigned int side_by_side = min_shared_batch_qubits - 1;
constexpr unsigned int in_order = min_shared_batch_qubits;

/// A circuit of flat states, in whose sums every order of additions shows.
GateList rotations(unsigned int n) {
    GateList list;
    for (unsigned int q = 0; q < n; ++q)
        list.add(GateKind::RY, q, Angle::of_parameter(0, 1 + 0.1 * q));
    return list;
}

/// What a job reads: sums, an amplitude that was divided by one, and shots.
template <class T>
struct Readings {
    std::vector<T> sums;
    std::vector<unsigned long long> shots;
    friend bool operator==(const Readings&, const Readings&) = default;
};

template <class T>
Readings<T> readings(StateVector<T>& state, const GateList& list, double value) {
    run(state, list, std::vector{value});
    Readings<T> result;
    state.project({0}, 1);
    std::vector<T> distribution(4);
    state.get_distribution(distribution.data(), 0, {0, 2});
    result.sums = distribution;
    result.sums.push_back(state.probability(1, Qubits{1}));
    const WObservable<T> observable{{1, 2}, {1, 0}, {4, 3}, {0, 0}, 0, 0};
    result.sums.push_back(state.expectation_value(observable).real());
    result.sums.push_back(state.state[12345 % state.size].real());
    result.shots.resize(20);
    state.sample(result.shots.data(), result.shots.size());
    return result;
}

TYPED_TEST(Batches, GiveTheBitsOfRunsOfTheirOwn) {
    using T = TypeParam;
    constexpr std::size_t n_jobs = 5;
    for (const unsigned int n : {0u, 3u, side_by_side, in_order}) {
        const GateList list = rotations(n);
        std::set<std::vector<T>> sums_seen;
        for (const unsigned int limit : {8u, 1u}) {
            processors = limit;
            for (const int threads : {1, 2, 3, 0}) {
                SCOPED_TRACE(::testing::Message() << n << " qubits, " << threads << " threads");
                const auto single = [&](std::size_t number) {
                    StateVector<T> state(n);
                    state.set_num_threads(threads);
                    state.reset();
                    state.rng.seed(seed_of_job(7, number));
                    return n < 3 ? Readings<T>() : readings(state, list, 0.1 + number);
                };
                std::vector<Readings<T>> got(n_jobs);
                std::vector<std::atomic<int>> runs(n_jobs);
                const auto job = [&](const BatchJob<T>& job) {
                    ++runs[job.number];
                    ASSERT_EQ(job.state.nqubits, n);
                    ASSERT_EQ(job.state.state[0], std::complex<T>(1));
                    if (n >= 3) got[job.number] = readings(job.state, list, 0.1 + job.number);
                    // Nothing of this is left for the next one.
                    job.state.density_matrix = true;
                };
                const auto report = run_batch<T>(n, n_jobs, job, {threads, 7, {}});
                EXPECT_EQ(report.jobs_done, n_jobs);
                EXPECT_TRUE(report.finished());
                for (std::size_t number = 0; number < n_jobs; ++number) {
                    EXPECT_EQ(runs[number], 1);
                    EXPECT_EQ(got[number], single(number)) << "job " << number;
                }
                sums_seen.insert(got[1].sums);
            }
        }
        // Else orders of additions would not show in this test.
        EXPECT_EQ(sums_seen.size(), n >= side_by_side ? 2u : 1u);
    }
    processors = 8;
}

TEST(Batches, RunRegionsOfAJobOnOneWorker) {
    const int levels = omp_get_max_active_levels();
    omp_set_max_active_levels(3);
    std::atomic<int> largest = 0;
    const auto job = [&](const BatchJob<double>&) {
        cpu::run_team(2, [&](int, int team) { largest = std::max<int>(largest, team); });
        const auto inner = [&](const BatchJob<double>&) { largest = std::max<int>(largest, 1); };
        EXPECT_EQ(run_batch<double>(1, 3, inner, {2, 0, {}}).jobs_done, 3u);
    };
    run_batch<double>(1, 4, job, {2, 0, {}});
    EXPECT_EQ(largest, 1);
    omp_set_max_active_levels(levels);
    cpu::run_team(2, [&](int, int team) { largest = team; });
    EXPECT_EQ(largest, 2) << "after the batch";
}

TEST(Batches, StopAfterTheFirstJobs) {
    for (const unsigned int n : {3u, in_order}) {
        for (const int threads : {1, 3}) {
            SCOPED_TRACE(::testing::Message() << n << " qubits, " << threads << " threads");
            std::vector<std::atomic<int>> finished(1000);
            std::size_t told = 0;
            const auto job = [&](const BatchJob<float>& job) {
                if (job.number == 5 && n == in_order && threads == 3) {
                    // As a run does between its passes.
                    EXPECT_FALSE(job.between_passes(0));
                    return;
                }
                ++finished[job.number];
            };
            const auto between = [&](std::size_t done) {
                EXPECT_GE(done, told);
                told = done;
                return done < 5;
            };
            const auto report = run_batch<float>(n, finished.size(), job, {threads, 0, between});
            if (report.finished()) {
                // The other workers were done before this one had a turn.
                EXPECT_EQ(report.jobs_done, finished.size());
            }
            for (std::size_t number = 0; number < finished.size(); ++number)
                EXPECT_EQ(finished[number], number < report.jobs_done) << number;
            if (n == in_order || threads == 1) {
                EXPECT_EQ(report.jobs_done, 5u);
            }
        }
    }
}

TEST(Batches, PassExceptionsOnAndBeginNoOtherJob) {
    for (const unsigned int n : {3u, in_order}) {
        for (const int threads : {1, 3}) {
            std::atomic<std::size_t> begun = 0;
            const auto failing = [&](const BatchJob<double>& job) {
                ++begun;
                if (job.number == 2) throw std::domain_error("job");
            };
            EXPECT_THROW(run_batch<double>(n, std::size_t{1} << 40, failing, {threads, 0, {}}),
                         std::domain_error);
            EXPECT_GE(begun, 3u);
            const auto job = [](const BatchJob<double>&) {};
            const auto between = [](std::size_t) -> bool { throw std::range_error("between"); };
            EXPECT_THROW(run_batch<double>(n, std::size_t{1} << 40, job, {threads, 0, between}),
                         std::range_error);
        }
    }
}

TEST(Batches, SeedJobsDifferently) {
    std::set<std::uint64_t> seeds;
    for (const std::uint64_t seed : {0, 1, 2, 3}) {
        for (std::uint64_t number = 0; number < 1000; ++number)
            seeds.insert(seed_of_job(seed, number));
    }
    EXPECT_EQ(seeds.size(), 4000u);
    // Part of the interface: seeded results stay what they are.
    EXPECT_EQ(seed_of_job(0, 0), 0xa706dd2f4d197e6fu);
}

}  // namespace
}  // namespace pblinalg::test
