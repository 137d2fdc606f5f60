// Shots against the sequential scan that defines them, draw by draw, and against probabilities.
#include "readout/sampling.hpp"

#include "readout/draws.hpp"
#include "support/readouts.hpp"

namespace pblinalg::test {
namespace {

/// The element that one draw selects: the first at which the running sum reaches u.
template <class T>
std::uint64_t select(const std::vector<T>& elements, std::uint64_t draw) {
    const T u = std::ldexp(static_cast<T>(draw), -64);
    if (!(u > 0)) return ~std::uint64_t{0};
    T sum = 0;
    for (std::size_t r = 0; r < elements.size(); ++r) {
        sum += elements[r];
        if (sum >= u) return r;
    }
    return elements.size() - 1;
}

std::uint64_t read_bits(std::uint64_t element, const Qubits& qubits) {
    std::uint64_t outcome = 0;
    for (const unsigned int q : qubits)
        outcome = 2 * outcome + (element >> q & 1);
    return outcome;
}

/// Expects that shot s of `state` is what draw s selects, and that the generator moved as far.
template <class T>
void expect_exact_shots(StateVector<T>& state, const Qubits& qubits, std::size_t nshots) {
    const std::vector<T> elements = probabilities(state);
    const unsigned int n = state.density_matrix ? state.nqubits / 2 : state.nqubits;
    std::mt19937_64 copy(99);
    state.rng.seed(99);
    std::vector<unsigned long long> shots(nshots + 1, 77);
    state.sample_subset(shots.data(), qubits, nshots);
    for (std::size_t s = 0; s < nshots; ++s) {
        const std::uint64_t element = select(elements, copy());
        ASSERT_EQ(shots[s], qubits.empty() ? reversed(element, n) : read_bits(element, qubits))
            << s;
    }
    EXPECT_EQ(shots[nshots], 77u);
    EXPECT_EQ(state.rng, copy);
}

template <class T>
class Sampling : public ::testing::Test {};
TYPED_TEST_SUITE(Sampling, Precisions);

TYPED_TEST(Sampling, GivesEveryShotWhatItsOwnScanFinds) {
    using T = TypeParam;
    for_each_instruction_set([] {
        for (const bool density_matrix : {false, true}) {
            for (const unsigned int n : {0u, 1u, 2u, 4u, 7u, 9u, 10u}) {
                auto state = random_readout_state<T>(density_matrix ? 2 * n : n, density_matrix);
                for (const int workers : {1, 2, 0}) {
                    state->set_num_threads(workers);
                    expect_exact_shots(*state, {}, 300);
                    if (n >= 4) expect_exact_shots(*state, {3, 0, 2}, 100);
                }
            }
        }
    });
}

TYPED_TEST(Sampling, GivesTheSameShotsForEveryWorkerCountOnLargeStates) {
    using T = TypeParam;
    auto state = random_readout_state<T>(16, false);
    for (std::size_t i = 0; i < state->size; ++i)
        state->state[i] *= i % 1024 < 1000 ? T(0.01) : T(5);
    for (const int workers : {1, 2, 0}) {
        state->set_num_threads(workers);
        expect_exact_shots(*state, {}, 2000);
    }
    auto small = random_readout_state<T>(3, false);
    for (const int workers : {1, 2}) {
        small->set_num_threads(workers);
        expect_exact_shots(*small, {2, 1}, 200000);
    }
}

TYPED_TEST(Sampling, InChunksGoesOnWhereTheLastOneEnded) {
    using T = TypeParam;
    constexpr std::size_t nshots = 5000;
    for (const unsigned int n : {3u, 13u}) {
        auto state = random_readout_state<T>(n, false);
        state->rng.seed(99);
        std::vector<unsigned long long> whole(nshots), chunked(nshots);
        state->sample(whole.data(), nshots);
        std::mt19937_64 generator(99);
        cpu::pick_shots_state(cpu::amplitude_view<T>(state->state.get(), n), chunked.data(),
                              generator, nshots, 2, {}, 999);
        EXPECT_EQ(chunked, whole);
        EXPECT_EQ(generator, state->rng);
    }
}

TYPED_TEST(Sampling, FollowsTheProbabilitiesByChiSquare) {
    using T = TypeParam;
    auto state = random_readout_state<T>(5, false);
    state->project({}, 0);
    constexpr std::size_t nshots = 10000;
    std::vector<unsigned long long> shots(nshots);
    const std::vector<T> expected = probabilities(*state);
    double total = 0;
    for (int seed = 1; seed <= 50; ++seed) {
        state->rng.seed(seed);
        state->sample(shots.data(), nshots);
        std::vector<double> counts(32);
        for (const unsigned long long shot : shots)
            counts[reversed(shot, 5)] += 1;
        double chi_square = 0;
        for (int k = 0; k < 32; ++k) {
            const double mean = nshots * static_cast<double>(expected[k]);
            chi_square += (counts[k] - mean) * (counts[k] - mean) / mean;
        }
        // 31 degrees of freedom: exceeded by one of 50 seeds once in a thousand times.
        EXPECT_LT(chi_square, 74.7) << seed;
        total += chi_square;
    }
    // 1550 degrees of freedom: below and above lies one case in a thousand each. Shots that follow
    // the probabilities too closely are as wrong as those that do not.
    EXPECT_GT(total, 1384);
    EXPECT_LT(total, 1728);
}

TYPED_TEST(Sampling, MeasuresWithOneDrawAndWithoutCollapse) {
    using T = TypeParam;
    auto state = random_readout_state<T>(6, false);
    const Amplitudes<T> before = amplitudes_of(*state);
    const std::vector<T> elements = probabilities(*state);
    std::mt19937_64 copy(5);
    state->rng.seed(5);
    for (int call = 0; call < 20; ++call) {
        EXPECT_EQ(state->measure({4, 1}), read_bits(select(elements, copy()), {4, 1}));
    }
    EXPECT_TRUE(same_bits(*state, before));
    unsigned long long untouched = 77;
    state->sample(&untouched, 0);
    EXPECT_EQ(untouched, 77u);
    EXPECT_EQ(state->rng, copy);
}

TYPED_TEST(Sampling, RoundsDrawsOnceAndGivesTheSmallestAndTheLargestTheLastOutcome) {
    using T = TypeParam;
    StateVector<T> state(3);
    state.reset();
    script(state.rng, {0, 1, 0, 0});
    EXPECT_EQ(state.measure({}), 7u);
    EXPECT_EQ(state.measure({}), 0u);
    EXPECT_EQ(state.measure({2, 0}), 3u);
    // Every bit of the selected index is 1, also those above the state.
    EXPECT_EQ(state.measure({0, 5}), 3u);

    EXPECT_EQ(cpu::unit_interval<T>(~std::uint64_t{0}), T(1));
    // Between two floats, above the middle by less than a double can tell.
    const std::uint64_t draw = (std::uint64_t{1} << 63) + (std::uint64_t{1} << 39) + 1;
    EXPECT_EQ(cpu::unit_interval<T>(draw), T(0.5) + (sizeof(T) == 4 ? T(0x1p-24) : T(0x1p-25)));
    // The sum stops at 1/4; a draw just above it rounds down to it.
    state.resize(2);
    load(state, {0, T(0.5), 0, 0});
    const std::uint64_t quarter = std::uint64_t{1} << 62;
    script(state.rng, {~std::uint64_t{0}, quarter, quarter + 1, quarter + (quarter >> 20)});
    for (const unsigned long long expected : {3u, 2u, 2u, 3u})
        EXPECT_EQ(state.measure({}), expected);
}

TYPED_TEST(Sampling, OfNaNAndInfiniteSumsFollowsTheComparisons) {
    using T = TypeParam;
    using Limits = std::numeric_limits<T>;
    for (const T bad : {Limits::quiet_NaN(), Limits::infinity()}) {
        for (const std::size_t at : {0u, 3u, 700u}) {
            auto state = random_readout_state<T>(11, false);
            state->state[at] = {bad, 0};
            expect_exact_shots(*state, {}, 200);
        }
    }
}

}  // namespace
}  // namespace pblinalg::test
