// Shot programs: what a shot reads does not depend on the others, nor on workers and memory; stops
// and errors. That shots follow exact distributions is tested from Python, beside density matrices.
#include <numeric>
#include <stdexcept>

#include "support/states.hpp"
#include "trajectories/run_shots.hpp"

namespace pblinalg::test {
namespace {

using Matrix = std::vector<std::complex<double>>;
using Counts = std::map<std::string, std::uint64_t>;

template <class T>
class Shots : public ::testing::Test {};
TYPED_TEST_SUITE(Shots, Precisions);

Channel flips(double p) {
    const Matrix kept{1, 0, 0, 1}, x{0, 1, 1, 0}, y{0, {0, -1}, {0, 1}, 0};
    return Channel::mixture(1, std::vector{kept, x, y}, std::vector{1 - p, p / 2, p / 2});
}

Channel damping(double p) {
    return Channel::kraus(
        1, std::vector{Matrix{1, 0, 0, std::sqrt(1 - p)}, Matrix{0, std::sqrt(p), 0, 0}});
}

/// Everything that a program may hold, in stretches that are longer than one list.
ShotProgram program_of_all_steps(unsigned int n) {
    ShotProgram program(n, n + 1);
    GateList layer;
    for (unsigned int q = 0; q < n; ++q)
        layer.add(GateKind::RY, q, Angle::of_parameter(0, 0.3 + 0.1 * q));
    for (unsigned int q = 0; q + 1 < n; ++q)
        layer.add(GateKind::X, q + 1, Controls({q}));
    program.add_gates(layer);
    for (unsigned int round = 0; round < 30; ++round) {
        const unsigned int q = round % n;
        program.add_gates(layer).add_channel(flips(0.05), q).add_channel(damping(0.04), q);
        if (round % 10 == 3) program.add_measurement(q, q, {0.05, 0.1});
        if (round % 10 == 7) {
            program.begin_condition(std::vector<ClassicalValue>{{2, true}, {1, false}});
            program.add_gates(layer).add_reset(q).end_condition();
        }
    }
    program.add_channel(damping(1), n - 1);
    for (unsigned int q = 0; q < n; ++q)
        program.add_measurement(q, q + 1, {0.02, 0.01});
    return program;
}

std::uint64_t sum_of(const Counts& counts) {
    return std::accumulate(counts.begin(), counts.end(), std::uint64_t{0},
                           [](auto sum, const auto& entry) { return sum + entry.second; });
}

TYPED_TEST(Shots, ReadTheSameInAnyCompanyAndAnyMemory) {
    using T = TypeParam;
    const ShotProgram program = program_of_all_steps(4);
    const std::vector values{0.7};
    const WObservable<T> observable{{1, 2}, {1, 6}, {4, 3}, {0, 0}, 0, 0};
    ShotOptions options;
    options.shots = 200;
    options.seed = 11;
    const Counts counts = cpu::count_shots_on<T>(program, values, options, 1);
    const auto means = cpu::shot_expectations_on<T>(program, observable, values, options, 1);
    EXPECT_EQ(sum_of(counts), 200);
    EXPECT_GT(counts.size(), 10);
    for (const std::size_t shares : {1, 3, 200}) {
        for (const std::size_t states : {1, 2, 64}) {
            SCOPED_TRACE(testing::Message() << shares << " shares, " << states << " states");
            options.max_states = states;
            EXPECT_EQ(cpu::count_shots_on<T>(program, values, options, shares), counts);
            EXPECT_EQ(cpu::shot_expectations_on<T>(program, observable, values, options, shares),
                      means);
        }
    }
}

TYPED_TEST(Shots, OfLargeRegistersDoNotDependOnTheWorkers) {
    using T = TypeParam;
    const ShotProgram program = program_of_all_steps(18);
    ShotOptions options;
    options.shots = 3;
    std::vector<Counts> seen;
    for (const int threads : {2, 3}) {
        processors = static_cast<unsigned int>(threads);
        options.threads = threads;
        seen.push_back(count_shots<T>(program, std::vector{0.7}, options));
    }
    processors = 8;
    EXPECT_EQ(seen[0], seen[1]);
}

TYPED_TEST(Shots, BeyondABatchAreNumberedOn) {
    using T = TypeParam;
    ShotProgram program(1, 2);
    program.add_gates(GateList().add(GateKind::H, 0)).add_measurement(0, 0);
    program.add_gates(GateList().add(GateKind::H, 0)).add_measurement(0, 1);
    ShotOptions options;
    options.shots = (1 << 20) + 5;
    const Counts all = cpu::count_shots_on<T>(program, {}, options, 1);
    EXPECT_EQ(cpu::count_shots_on<T>(program, {}, options, 3), all);
    EXPECT_EQ(sum_of(all), options.shots);
    for (const auto& [text, times] : all)
        EXPECT_NEAR(static_cast<double>(times), 0x1p18, 5 * 0x1p9) << text;
}

/// Counts of 100,000 shots against the shares that they should have.
template <class T>
void expect_shares(const ShotProgram& program,
                   std::initializer_list<std::pair<const char*, double>> shares) {
    ShotOptions options;
    options.shots = 100000;
    const Counts counts = count_shots<T>(program, {}, options);
    EXPECT_EQ(counts.size(), shares.size());
    for (const auto& [text, share] : shares) {
        const double expected = 100000 * share;
        const auto times = counts.contains(text) ? counts.at(text) : 0;
        EXPECT_NEAR(static_cast<double>(times), expected, 5 * std::sqrt(expected * (1 - share)))
            << text;
    }
}

TYPED_TEST(Shots, ReadWronglyAsOftenAsTheErrorsSay) {
    ShotProgram program(2, 2);
    program.add_gates(GateList().add(GateKind::X, 0));
    program.add_measurement(0, 0, {0.7, 0.3}).add_gates(GateList().add(GateKind::H, 0));
    program.add_measurement(1, 1, {0.1, 0.6});
    expect_shares<TypeParam>(program, {{"00", 0.27}, {"01", 0.03}, {"10", 0.63}, {"11", 0.07}});
}

TYPED_TEST(Shots, FollowTheOperatorsOfAChannel) {
    ShotProgram program(3, 3);
    program.add_gates(GateList().add(GateKind::X, 0).add(GateKind::X, 1).add(GateKind::X, 2));
    // Of |11> the first qubit decays, which is qubit 2 here.
    Matrix kept(16), decay(16);
    kept[0] = kept[5] = kept[10] = 1;
    kept[15] = std::sqrt(0.6);
    decay[4 * 1 + 3] = std::sqrt(0.4);
    program.add_channel(Channel::kraus(2, std::vector{kept, decay}), {2, 0});
    program.add_channel(damping(0.1), 1);
    for (unsigned int q = 0; q < 3; ++q)
        program.add_measurement(q, q);
    expect_shares<TypeParam>(program, {{"111", 0.54}, {"110", 0.36}, {"101", 0.06}, {"100", 0.04}});
}

TYPED_TEST(Shots, StopWhenAskedTo) {
    using T = TypeParam;
    const ShotProgram program = program_of_all_steps(4);
    for (const std::size_t shares : {1, 3}) {
        ShotOptions options;
        options.shots = 2000;
        std::uint64_t told = 0;
        options.between = [&](std::uint64_t done) {
            EXPECT_GE(done, told);
            told = done;
            return done < 100;
        };
        const Counts counts = cpu::count_shots_on<T>(program, std::vector{0.7}, options, shares);
        EXPECT_GE(sum_of(counts), 100);
        EXPECT_LT(sum_of(counts), 2000);
    }
}

TYPED_TEST(Shots, FindStatesThatAreNone) {
    using T = TypeParam;
    for (const double factor : {0.9, 1.1}) {
        for (const bool resets : {false, true}) {
            ShotProgram program(2, 1);
            program.add_gates(GateList().add_matrix(1, Matrix{factor, 0, 0, factor}));
            if (resets) {
                program.add_reset(0);
            } else {
                program.add_measurement(1, 0).add_gates(GateList().add(GateKind::H, 1));
            }
            EXPECT_THROW(count_shots<T>(program), std::domain_error);
        }
    }
}

}  // namespace
}  // namespace pblinalg::test
